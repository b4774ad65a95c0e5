#include "authority.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "child_process.h"
#include "small_disk.h"
#include "temporary_folder.h"
#include "test_certificate.h"

namespace {

using StepHook = std::function<void(const std::string& step, int fd, const void* data, std::size_t size)>;
/// Called before each call that changes what is on disk, in the thread that set it; null for none.
thread_local StepHook* before_step = nullptr;

void TellStep(const std::string& step, int fd = -1, const void* data = nullptr, std::size_t size = 0) {
  (*before_step)(step, fd, data, size);
}

std::string LastName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string NameOfOpened(int fd) {
  return LastName(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
}

}  // namespace

// What the linker puts in the place of the calls themselves (--wrap).
extern "C" {
int __real_fsync(int fd);
int __real_mkdir(const char* path, mode_t mode);
int __real_rename(const char* from, const char* to);
ssize_t __real_write(int fd, const void* data, std::size_t size);

int __wrap_fsync(int fd) {
  if (before_step != nullptr) TellStep("sync " + NameOfOpened(fd));
  return __real_fsync(fd);
}
int __wrap_mkdir(const char* path, mode_t mode) {
  if (before_step != nullptr) TellStep("mkdir " + LastName(path));
  return __real_mkdir(path, mode);
}
int __wrap_rename(const char* from, const char* to) {
  if (before_step != nullptr) TellStep("rename " + LastName(from) + " " + LastName(to));
  return __real_rename(from, to);
}
ssize_t __wrap_write(int fd, const void* data, std::size_t size) {
  if (before_step != nullptr) TellStep("write " + NameOfOpened(fd), fd, data, size);
  return __real_write(fd, data, size);
}
}  // extern "C"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using Hours = std::chrono::hours;
using Seconds = std::chrono::seconds;
using test_support::ExitedWith;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr Hours kTestDay{24};
constexpr Hours kTestYear{8766};
/// The fourth of October 2024, 0:00: no test depends on when it is run.
constexpr WallTime kStart{kTestDay * 20000};
constexpr int kKilled = 77;

class AuthorityTest : public ::testing::Test {
 protected:
  /// What OpenSSL says to whom trusts that authority alone, and wants all that RFC 5280 does: X509_V_OK or why not.
  static int Judge(const std::string& certificate, const std::string& authority, int purpose, WallTime at) {
    const auto trusted = Testing::ParseCertificate(authority);
    const auto judged = Testing::ParseCertificate(certificate);
    const std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE_free>> store(X509_STORE_new());
    const std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX_free>> context(X509_STORE_CTX_new());
    X509_STORE_add_cert(store.get(), trusted.get());
    X509_STORE_CTX_init(context.get(), store.get(), judged.get(), nullptr);
    X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_X509_STRICT);
    X509_STORE_CTX_set_purpose(context.get(), purpose);
    X509_STORE_CTX_set_time(context.get(), 0, std::chrono::system_clock::to_time_t(at));
    X509_verify_cert(context.get());
    const int error = X509_STORE_CTX_get_error(context.get());
    ERR_clear_error();
    return error;
  }

  static bool AreOnePair(const std::string& certificate, const std::string& key) {
    const auto parsed_certificate = Testing::ParseCertificate(certificate);
    const auto parsed_key = Testing::ParseKey(key);
    const bool are = parsed_certificate && parsed_key &&
                     X509_check_private_key(parsed_certificate.get(), parsed_key.get()) == 1;
    ERR_clear_error();
    return are;
  }

  static void ExpectValid(X509* certificate, WallTime begin, WallTime end) {
    using Clock = std::chrono::system_clock;
    EXPECT_EQ(ASN1_TIME_cmp_time_t(X509_get0_notBefore(certificate), Clock::to_time_t(begin)), 0);
    EXPECT_EQ(ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate), Clock::to_time_t(end)), 0);
  }

  static bool IsCritical(const X509* certificate, int nid) {
    const int place = X509_get_ext_by_NID(certificate, nid, -1);
    EXPECT_GE(place, 0) << OBJ_nid2sn(nid);
    return X509_EXTENSION_get_critical(X509_get_ext(certificate, place)) == 1;
  }

  /// The subject's only entry, which is its common name.
  static std::string CommonNameOf(const std::string& certificate) {
    const auto parsed = Testing::ParseCertificate(certificate);
    const X509_NAME* subject = X509_get_subject_name(parsed.get());
    EXPECT_EQ(X509_NAME_entry_count(subject), 1);
    EXPECT_EQ(X509_NAME_get_index_by_NID(subject, NID_commonName, -1), 0);
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, 0));
    EXPECT_EQ(ASN1_STRING_type(data), V_ASN1_UTF8STRING);
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
            static_cast<std::size_t>(ASN1_STRING_length(data))};
  }

  static std::string FaultIn(const std::function<void()>& act) {
    try {
      act();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "no fault";
  }
  std::string FaultOfAuthority(WallTime now = kStart) const {
    return FaultIn([&] { const Authority authority(folder_, now); });
  }

  static void RunWith(StepHook hook, const std::function<void()>& act) {
    before_step = &hook;
    const std::string fault = FaultIn(act);
    before_step = nullptr;
    EXPECT_EQ(fault, "no fault");
  }

  /// Runs it in a process that ends at a step, which is left half done where that is possible.
  static test_support::Ending RunUntil(int step, const std::function<void()>& act) {
    const auto die = [left = step](const std::string&, int fd, const void* data, std::size_t size) mutable {
      if (left-- > 0) return;
      if (fd != -1) static_cast<void>(!__real_write(fd, data, size / 2));
      _exit(kKilled);
    };
    return test_support::RunInChild([&] {
      RunWith(die, act);
      return 0;
    });
  }

  static std::vector<std::string> StepsOf(const std::function<void()>& act) {
    std::vector<std::string> steps;
    RunWith([&](const std::string& step, int, const void*, std::size_t) { steps.push_back(step); }, act);
    return steps;
  }

  /// The names of all files below the test's folder.
  [[nodiscard]] std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(temporary_.path())) {
      if (!entry.is_directory()) names.push_back(entry.path().lexically_relative(temporary_.path()));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  /// Writes into the authority's folder, with the mode that the file has there.
  void Put(const std::string& name, const std::string& text) const {
    test_support::WriteFile(folder_ / name, text);
    ASSERT_EQ(chmod((folder_ / name).c_str(), 0600), 0);
  }

  [[nodiscard]] std::string ServerFile(const std::string& name) const {
    return test_support::ReadFile(server_ / name);
  }

  const test_support::TemporaryFolder temporary_;
  const fs::path folder_ = temporary_.path() / "authority";
  const fs::path server_ = temporary_.path() / "server";
  const std::vector<std::string> names_ = {"box.example", "192.0.2.1", "2001:db8::1"};
};

TEST_F(AuthorityTest, NewAuthorityIsClosedToOthersWhateverTheUmask) {
  const mode_t former = umask(0);
  const Authority authority(folder_);
  KeepServerCertificate(authority, names_, server_);
  umask(former);
  EXPECT_EQ(ModeOf(folder_), 0700U);
  EXPECT_EQ(ModeOf(server_), 0700U);
  for (const char* file :
       {"authority/ca.pem", "authority/ca.key", "server/server.pem", "server/server.key"}) {
    EXPECT_EQ(ModeOf(temporary_.path() / file), 0600U) << file;
  }
  EXPECT_THAT(Files(),
              ElementsAre("authority/ca.key", "authority/ca.pem", "server/server.key", "server/server.pem"));
}

TEST_F(AuthorityTest, AuthorityStaysTheSameFromStartToStart) {
  const std::string first = Authority(folder_, kStart).certificate();
  EXPECT_EQ(test_support::ReadFile(folder_ / "ca.pem"), first);
  const Authority again(folder_, kStart + 10 * kTestYear);
  EXPECT_EQ(again.certificate(), first);
  const Credentials device = again.IssueForDevice("SN1", kStart);
  EXPECT_EQ(Judge(device.certificate, first, X509_PURPOSE_SSL_CLIENT, kStart), X509_V_OK);
}

TEST_F(AuthorityTest, AuthoritysOwnCertificateIsWhatRfc5280Wants) {
  const Authority authority(folder_, kStart);
  const auto parsed = Testing::ParseCertificate(authority.certificate());
  X509* const certificate = parsed.get();
  EXPECT_EQ(X509_get_version(certificate), X509_VERSION_3);
  EXPECT_EQ(X509_self_signed(certificate, 1), 1);
  EXPECT_EQ(X509_get_signature_nid(certificate), NID_ecdsa_with_SHA256);
  EXPECT_EQ(CommonNameOf(authority.certificate()), "support service authority 2024-10-04");
  ExpectValid(certificate, kStart - kTestDay, kStart + 30 * kTestYear);
  EXPECT_EQ(X509_get0_notAfter(certificate)->type, V_ASN1_GENERALIZEDTIME);  // from 2050 on
  EXPECT_TRUE(IsCritical(certificate, NID_basic_constraints));
  EXPECT_EQ(X509_check_ca(certificate), 1);
  EXPECT_EQ(X509_get_pathlen(certificate), 0);
  EXPECT_TRUE(IsCritical(certificate, NID_key_usage));
  EXPECT_EQ(X509_get_key_usage(certificate), static_cast<unsigned>(KU_KEY_CERT_SIGN));
}

TEST_F(AuthorityTest, DevicesCertificateIsAClientsAlone) {
  const Authority authority(folder_, kStart);
  const Credentials device = authority.IssueForDevice("SN1", kStart);
  EXPECT_EQ(Judge(device.certificate, authority.certificate(), X509_PURPOSE_SSL_CLIENT, kStart), X509_V_OK);
  EXPECT_EQ(Judge(device.certificate, authority.certificate(), X509_PURPOSE_SSL_SERVER, kStart),
            X509_V_ERR_INVALID_PURPOSE);
  EXPECT_TRUE(AreOnePair(device.certificate, device.key));
  EXPECT_EQ(CommonNameOf(device.certificate), "SN1");

  const auto parsed = Testing::ParseCertificate(device.certificate);
  X509* const certificate = parsed.get();
  EXPECT_EQ(X509_get_version(certificate), X509_VERSION_3);
  EXPECT_EQ(X509_get_signature_nid(certificate), NID_ecdsa_with_SHA256);
  std::array<char, 32> curve{};
  EXPECT_EQ(EVP_PKEY_get_group_name(X509_get0_pubkey(certificate), curve.data(), curve.size(), nullptr), 1);
  EXPECT_STREQ(curve.data(), "prime256v1");
  EXPECT_TRUE(IsCritical(certificate, NID_basic_constraints));
  EXPECT_EQ(X509_check_ca(certificate), 0);
  EXPECT_TRUE(IsCritical(certificate, NID_key_usage));
  EXPECT_EQ(X509_get_key_usage(certificate), static_cast<unsigned>(KU_DIGITAL_SIGNATURE));
  EXPECT_EQ(X509_get_extended_key_usage(certificate), static_cast<unsigned>(XKU_SSL_CLIENT));
  EXPECT_EQ(X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1), -1);
  const auto authoritys = Testing::ParseCertificate(authority.certificate());
  ASSERT_NE(X509_get0_authority_key_id(certificate), nullptr);
  EXPECT_EQ(ASN1_OCTET_STRING_cmp(X509_get0_authority_key_id(certificate),
                                  X509_get0_subject_key_id(authoritys.get())),
            0);
  EXPECT_NE(X509_get0_subject_key_id(certificate), nullptr);
}

TEST_F(AuthorityTest, DevicesCertificateIsValidForTenYearsFromTheDayBefore) {
  const Authority authority(folder_, kStart);
  const Credentials device = authority.IssueForDevice("SN1", kStart);
  const WallTime begin = kStart - kTestDay;
  const WallTime end = kStart + 10 * kTestYear;
  ExpectValid(Testing::ParseCertificate(device.certificate).get(), begin, end);
  EXPECT_EQ(device.until, end);
  const auto judge_at = [&](WallTime at) {
    // Its authority has begun when it does: this tells the two apart.
    return Judge(device.certificate, authority.certificate(), X509_PURPOSE_SSL_CLIENT, at);
  };
  EXPECT_EQ(judge_at(begin - Seconds(1)), X509_V_ERR_CERT_NOT_YET_VALID);
  EXPECT_EQ(judge_at(begin), X509_V_OK);
  EXPECT_EQ(judge_at(end - Seconds(1)), X509_V_OK);
  EXPECT_EQ(judge_at(end + Seconds(1)), X509_V_ERR_CERT_HAS_EXPIRED);
}

TEST_F(AuthorityTest, NoCertificateOutlastsTheAuthority) {
  const Authority authority(folder_, kStart);
  const WallTime end = kStart + 30 * kTestYear;
  EXPECT_EQ(authority.IssueForDevice("SN1", end - 10 * kTestYear - Seconds(1)).until, end - Seconds(1));
  EXPECT_EQ(authority.IssueForDevice("SN1", end - 10 * kTestYear + Seconds(1)).until, end);
  EXPECT_EQ(authority.IssueForServer(names_, end - Seconds(1)).until, end);
  EXPECT_THAT(FaultIn([&] { static_cast<void>(authority.IssueForDevice("SN1", end)); }),
              HasSubstr("ca.pem expired at 2054-10-04T"));
}

TEST_F(AuthorityTest, LongSerialNumberOfAnyPrintableBytesIsOneCommonName) {
  const Authority authority(folder_, kStart);
  const std::string odd = R"(CN=x,O=y/OU=z + "q" \ ;<>#= 'a'  )";
  for (const std::size_t size : {1, 64, 65, 127, 128}) {
    std::string serial_number;
    while (serial_number.size() < size) serial_number += odd;
    serial_number.resize(size);
    const Credentials device = authority.IssueForDevice(serial_number, kStart);
    EXPECT_EQ(CommonNameOf(device.certificate), serial_number);
    EXPECT_EQ(Judge(device.certificate, authority.certificate(), X509_PURPOSE_SSL_CLIENT, kStart), X509_V_OK);
  }
  for (char byte = 0x20; byte < 0x7f; ++byte) {
    EXPECT_EQ(CommonNameOf(authority.IssueForDevice({byte}, kStart).certificate), std::string(1, byte));
  }
}

TEST_F(AuthorityTest, WhatIsNoSerialNumberGetsNoCertificate) {
  const Authority authority(folder_, kStart);
  const std::pair<std::string, std::string> cases[] = {
      {"", "the serial number is empty"},
      {std::string(129, 'x'), "the serial number is longer than 128 bytes"},
      {"a\nb", "the serial number has other characters than printable ASCII"},
      {{'a', '\0', 'b'}, "the serial number has other characters than printable ASCII"},
      {"\x7f", "the serial number has other characters than printable ASCII"},
      {"\xc3\xa9", "the serial number has other characters than printable ASCII"},
  };
  for (const auto& [serial_number, fault] : cases) {
    EXPECT_THROW(static_cast<void>(authority.IssueForDevice(serial_number, kStart)), std::invalid_argument);
    EXPECT_EQ(
        FaultIn([&, &name = serial_number] { static_cast<void>(authority.IssueForDevice(name, kStart)); }),
        fault + ": name 1 to 128 characters of printable ASCII");
  }
}

TEST_F(AuthorityTest, NoTwoCertificatesHaveOneNumberOrKey) {
  const Authority authority(folder_, kStart);
  std::set<std::string> numbers;
  std::set<std::string> keys;
  for (int i = 0; i < 20; ++i) {
    const Credentials device = authority.IssueForDevice("SN1", kStart);
    const auto certificate = Testing::ParseCertificate(device.certificate);
    const ASN1_INTEGER* number = X509_get0_serialNumber(certificate.get());
    EXPECT_EQ(ASN1_STRING_type(number), V_ASN1_INTEGER);  // a negative one is V_ASN1_NEG_INTEGER
    const std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>> value(ASN1_INTEGER_to_BN(number, nullptr));
    EXPECT_EQ(BN_num_bits(value.get()), 128);
    numbers.emplace(reinterpret_cast<const char*>(ASN1_STRING_get0_data(number)), 16);
    keys.insert(device.key);
  }
  EXPECT_EQ(numbers.size(), 20U);
  EXPECT_EQ(keys.size(), 20U);
}

TEST_F(AuthorityTest, DevicesKeyIsNowhereOnDisk) {
  const Authority authority(folder_, kStart);
  EXPECT_THAT(StepsOf([&] { static_cast<void>(authority.IssueForDevice("SN1", kStart)); }), ElementsAre());
  EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem"));
}

TEST_F(AuthorityTest, ServersCertificateIsForItsNamesAndAServersAlone) {
  const Authority authority(folder_, kStart);
  const Credentials server = authority.IssueForServer(names_, kStart);
  EXPECT_EQ(Judge(server.certificate, authority.certificate(), X509_PURPOSE_SSL_SERVER, kStart), X509_V_OK);
  EXPECT_EQ(Judge(server.certificate, authority.certificate(), X509_PURPOSE_SSL_CLIENT, kStart),
            X509_V_ERR_INVALID_PURPOSE);
  EXPECT_TRUE(AreOnePair(server.certificate, server.key));
  EXPECT_EQ(server.until, kStart + kTestYear);

  const auto parsed = Testing::ParseCertificate(server.certificate);
  X509* const certificate = parsed.get();
  ExpectValid(certificate, kStart - kTestDay, kStart + kTestYear);
  EXPECT_EQ(X509_get_extended_key_usage(certificate), static_cast<unsigned>(XKU_SSL_SERVER));
  EXPECT_EQ(X509_check_host(certificate, "box.example", 0, 0, nullptr), 1);
  EXPECT_EQ(X509_check_host(certificate, "other.example", 0, 0, nullptr), 0);
  EXPECT_EQ(X509_check_host(certificate, "support service", 0, 0, nullptr), 0);
  EXPECT_EQ(X509_check_ip_asc(certificate, "192.0.2.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate, "2001:db8:0::1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate, "192.0.2.2", 0), 0);
  // An address is no DNS name.
  EXPECT_EQ(X509_check_host(certificate, "192.0.2.1", 0, 0, nullptr), 0);
}

TEST_F(AuthorityTest, ServerMayHaveManyNamesOfAllForms) {
  const Authority authority(folder_, kStart);
  const std::string longest = std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') +
                              "." + std::string(61, 'd');
  for (const std::string& name :
       {std::string("localhost"), std::string("my_box"), std::string("0123456789"),
        std::string("xn--bcher-kva"), std::string("A-1.Example"), std::string("1.2.3.4.example"), longest}) {
    const Credentials server = authority.IssueForServer({"127.0.0.1", name, name}, kStart);
    const auto certificate = Testing::ParseCertificate(server.certificate);
    EXPECT_EQ(X509_check_host(certificate.get(), name.c_str(), 0, 0, nullptr), 1) << name;
    EXPECT_EQ(X509_check_ip_asc(certificate.get(), "127.0.0.1", 0), 1) << name;
  }
}

TEST_F(AuthorityTest, WhatIsNoNameOfAServerIsRefused) {
  const Authority authority(folder_, kStart);
  const std::string long_label = std::string(64, 'a') + ".example";
  const std::string long_name = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                                std::string(63, 'c') + "." + std::string(62, 'd');
  for (const std::string& name : {std::string(),
                                  std::string("*"),
                                  std::string("*.example"),
                                  std::string("box.example:443"),
                                  std::string("[::1]"),
                                  std::string("10.0.0.300"),
                                  std::string("10.0.0"),
                                  std::string("::1::"),
                                  std::string("fe80::1%eth0"),
                                  std::string("box."),
                                  std::string("."),
                                  std::string("a..b"),
                                  std::string("-a"),
                                  std::string("a-"),
                                  std::string("a b"),
                                  std::string("b\xc3\xbc"),
                                  std::string("a\0b", 3),
                                  std::string("::1\0b", 5),
                                  std::string("DNS:a"),
                                  long_label,
                                  long_name}) {
    const auto issue = [&] { static_cast<void>(authority.IssueForServer({"localhost", name}, kStart)); };
    EXPECT_THROW(issue(), std::invalid_argument) << name;
    EXPECT_THAT(FaultIn(issue), HasSubstr("is neither a DNS name nor an IP address: write it as")) << name;
  }
  EXPECT_EQ(FaultIn([&] { static_cast<void>(authority.IssueForServer({}, kStart)); }),
            "a server's certificate needs a name: give a DNS name or an IP address");
  EXPECT_THROW(KeepServerCertificate(authority, {}, server_, kStart), std::invalid_argument);
  EXPECT_THROW(KeepServerCertificate(authority, {"a b"}, server_, kStart), std::invalid_argument);
  EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem"));
}

TEST_F(AuthorityTest, AnotherAuthoritysCertificateIsNotAccepted) {
  const Authority one(folder_, kStart);
  const Authority other(temporary_.path() / "other", kStart);
  const Credentials device = other.IssueForDevice("SN1", kStart);
  EXPECT_EQ(Judge(device.certificate, one.certificate(), X509_PURPOSE_SSL_CLIENT, kStart),
            X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(AuthorityTest, ManyThreadsIssueAtOnce) {
  const Authority authority(folder_, kStart);
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, name = "SN" + std::to_string(thread)] {
      for (int i = 0; i < 10; ++i) {
        const Credentials device = authority.IssueForDevice(name, kStart);
        const bool is_right =
            AreOnePair(device.certificate, device.key) && CommonNameOf(device.certificate) == name &&
            Judge(device.certificate, authority.certificate(), X509_PURPOSE_SSL_CLIENT, kStart) == X509_V_OK;
        good += is_right ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 80);
}

// ---------- faults of the authority's files ----------

TEST_F(AuthorityTest, LostFileIsAFaultAndNothingIsMadeInItsPlace) {
  const std::string advice =
      " is missing, though its folder is there: restore ca.pem and ca.key from a backup. Without one, move "
      "the folder away: ";
  { const Authority authority(folder_, kStart); }
  const std::string certificate = test_support::ReadFile(folder_ / "ca.pem");
  for (const std::string name : {"ca.key", "ca.pem"}) {
    const fs::path aside = temporary_.path() / "aside";
    fs::rename(folder_ / name, aside);
    EXPECT_THAT(FaultOfAuthority(), HasSubstr(name + advice));
    EXPECT_FALSE(fs::exists(folder_ / name));
    fs::rename(aside, folder_ / name);
  }
  EXPECT_EQ(Authority(folder_, kStart).certificate(), certificate);
}

TEST_F(AuthorityTest, EmptyFolderIsAFaultForItMayBeADiskThatIsNotMounted) {
  fs::create_directory(folder_);
  EXPECT_THAT(FaultOfAuthority(), HasSubstr("ca.pem is missing, though its folder is there: restore"));
  EXPECT_TRUE(fs::is_empty(folder_));
}

TEST_F(AuthorityTest, DamagedOrForeignTextIsAFault) {
  { const Authority authority(folder_, kStart); }
  const std::string certificate = test_support::ReadFile(folder_ / "ca.pem");
  const std::string key = test_support::ReadFile(folder_ / "ca.key");
  const Authority other(temporary_.path() / "other", kStart);
  const Credentials server = other.IssueForServer({"localhost"}, kStart);
  const std::string no_certificate =
      "ca.pem holds no PEM certificate, a damaged one, or more than one: restore";
  const std::string no_key = "ca.key holds no PEM private key, a damaged or an encrypted one: restore";
  struct Case {
    std::string certificate;
    std::string key;
    std::string fault;
  };
  const Case cases[] = {
      {"", key, no_certificate},
      {"no PEM", key, no_certificate},
      {key, key, no_certificate},
      {certificate.substr(0, certificate.size() / 2), key, no_certificate},
      {certificate + other.certificate(), key, no_certificate},
      {std::string((1U << 20U) + 1, '\n'), key, "ca.pem is longer than 1 MiB: restore"},
      {certificate, "", no_key},
      {certificate, certificate, no_key},
      {certificate, key.substr(0, key.size() / 2), no_key},
      {certificate, Testing::EncryptKey(key), no_key},
      {certificate, std::string((1U << 20U) + 1, '\n'), "ca.key is longer than 1 MiB: restore"},
      {other.certificate(), key, "ca.key is not the key of ca.pem: restore"},
      {server.certificate, server.key, "ca.pem is no self-signed certificate of an authority: restore"},
  };
  for (const Case& one : cases) {
    Put("ca.pem", one.certificate);
    Put("ca.key", one.key);
    EXPECT_THAT(FaultOfAuthority(), AllOf(StartsWith(folder_.string() + "/"), HasSubstr(one.fault)));
    // Or the fault of a later connection would be taken for it.
    EXPECT_EQ(ERR_peek_error(), 0U) << one.fault;
    EXPECT_EQ(test_support::ReadFile(folder_ / "ca.pem"), one.certificate);
    EXPECT_EQ(test_support::ReadFile(folder_ / "ca.key"), one.key);
  }
  Put("ca.pem", certificate + std::string((1U << 20U) - certificate.size(), '\n'));
  Put("ca.key", key);
  EXPECT_EQ(FaultOfAuthority(), "no fault");
}

TEST_F(AuthorityTest, CertificateThatIsNoSelfSignedAuthoritysIsAFault) {
  { const Authority authority(folder_, kStart); }
  const PrivateKey root_key = MakeKey();
  const PrivateKey key = MakeKey();
  CertificateForm form{Purpose::kAuthority, "root", {}, kStart - kTestDay, kStart + kTestDay};
  const Certificate root = MakeCertificate(form, root_key.get(), {nullptr, root_key.get()});
  const Certificate below_root = MakeCertificate(form, key.get(), {root.get(), root_key.get()});
  form.purpose = Purpose::kServer;
  const Certificate no_authoritys = MakeCertificate(form, key.get(), {nullptr, key.get()});
  Put("ca.key", ToPem(key.get()));
  for (X509* const certificate : {below_root.get(), no_authoritys.get()}) {
    Put("ca.pem", ToPem(certificate));
    EXPECT_THAT(FaultOfAuthority(),
                HasSubstr("ca.pem is no self-signed certificate of an authority: restore"));
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
  Put("ca.pem", ToPem(root.get()));
  Put("ca.key", ToPem(root_key.get()));
  EXPECT_EQ(FaultOfAuthority(), "no fault");
}

TEST_F(AuthorityTest, AuthorityOfAnOperatorThatNeverEndsIsTaken) {
  { const Authority authority(folder_, kStart); }
  const PrivateKey key = MakeKey();
  const CertificateForm form{Purpose::kAuthority, "for ever", {}, kStart, kStart};
  const Certificate certificate = MakeCertificate(form, key.get(), {nullptr, key.get()});
  // RFC 5280 writes it so.
  ASSERT_EQ(ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()), "19500101000000Z"), 1);
  ASSERT_EQ(ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()), "99991231235959Z"), 1);
  ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
  Put("ca.pem", ToPem(certificate.get()));
  Put("ca.key", ToPem(key.get()));
  const Authority authority(folder_, kStart);
  EXPECT_EQ(authority.IssueForDevice("SN1", kStart).until, kStart + 10 * kTestYear);
}

TEST_F(AuthorityTest, NobodyIsAskedForAPassphrase) {
  { const Authority authority(folder_, kStart); }
  Put("ca.key", Testing::EncryptKey(test_support::ReadFile(folder_ / "ca.key")));
  const test_support::CallerProcess caller([&]() -> std::string {
    // A terminal of its own, where somebody answers what would open the key.
    const int person = posix_openpt(O_RDWR | O_NOCTTY);
    if (grantpt(person) != 0 || unlockpt(person) != 0) return "no terminal";
    if (open(ptsname(person), O_RDWR) == -1 || write(person, "passphrase\n", 11) != 11) return "no answer";
    return FaultOfAuthority();
  });
  EXPECT_THAT(caller.Answer(),
              HasSubstr("ca.key holds no PEM private key, a damaged or an encrypted one: restore"));
}

TEST_F(AuthorityTest, AuthorityThatIsNotValidNowIsAFault) {
  { const Authority authority(folder_, kStart); }
  const WallTime begin = kStart - kTestDay;
  const WallTime end = kStart + 30 * kTestYear;
  EXPECT_EQ(FaultOfAuthority(begin), "no fault");
  EXPECT_EQ(FaultOfAuthority(end - Seconds(1)), "no fault");
  EXPECT_THAT(FaultOfAuthority(begin - Seconds(1)),
              HasSubstr("ca.pem is not valid before 2024-10-03T00:00:00.000Z: set this machine's clock"));
  EXPECT_THAT(FaultOfAuthority(end),
              HasSubstr("ca.pem expired at 2054-10-04T12:00:00.000Z: set this machine's clock. If that is "
                        "right, move the folder away: a new authority is made, and every device needs"));
}

TEST_F(AuthorityTest, FilesThatOthersHaveAccessToAreAFault) {
  { const Authority authority(folder_, kStart); }
  for (const mode_t mode : {0640U, 0604U, 0610U}) {
    ASSERT_EQ(chmod((folder_ / "ca.key").c_str(), mode), 0);
    EXPECT_THAT(FaultOfAuthority(),
                HasSubstr("ca.key is a key that other users have access to: close it with "
                          "chmod 600, if nobody can have read it. Else move the folder"));
  }
  ASSERT_EQ(chmod((folder_ / "ca.key").c_str(), 0400), 0);
  for (const std::string name : {"ca.pem", "."}) {
    const mode_t right = ModeOf(folder_ / name);
    for (const mode_t mode : {0720U, 0702U}) {
      ASSERT_EQ(chmod((folder_ / name).c_str(), mode), 0);
      EXPECT_THAT(FaultOfAuthority(),
                  HasSubstr(" may be changed by other users: take that from them with chmod go-w"));
    }
    ASSERT_EQ(chmod((folder_ / name).c_str(), right), 0);
  }
  // The certificate is no secret.
  ASSERT_EQ(chmod((folder_ / "ca.pem").c_str(), 0644), 0);
  ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);
  EXPECT_EQ(FaultOfAuthority(), "no fault");
}

TEST_F(AuthorityTest, FilesOfAnotherUserAreAFault) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  { const Authority authority(folder_, kStart); }
  for (const std::string name : {"ca.pem", "ca.key", ""}) {
    ASSERT_EQ(chown((folder_ / name).c_str(), 65534, 65534), 0);
    EXPECT_THAT(FaultOfAuthority(),
                HasSubstr(name + " belongs to another user: give it to the service's user with chown"));
    ASSERT_EQ(chown((folder_ / name).c_str(), 0, 0), 0);
  }
  EXPECT_EQ(FaultOfAuthority(), "no fault");
}

TEST_F(AuthorityTest, FileThatMayNotBeReadIsAFault) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
  { const Authority authority(folder_, kStart); }
  ASSERT_EQ(chmod((folder_ / "ca.key").c_str(), 0), 0);
  EXPECT_THAT(FaultOfAuthority(),
              HasSubstr("ca.key can't be opened (Permission denied): let the service's user read it"));
}

TEST_F(AuthorityTest, WhatIsNoFileOrNoFolderIsAFault) {
  test_support::WriteFile(folder_, "a file");
  EXPECT_EQ(FaultOfAuthority(), folder_.string() + " is no folder: move it away");
  fs::remove(folder_);
  fs::create_symlink("missing", folder_);
  EXPECT_THAT(FaultOfAuthority(), HasSubstr("cannot look at " + folder_.string() + ": No such file"));
  fs::remove(folder_);

  { const Authority authority(folder_, kStart); }
  for (const std::string name : {"ca.key", "ca.pem"}) {
    const std::string text = test_support::ReadFile(folder_ / name);
    fs::remove(folder_ / name);
    ASSERT_EQ(mkfifo((folder_ / name).c_str(), 0600), 0);
    EXPECT_THAT(FaultOfAuthority(), HasSubstr(name + " is no regular file: restore"));
    fs::remove(folder_ / name);
    fs::create_symlink("missing", folder_ / name);
    EXPECT_THAT(FaultOfAuthority(), HasSubstr(name + " can't be opened (No such file or directory): let"));
    fs::remove(folder_ / name);
    Put(name, text);
  }
  EXPECT_EQ(FaultOfAuthority(), "no fault");
}

TEST_F(AuthorityTest, AuthorityMayLieElsewhereBehindALink) {
  const fs::path elsewhere = temporary_.path() / "elsewhere";
  const std::string certificate = Authority(elsewhere, kStart).certificate();
  fs::create_symlink("elsewhere", folder_);
  EXPECT_EQ(Authority(folder_, kStart).certificate(), certificate);
}

// ---------- crashes and full disks ----------

TEST_F(AuthorityTest, AuthorityIsOnDiskBeforeItHasItsNameAndTheNameBeforeItIsUsed) {
  const std::vector<std::string> steps = StepsOf([&] { const Authority authority(folder_, kStart); });
  EXPECT_THAT(steps,
              ElementsAre("mkdir authority.new",                                              //
                          "write ca.key.new", "sync ca.key.new", "rename ca.key.new ca.key",  //
                          "sync authority.new",                                               //
                          "write ca.pem.new", "sync ca.pem.new", "rename ca.pem.new ca.pem",  //
                          "sync authority.new",                                               //
                          "rename authority.new authority", "sync " + temporary_.path().filename().string()));
}

TEST_F(AuthorityTest, AuthorityWhoseMakingIsKilledAtAnyStepIsMadeAtTheNextStart) {
  constexpr int kSteps = 11;
  for (int step = 0; step < kSteps; ++step) {
    fs::remove_all(folder_);
    EXPECT_THAT(RunUntil(step, [&] { const Authority authority(folder_, kStart); }), ExitedWith(kKilled));
    // Whoever copies the folder at the time has all of it or nothing.
    const std::string left = test_support::ReadFile(folder_ / "ca.pem");
    EXPECT_EQ(fs::exists(folder_), AreOnePair(left, test_support::ReadFile(folder_ / "ca.key"))) << step;
    const std::string made = Authority(folder_, kStart).certificate();
    if (!left.empty()) {
      EXPECT_EQ(made, left) << step;
    }
    EXPECT_EQ(Authority(folder_, kStart).certificate(), made) << step;
    EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem")) << step;
  }
}

TEST_F(AuthorityTest, WhatAnUnfinishedOneLeftIsNoPartOfTheNext) {
  test_support::WriteFile(temporary_.path() / "authority.new/ca.pem", "half");
  test_support::WriteFile(temporary_.path() / "authority.new/other", "");
  const Authority authority(folder_, kStart);
  EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem"));
  EXPECT_EQ(ModeOf(folder_), 0700U);
}

TEST_F(AuthorityTest, ServersFilesAreOnDiskBeforeTheyHaveTheirNames) {
  const Authority authority(folder_, kStart);
  const auto keep = [&] { KeepServerCertificate(authority, names_, server_, kStart); };
  EXPECT_THAT(
      StepsOf(keep),
      ElementsAre("mkdir server",                                                                     //
                  "write server.key.new", "sync server.key.new", "rename server.key.new server.key",  //
                  "sync server",                                                                      //
                  "write server.pem.new", "sync server.pem.new", "rename server.pem.new server.pem",  //
                  "sync server"));
}

TEST_F(AuthorityTest, ServersCertificateWhoseRenewalIsKilledAtAnyStepIsIssuedAtTheNextStart) {
  const Authority authority(folder_, kStart);
  constexpr int kSteps = 9;
  int mixed = 0;
  for (int step = 0; step < kSteps; ++step) {
    fs::remove_all(server_);
    KeepServerCertificate(authority, {"former.example"}, server_, kStart);
    const std::string former_certificate = ServerFile("server.pem");
    const std::string former_key = ServerFile("server.key");
    EXPECT_THAT(RunUntil(step, [&] { KeepServerCertificate(authority, names_, server_, kStart); }),
                ExitedWith(kKilled));
    const std::string certificate = ServerFile("server.pem");
    const std::string key = ServerFile("server.key");
    // Each is whole, and who meets one of each notices.
    const bool of_one_time = (certificate == former_certificate) == (key == former_key);
    EXPECT_EQ(AreOnePair(certificate, key), of_one_time) << step;
    mixed += of_one_time ? 0 : 1;
    const bool is_complete = of_one_time && certificate != former_certificate;
    EXPECT_EQ(KeepServerCertificate(authority, names_, server_, kStart), !is_complete) << step;
    EXPECT_TRUE(AreOnePair(ServerFile("server.pem"), ServerFile("server.key"))) << step;
    EXPECT_FALSE(KeepServerCertificate(authority, names_, server_, kStart)) << step;
    EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem", "server/server.key",
                                     "server/server.pem"));
  }
  EXPECT_EQ(mixed, 4);  // from the sync of the key's name to the renaming of the certificate
}

TEST_F(AuthorityTest, AuthorityThatCannotBeWrittenIsNone) {
  const test_support::CallerProcess caller([&] {
    test_support::LimitFileSize(200);
    return FaultOfAuthority();
  });
  EXPECT_EQ(caller.Answer(), "cannot write " + folder_.string() + ".new/ca.key.new: File too large");
  EXPECT_FALSE(fs::exists(folder_));
  EXPECT_EQ(FaultOfAuthority(), "no fault");
  EXPECT_THAT(Files(), ElementsAre("authority/ca.key", "authority/ca.pem"));
}

TEST_F(AuthorityTest, ServersCertificateThatCannotBeRenewedStays) {
  const Authority authority(folder_, kStart);
  KeepServerCertificate(authority, names_, server_, kStart);
  const std::string former = ServerFile("server.pem") + ServerFile("server.key");
  const test_support::CallerProcess caller([&] {
    test_support::LimitFileSize(200);
    return FaultIn([&] { KeepServerCertificate(authority, {"other.example"}, server_, kStart); });
  });
  EXPECT_EQ(caller.Answer(), "cannot write " + server_.string() + "/server.key.new: File too large");
  EXPECT_EQ(ServerFile("server.pem") + ServerFile("server.key"), former);
  EXPECT_THAT(Files(),
              ElementsAre("authority/ca.key", "authority/ca.pem", "server/server.key", "server/server.pem"));
}

TEST_F(AuthorityTest, PlaceWhereNothingCanBeMadeIsTold) {
  test_support::WriteFile(temporary_.path() / "file", "");
  EXPECT_THAT(FaultIn([&] { const Authority authority(temporary_.path() / "missing/authority", kStart); }),
              HasSubstr("cannot make " + temporary_.File("missing/authority.new") + ": No such file"));
  const Authority authority(folder_, kStart);
  const auto keep_in = [&](const fs::path& folder) {
    return FaultIn([&] { KeepServerCertificate(authority, names_, folder, kStart); });
  };
  EXPECT_THAT(keep_in(temporary_.path() / "missing/server"), HasSubstr("missing/server: No such file"));
  EXPECT_THAT(keep_in(temporary_.path() / "file"), HasSubstr("file/server.key.new: Not a directory"));
  fs::create_directories(server_ / "server.pem");
  EXPECT_THAT(keep_in(server_),
              HasSubstr("cannot replace " + server_.string() + "/server.pem: Is a directory"));
}

// ---------- renewals ----------

class ServerCertificateTest : public AuthorityTest {
 protected:
  bool Keep(WallTime now = kStart) const { return KeepServerCertificate(authority_, names_, server_, now); }

  /// After that, the certificate is issued anew, and then is good again.
  void ExpectRenewedAfter(const std::string& what, const std::function<void()>& spoil) const {
    spoil();
    EXPECT_TRUE(Keep()) << what;
    ExpectGood(what, kStart);
    EXPECT_FALSE(Keep()) << what;
    // Or the fault of a later connection would be taken for it.
    EXPECT_EQ(ERR_peek_error(), 0U) << what;
  }
  void ExpectGood(const std::string& what, WallTime now) const {
    const std::string certificate = ServerFile("server.pem");
    EXPECT_EQ(Judge(certificate, authority_.certificate(), X509_PURPOSE_SSL_SERVER, now), X509_V_OK) << what;
    EXPECT_TRUE(AreOnePair(certificate, ServerFile("server.key"))) << what;
    EXPECT_EQ(ModeOf(server_ / "server.key"), 0600U) << what;
  }
  void PutServer(const std::string& name, const std::string& text) const {
    test_support::WriteFile(server_ / name, text);
    ASSERT_EQ(chmod((server_ / name).c_str(), 0600), 0);
  }
  void PutServer(const Credentials& credentials) const {
    PutServer("server.pem", credentials.certificate);
    PutServer("server.key", credentials.key);
  }

  const Authority authority_{folder_, kStart};
};

TEST_F(ServerCertificateTest, GoodOneIsKept) {
  EXPECT_TRUE(Keep());
  const std::string first = ServerFile("server.pem") + ServerFile("server.key");
  EXPECT_FALSE(Keep());
  EXPECT_FALSE(KeepServerCertificate(authority_, {"2001:db8::1", "box.example", "192.0.2.1", "box.example"},
                                     server_, kStart));
  EXPECT_EQ(ServerFile("server.pem") + ServerFile("server.key"), first);
  ExpectGood("first", kStart);
}

TEST_F(ServerCertificateTest, OneThatIsMissingOrUnusableIsIssuedAnew) {
  EXPECT_TRUE(Keep());
  const std::string certificate = ServerFile("server.pem");
  ExpectRenewedAfter("certificate lost", [&] { fs::remove(server_ / "server.pem"); });
  ExpectRenewedAfter("key lost", [&] { fs::remove(server_ / "server.key"); });
  ExpectRenewedAfter("folder lost", [&] { fs::remove_all(server_); });
  ExpectRenewedAfter("certificate empty", [&] { PutServer("server.pem", ""); });
  ExpectRenewedAfter("key damaged",
                     [&] { PutServer("server.key", ServerFile("server.key").substr(0, 100)); });
  ExpectRenewedAfter("key encrypted",
                     [&] { PutServer("server.key", Testing::EncryptKey(ServerFile("server.key"))); });
  ExpectRenewedAfter("former certificate with the new key", [&] { PutServer("server.pem", certificate); });
  ExpectRenewedAfter("key open to others",
                     [&] { ASSERT_EQ(chmod((server_ / "server.key").c_str(), 0640), 0); });
  ExpectRenewedAfter("a device's", [&] { PutServer(authority_.IssueForDevice("SN1", kStart)); });
  ExpectRenewedAfter("a client's of these names", [&] {
    const Certificate authority = CertificateOf(authority_.certificate());
    const PrivateKey authoritys_key = KeyOf(test_support::ReadFile(folder_ / "ca.key"));
    const PrivateKey key = MakeKey();
    const CertificateForm form{Purpose::kClient, "x", names_, kStart - kTestDay, kStart + kTestDay};
    PutServer("server.key", ToPem(key.get()));
    PutServer("server.pem",
              ToPem(MakeCertificate(form, key.get(), {authority.get(), authoritys_key.get()}).get()));
  });
  ExpectRenewedAfter("self-signed", [&] {
    const auto own = Testing::MakeTestCertificate();
    PutServer("server.pem", own.certificate);
    PutServer("server.key", own.key);
  });
  ExpectRenewedAfter("another authority's", [&] {
    const Authority other(temporary_.path() / "other", kStart);
    PutServer(other.IssueForServer(names_, kStart));
  });
}

TEST_F(ServerCertificateTest, OneForOtherNamesIsIssuedAnew) {
  const std::vector<std::vector<std::string>> others = {
      {"box.example", "192.0.2.1"},
      {"box.example", "192.0.2.1", "2001:db8::1", "further.example"},
      {"box.example", "192.0.2.1", "2001:db8::2"},
      {"other.example", "192.0.2.1", "2001:db8::1"},
  };
  for (const auto& names : others) {
    ExpectRenewedAfter(names.back(), [&] { PutServer(authority_.IssueForServer(names, kStart)); });
    const auto certificate = Testing::ParseCertificate(ServerFile("server.pem"));
    EXPECT_EQ(X509_check_host(certificate.get(), "box.example", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_ip_asc(certificate.get(), "2001:db8::1", 0), 1);
  }
}

TEST_F(ServerCertificateTest, OneIsIssuedAnewWhenLessThanAThirdOfItsLifeIsLeft) {
  EXPECT_TRUE(Keep());
  const std::string first = ServerFile("server.pem");
  const auto life = kTestYear + kTestDay;
  const WallTime last_third = kStart - kTestDay + life / 3 * 2;
  EXPECT_FALSE(Keep(last_third));
  EXPECT_EQ(ServerFile("server.pem"), first);
  EXPECT_TRUE(Keep(last_third + Seconds(1)));
  EXPECT_NE(ServerFile("server.pem"), first);
  EXPECT_FALSE(Keep(last_third + Seconds(2)));
  ExpectGood("second", last_third + kTestYear);
}

TEST_F(ServerCertificateTest, OneThatIsNotYetValidOrHasExpiredIsIssuedAnew) {
  const WallTime later = kStart + 5 * kTestYear;
  EXPECT_TRUE(Keep(later));
  // The machine's clock was set back.
  EXPECT_TRUE(Keep(later - kTestDay - Seconds(1)));
  EXPECT_FALSE(Keep(later - kTestDay - Seconds(1)));
  EXPECT_TRUE(Keep(later + 10 * kTestYear));
  ExpectGood("last", later + 10 * kTestYear);
}

TEST_F(ServerCertificateTest, NothingIsIssuedByAnAuthorityThatHasExpired) {
  const WallTime end = kStart + 30 * kTestYear;
  EXPECT_TRUE(Keep(end - kTestYear / 2));
  EXPECT_THAT(FaultIn([&] { Keep(end); }), HasSubstr("ca.pem expired at "));
}

// ---------- a machine's own names ----------

/// What OwnNames() says on a machine of that name, one a line; empty where a test can't give it one.
std::string OwnNamesOfHost(const std::string& host) {
  const test_support::CallerProcess caller([&]() -> std::string {
    if (unshare(geteuid() == 0 ? CLONE_NEWUTS : CLONE_NEWUSER | CLONE_NEWUTS) != 0) return "";
    if (sethostname(host.data(), host.size()) != 0) return "";
    std::string lines;
    for (const std::string& name : OwnNames()) lines += name + "\n";
    return lines;
  });
  return caller.Answer();
}

TEST(OwnNamesTest, HostsNameIsAddedWhereACertificateCanHaveIt) {
  const std::string always = "localhost\n127.0.0.1\n::1\n";
  if (OwnNamesOfHost("box").empty()) GTEST_SKIP() << "no host's name of its own here";
  EXPECT_EQ(OwnNamesOfHost("box-7.example"), always + "box-7.example\n");
  EXPECT_EQ(OwnNamesOfHost(std::string(63, 'a')), always + std::string(63, 'a') + "\n");
  for (const std::string unusable : {"", "localhost", "(none)", "my box", "box."}) {
    EXPECT_EQ(OwnNamesOfHost(unusable), always) << unusable;
  }
}

TEST(OwnNamesTest, ACertificateCanBeForThem) {
  const test_support::TemporaryFolder temporary;
  const Authority authority(temporary.path() / "authority");
  const Credentials server = authority.IssueForServer(OwnNames());
  const auto certificate = Testing::ParseCertificate(server.certificate);
  EXPECT_EQ(X509_check_host(certificate.get(), "localhost", 0, 0, nullptr), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "127.0.0.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "::1", 0), 1);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
