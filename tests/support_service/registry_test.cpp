/// Who gets in, on both stores.
#include "registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "book_rig.h"

namespace TarvoOrvane::SupportService {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RegistryTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  Registry& registry() { return rig_.book().registry(); }
  Store& store() { return rig_.store(); }

  /// What the function refuses with; empty when it does not.
  template <typename Function>
  static std::string FaultOf(const Function& function) {
    try {
      function();
    } catch (const std::invalid_argument& refusal) {
      return refusal.what();
    }
    return "";
  }

  BookRig rig_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Stores, RegistryTest, ::testing::Values(StoreKind::kMemory, StoreKind::kSqlite),
                         [](const auto& each) { return NameOf(each.param); });

TEST_P(RegistryTest, EnrolledDeviceIsKnownAtOnceAndRemembered) {
  const WallTime until = rig_.now().wall + hours(24);
  registry().Enrol("NEW", until);
  EXPECT_TRUE(registry().FindDevice("NEW")) << "it is not in the store yet";
  EXPECT_FALSE(store().FindDevice("NEW"));
  rig_.Turn();
  const auto device = store().FindDevice("NEW");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->enrolled, rig_.now().wall);
  EXPECT_EQ(device->certificate_until, until);
  EXPECT_FALSE(device->blocked);
  EXPECT_FALSE(device->last_seen);
}

TEST_P(RegistryTest, EnrollingAgainChangesTheCertificateAlone) {
  registry().Enrol("NEW", rig_.now().wall);
  const WallTime first = rig_.now().wall;
  rig_.Turn();
  rig_.Pass(hours(1));
  registry().Enrol("NEW", std::nullopt);
  rig_.Turn();
  EXPECT_EQ(store().FindDevice("NEW")->certificate_until, first);
  registry().Enrol("NEW", rig_.now().wall);
  rig_.Turn();
  EXPECT_EQ(store().FindDevice("NEW")->enrolled, first);
  EXPECT_EQ(store().FindDevice("NEW")->certificate_until, rig_.now().wall);
}

TEST_P(RegistryTest, WhatIsNoSerialNumberOrBlockedIsNotEnrolled) {
  EXPECT_THAT(FaultOf([&] { registry().Enrol("", std::nullopt); }), HasSubstr("empty"));
  EXPECT_THAT(FaultOf([&] { registry().Enrol("a\nb", std::nullopt); }), HasSubstr("printable ASCII"));
  registry().SetBlocked("SN1", true);
  EXPECT_THAT(FaultOf([&] { registry().Enrol("SN1", std::nullopt); }), HasSubstr("unblock it first"));
  EXPECT_THAT(FaultOf([&] { registry().SetBlocked("nobody", true); }),
              HasSubstr("no device \"nobody\" is enrolled"));
}

TEST_P(RegistryTest, BlockingIsRemembered) {
  registry().SetBlocked("SN1", true);
  rig_.Turn();
  rig_.Restart();
  EXPECT_TRUE(registry().FindDevice("SN1")->blocked);
  registry().SetBlocked("SN1", false);
  rig_.Turn();
  EXPECT_FALSE(store().FindDevice("SN1")->blocked);
}

TEST_P(RegistryTest, WhatCouldNotBeRememberedIsForgotten) {
  registry().Enrol("NEW", std::nullopt);
  registry().AddUser("anna", Role::kViewer, "hash");
  registry().Record({"a", "b"}, "c", "d");
  static_cast<void>(rig_.book().TakeChanges());  // the store fails
  rig_.book().Reload();
  EXPECT_FALSE(registry().FindDevice("NEW"));
  registry().AddUser("anna", Role::kViewer, "hash");
  registry().Record({"a", "b"}, "c", "d");
  rig_.Turn();
  EXPECT_EQ(store().LastAudit(), 1U);
}

TEST_P(RegistryTest, SeeingADeviceWaitsForTheNextBatchOrHalfAMinute) {
  const StreamId stream = rig_.Connect("SN1");
  const WallTime seen = rig_.now().wall;
  rig_.Turn();
  EXPECT_FALSE(store().FindDevice("SN1")->last_seen);
  EXPECT_EQ(registry().FindDevice("SN1")->last_seen, seen) << "it is known all the same";
  EXPECT_EQ(rig_.book().NextDeadline(), rig_.now().steady + Registry::kSeenPause);
  rig_.Pass(Registry::kSeenPause);
  rig_.Turn();
  EXPECT_EQ(store().FindDevice("SN1")->last_seen, seen);
  EXPECT_EQ(store().FindDevice("SN1")->address, "peer of SN1");
  EXPECT_FALSE(rig_.book().NextDeadline());

  rig_.Pass(hours(1));
  rig_.book().CloseStream(stream);
  registry().Record({"a", "b"}, "c", "d");
  rig_.Turn();
  EXPECT_EQ(store().FindDevice("SN1")->last_seen, rig_.now().wall);
}

TEST_P(RegistryTest, DevicesAreListedByTheirBeginningInPages) {
  for (const char* serial_number : {"A", "A1", "A10", "A2", "B", "~"}) {
    registry().Enrol(serial_number, std::nullopt);
  }
  rig_.Turn();
  const auto names = [&](const std::string& beginning, const std::string& after, std::size_t limit) {
    std::string text;
    for (const auto& device : store().Devices(beginning, after, limit)) text += device.serial_number + " ";
    return text;
  };
  EXPECT_EQ(names("A", "", 100), "A A1 A10 A2 ");
  EXPECT_EQ(names("A", "A1", 1), "A10 ");
  EXPECT_EQ(names("A", "A2", 100), "");
  EXPECT_EQ(names("A1", "A", 100), "A1 A10 ");
  EXPECT_EQ(names("~", "", 100), "~ ");
  EXPECT_EQ(names("", "SN9", 100), "~ ");
  EXPECT_THAT(store().Devices("", "", 100), SizeIs(16));
}

TEST_P(RegistryTest, AccountsAreMadeChangedAndRemoved) {
  registry().AddUser("anna", Role::kSupport, "hash");
  EXPECT_THAT(FaultOf([&] { registry().AddUser("anna", Role::kViewer, "other"); }), HasSubstr("already"));
  rig_.Turn();
  EXPECT_THAT(FaultOf([&] { registry().AddUser("anna", Role::kViewer, "other"); }), HasSubstr("already"));
  registry().ChangeUser("anna", Role::kAdmin, std::nullopt);
  rig_.Turn();
  EXPECT_EQ(store().FindUser("anna")->role, Role::kAdmin);
  EXPECT_EQ(store().FindUser("anna")->password_hash, "hash");
  registry().ChangeUser("anna", std::nullopt, "new");
  rig_.Turn();
  EXPECT_EQ(store().FindUser("anna")->password_hash, "new");
  registry().RemoveUser("anna");
  EXPECT_THAT(FaultOf([&] { registry().RemoveUser("anna"); }), HasSubstr("no account"));
  rig_.Turn();
  EXPECT_THAT(store().Users(), IsEmpty());
  for (const char* name : {"", "Anna", "a b", "-a", ".a", "a\n", "\xc3\xa4"}) {
    EXPECT_THAT(FaultOf([&] { registry().AddUser(name, Role::kViewer, "x"); }),
                HasSubstr("an account's name"))
        << name;
  }
}

TEST_P(RegistryTest, SessionsEndWithTheirTimeTheirAccountAndByThemselves) {
  const User anna = registry().AddUser("anna", Role::kViewer, "hash");
  const User ben = registry().AddUser("ben", Role::kViewer, "hash");
  const NewSession first = registry().AddSession(anna, hours(1));
  const NewSession second = registry().AddSession(anna, hours(1));
  const NewSession other = registry().AddSession(ben, hours(1));
  rig_.Turn();
  EXPECT_NE(first.secret, second.secret);
  EXPECT_EQ(store().FindSession(HashOf(first.secret))->user, "anna");
  EXPECT_EQ(store().FindSession(HashOf(first.secret))->expires, rig_.now().wall + hours(1));
  registry().EndSession(HashOf(first.secret));
  rig_.Turn();
  EXPECT_FALSE(store().FindSession(HashOf(first.secret)));
  EXPECT_TRUE(store().FindSession(HashOf(second.secret)));
  const User changed = registry().ChangeUser("anna", std::nullopt, "new");
  rig_.Turn();
  EXPECT_FALSE(store().FindSession(HashOf(second.secret)));
  EXPECT_TRUE(store().FindSession(HashOf(other.secret)));
  // A new session takes those with it that are over.
  rig_.Pass(hours(2));
  registry().AddSession(changed, hours(1));
  rig_.Turn();
  EXPECT_FALSE(store().FindSession(HashOf(other.secret)));
  EXPECT_THAT(FaultOf([&] {
                registry().AddSession({"nobody", Role::kViewer, "hash", {}}, hours(1));
              }),
              HasSubstr("no account"));
}

TEST_P(RegistryTest, PasswordThatWasChangedMeanwhileOpensNoSession) {
  const User shown = registry().AddUser("anna", Role::kViewer, "hash");
  registry().ChangeUser("anna", std::nullopt, "new");
  EXPECT_THAT(FaultOf([&] { registry().AddSession(shown, hours(1)); }), HasSubstr("changed meanwhile"));
  rig_.Turn();
  EXPECT_THAT(FaultOf([&] { registry().AddSession(shown, hours(1)); }), HasSubstr("changed meanwhile"));
}

TEST_P(RegistryTest, TokensAreFoundByTheirSecretAlone) {
  const NewApiToken made = registry().AddApiToken("ci", Role::kViewer, hours(24), "anna");
  rig_.Turn();
  const auto found = store().FindApiToken(HashOf(made.secret));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, made.token.id);
  EXPECT_EQ(found->expires, rig_.now().wall + hours(24));
  EXPECT_EQ(found->created_by, "anna");
  EXPECT_THAT(store().ApiTokens(), SizeIs(1));
  EXPECT_THAT(FaultOf([&] { registry().RemoveApiToken("none"); }), HasSubstr("no API token"));
  registry().RemoveApiToken(made.token.id);
  rig_.Turn();
  EXPECT_FALSE(store().FindApiToken(HashOf(made.secret)));
  EXPECT_THAT(FaultOf([&] { registry().AddApiToken("a\tb", Role::kViewer, hours(1), "anna"); }),
              HasSubstr("printable"));
}

TEST_P(RegistryTest, AuditIsNumberedAndListedFromItsEnd) {
  for (int i = 1; i <= 5; ++i) {
    registry().Record({"anna", "192.0.2.1:5"}, "send ticket", std::to_string(i), "detail");
  }
  rig_.Turn();
  rig_.Restart();
  registry().Record({"anna", "192.0.2.1:5"}, "send ticket", "6");
  rig_.Turn();
  const auto newest = store().Audit(0, 2);
  ASSERT_THAT(newest, SizeIs(2));
  EXPECT_EQ(newest[0].number, 6U);
  EXPECT_EQ(newest[0].object, "6");
  EXPECT_EQ(newest[1].actor.who, "anna");
  EXPECT_EQ(newest[1].actor.from, "192.0.2.1:5");
  EXPECT_EQ(newest[1].detail, "detail");
  EXPECT_EQ(newest[1].time, rig_.now().wall);
  EXPECT_EQ(store().Audit(newest[1].number, 100).front().number, 4U);
}

// ---------- at the streams ----------

class AdmissionTest : public ::testing::TestWithParam<Trust> {
 protected:
  /// What the stream is ended with; empty when it got in.
  std::string FaultOfHello(const std::string& serial_number,
                           const std::optional<std::string>& certificate_name) {
    rig_.Connect(serial_number, certificate_name);
    const Work work = rig_.Turn();
    if (work.ends.empty()) return "";
    EXPECT_EQ(work.ends[0].reason, EndReason::kStranger);
    return work.ends[0].text;
  }

  BookRig rig_{StoreKind::kMemory, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(ByCertificate, AdmissionTest,
                         ::testing::Values(Trust::kOwnAuthority, Trust::kOtherAuthority));

TEST_P(AdmissionTest, OnlyTheCertificateOfAnEnrolledDeviceGetsIn) {
  EXPECT_EQ(FaultOfHello("SN1", std::nullopt), "it has shown no certificate");
  EXPECT_EQ(FaultOfHello("SN1", "SN2"), "the certificate is that of \"SN2\"");
  EXPECT_EQ(FaultOfHello("SN1", "sn1"), "the certificate is that of \"sn1\"");
  EXPECT_EQ(FaultOfHello("SN11", "SN11"), "the device is not enrolled");
  rig_.book().SetBlocked("SN2", true);
  EXPECT_EQ(FaultOfHello("SN2", "SN2"), "the device is blocked");
  EXPECT_THAT(rig_.Devices(), IsEmpty());
  EXPECT_EQ(FaultOfHello("SN1", "SN1"), "");
  EXPECT_THAT(rig_.Devices(), SizeIs(1));
}

TEST_P(AdmissionTest, RefusedStrangerTakesNothingFromTheDevice) {
  EXPECT_EQ(FaultOfHello("SN1", "SN1"), "");
  for (int i = 0; i < 20; ++i) EXPECT_NE(FaultOfHello("SN1", "SN2"), "");
  ASSERT_THAT(rig_.Devices(), SizeIs(1));
  EXPECT_EQ(rig_.Devices()[0].twin, "");
}

TEST_P(AdmissionTest, RefusalsStandInTheAuditAndCantFillIt) {
  for (int i = 0; i < 1000; ++i) static_cast<void>(FaultOfHello("SN1", "SN2"));
  const auto records = rig_.store().Audit(0, 1000);
  EXPECT_THAT(records, SizeIs(Registry::kRefusalBurst));
  EXPECT_THAT(records[0].detail, HasSubstr("the certificate is that of \"SN2\""));
}

TEST_P(AdmissionTest, BlockingEndsTheStreamAndUnblockingLetsItBackIn) {
  const StreamId stream = rig_.Connect("SN1", "SN1");
  rig_.Turn();
  rig_.book().SetBlocked("SN1", true);
  const Work work = rig_.Turn();
  ASSERT_THAT(work.ends, SizeIs(1));
  EXPECT_EQ(work.ends[0].stream, stream);
  EXPECT_EQ(work.ends[0].text, "the device is blocked");
  EXPECT_NE(FaultOfHello("SN1", "SN1"), "");
  rig_.book().SetBlocked("SN1", false);
  EXPECT_EQ(FaultOfHello("SN1", "SN1"), "");
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
