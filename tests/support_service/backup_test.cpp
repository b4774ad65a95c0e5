/// Backups: what is in them while the service works on, and what comes of one that was damaged, cut or made up.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>
#include <map>
#include <thread>

#include "backup_file.h"
#include "restore.h"
#include "service_fixture.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Members = std::map<std::string, std::string>;

/// A file of a tar, in the order of a list.
struct TarMember {
  std::string name;
  std::string content;
  std::string link_to = {};  ///< A symbolic link, where this is set.
};

void WriteTar(const fs::path& file, const std::vector<TarMember>& members) {
  const std::unique_ptr<archive, int (*)(archive*)> tar(archive_write_new(), archive_write_free);
  archive_write_set_format_pax_restricted(tar.get());
  ASSERT_EQ(archive_write_open_filename(tar.get(), file.c_str()), ARCHIVE_OK);
  for (const TarMember& member : members) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                         archive_entry_free);
    archive_entry_set_pathname(entry.get(), member.name.c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.content.size()));
    archive_entry_set_filetype(entry.get(), member.link_to.empty() ? AE_IFREG : AE_IFLNK);
    if (!member.link_to.empty()) archive_entry_set_symlink(entry.get(), member.link_to.c_str());
    archive_entry_set_perm(entry.get(), 0644);
    ASSERT_EQ(archive_write_header(tar.get(), entry.get()), ARCHIVE_OK);
    archive_write_data(tar.get(), member.content.data(), member.content.size());
  }
}

/// A backup as its last member says: with the right sum of each.
std::vector<TarMember> WithSums(std::vector<TarMember> members) {
  members.insert(members.begin(), {"backup-form", "1\n"});
  std::string sums;
  for (const TarMember& member : members) sums += Sha256(member.content) + "  " + member.name + "\n";
  members.push_back({"SHA256SUMS", sums});
  return members;
}

constexpr char kFacts[] =
    R"({"service_version":"1","created":"2026-01-01T00:00:00.000Z","with_archives":true,"missing":[]})";

class BackupTest : public ServiceTest {
 protected:
  ReceivedAnswer AskForBackup(const std::string& query = "") {
    return AskApi(service().control_socket(), "GET", "/backup" + query);
  }
  /// @return The file.
  fs::path MakeBackup(const std::string& query = "") {
    const ReceivedAnswer answer = AskForBackup(query);
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(answer.curl_code, CURLE_OK);
    WriteFile(temp_.path() / "backup.tar", answer.body);
    return temp_.path() / "backup.tar";
  }
  /// What the members hold.
  static Members MembersOf(const fs::path& file) {
    Members members;
    std::string* content = nullptr;
    ReadBackup(file, {[&](const std::string& name) { content = &members[name]; },
                      [&](std::string_view piece) { content->append(piece); }});
    return members;
  }
  std::string Restore(const fs::path& file) { return RestoreBackup(file, restored_); }
  /// Why it is not restored. There has to be nothing left of the try.
  std::string RestoreFails(const fs::path& file) {
    try {
      Restore(file);
    } catch (const std::exception& fault) {
      EXPECT_FALSE(fs::exists(restored_));
      return fault.what();
    }
    ADD_FAILURE() << "it was restored";
    return "";
  }
  /// The service of what was restored takes the place of the former one.
  void StartRestored() {
    own_device_.reset();
    service_.reset();
    settings_.data_folder = restored_;
    service_ = std::make_unique<SupportService>(settings_, events_.sink());
  }
  /// A ticket with an archive and a report.
  std::string ServeTicket(const std::string& content) {
    const Delivered ticket = AcceptTicket();
    WriteFile(temp_.path() / "debug.dat", content);
    const std::vector<std::string> auth = {"AUTH-TOKEN: " + ticket.token};
    EXPECT_EQ(PostForm(UploadUrl(), auth, DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"})).status, 200);
    EXPECT_EQ(Request("POST", ReportUrl(), auth, R"({"status":"Success","serial_number":"SN1"})").status,
              200);
    return ticket.id;
  }
  [[nodiscard]] std::vector<std::string> ActionsInAudit() {
    std::vector<std::string> actions;
    for (const AuditRecord& record : service().store().Audit(0, 100)) actions.push_back(record.action);
    return actions;
  }

  const fs::path restored_ = temp_.path() / "restored";
};

TEST_F(BackupTest, WhatWasAcknowledgedBeforeIsThereAfterARestore) {
  Start();
  const std::string archive = AwkwardData(700'000);
  const std::string served = ServeTicket(archive);
  const std::string open = CreateTicket({"b"}, "SN2");
  Json::Value user;
  user["name"] = "ann";
  user["role"] = "viewer";
  user["password"] = "correct horse";
  ASSERT_EQ(AskApi(service().control_socket(), "POST", "/users", user).status, 201);
  const auto events_before = service().store().EventsAfter(0, 1000);
  std::atomic<bool> ends{false};
  std::atomic<int> created{0};
  std::thread traffic([&] {
    while (!ends) {
      CreateTicket({"c"}, "SN3");
      ++created;
    }
  });
  ASSERT_TRUE(Eventually([&] { return created > 0; }));
  const fs::path file = MakeBackup();
  ends = true;
  traffic.join();

  EXPECT_THAT(Restore(file), HasSubstr("1 account, 1 archive\n"));
  StartRestored();
  EXPECT_EQ(Remembered(served).state, TicketState::kReported);
  EXPECT_EQ(ReadFile(ArchiveOf(served)), archive);
  EXPECT_EQ(Remembered(open).state, TicketState::kQueued);
  EXPECT_TRUE(service().store().FindUser("ann"));
  EXPECT_TRUE(service().store().FindDevice("SN9"));
  const auto events_now = service().store().EventsAfter(0, events_before.size());
  ASSERT_EQ(events_now.size(), events_before.size());
  EXPECT_EQ(events_now.back().text, events_before.back().text);
  EXPECT_THAT(ActionsInAudit(), ElementsAre("make backup", "add user"));
  EXPECT_NE(CreateTicket(), "") << "the restored service goes on";
}

TEST_F(BackupTest, FilesThatAreRestoredAreClosedToOthers) {
  Start();
  ServeTicket("archive");
  Restore(MakeBackup());
  for (const auto& entry : fs::recursive_directory_iterator(restored_)) {
    EXPECT_EQ(ModeOf(entry.path()), entry.is_directory() ? 0700U : 0600U) << entry.path();
  }
  EXPECT_EQ(ModeOf(restored_), 0700U);
}

TEST_F(BackupTest, AuthorityWithItsKeyIsRestored) {
  settings_.tickets.trust = Trust::kOwnAuthority;
  service_ = std::make_unique<SupportService>(settings_, events_.sink());
  Json::Value device;
  device["serial_number"] = "SN1";
  const auto enrolled = ParseJson(AskApi(service().control_socket(), "POST", "/devices", device).body);
  const fs::path file = MakeBackup();
  const std::string key = ReadFile(settings_.data_folder / "authority" / "ca.key");
  Restore(file);
  StartRestored();
  EXPECT_EQ(ReadFile(restored_ / "authority" / "ca.key"), key);
  // The device's own certificate still opens the way to the file server.
  Transfer transfer(service().css_url() + "/orvane/ps_results", {});
  const auto set_blob = [&](CURLoption option, const std::string& text) {
    curl_blob blob{const_cast<char*>(text.data()), text.size(), CURL_BLOB_COPY};
    transfer.Set(option, &blob);
  };
  set_blob(CURLOPT_CAINFO_BLOB, enrolled["ca_pem"].asString());
  set_blob(CURLOPT_SSLCERT_BLOB, enrolled["client_pem"].asString());
  set_blob(CURLOPT_SSLKEY_BLOB, enrolled["client_key"].asString());
  transfer.Set(CURLOPT_POSTFIELDS, "{}");
  const ReceivedAnswer answer = transfer.Run();
  EXPECT_EQ(answer.curl_code, CURLE_OK);
  EXPECT_THAT(answer.body, testing::Not(HasSubstr("certificate")));
  EXPECT_NE(answer.status, 0);
}

TEST_F(BackupTest, ArchivesCanBeLeftOut) {
  Start();
  const std::string id = ServeTicket("archive");
  const fs::path file = MakeBackup("?archives=false");
  EXPECT_EQ(MembersOf(file).count("archives/" + id + "-1.dat"), 0U);
  EXPECT_THAT(Restore(file), HasSubstr("made without archives: the store knows of 1 archive"));
  EXPECT_EQ(AskForBackup("?archives=no").status, 400);
  EXPECT_EQ(AskForBackup("?archives=").status, 400);
}

TEST_F(BackupTest, ArchivesThatAreMissingOrChangedAreNamed) {
  Start();
  const std::string gone = ServeTicket("gone");
  own_device_.reset();
  const std::string changed = ServeTicket("changed");
  fs::remove(ArchiveOf(gone));
  WriteFile(ArchiveOf(changed), "CHANGED");
  const fs::path file = MakeBackup();
  const BackupFacts facts = ReadBackup(file, {});
  EXPECT_EQ(facts.archives, 1U);
  EXPECT_THAT(facts.missing, ElementsAre(HasSubstr(gone + "-1.dat: there is no such file"),
                                         HasSubstr(changed + "-1.dat: its content is not")));
  EXPECT_THAT(Restore(file), HasSubstr("missing archive " + gone));
}

TEST_F(BackupTest, ArchivesThatCannotBeReadAreNamedAndTheOthersAreThere) {
  Start();
  std::vector<std::string> ids;
  for (const char* content : {"a link", "a folder", "good"}) {
    ids.push_back(ServeTicket(content));
    own_device_.reset();
  }
  fs::remove(ArchiveOf(ids[0]));
  fs::create_symlink("elsewhere", ArchiveOf(ids[0]));
  fs::remove(ArchiveOf(ids[1]));
  fs::create_directory(ArchiveOf(ids[1]));  // can be opened, and not read
  const fs::path file = MakeBackup();
  EXPECT_THAT(ReadBackup(file, {}).missing,
              ElementsAre(HasSubstr(ids[0] + "-1.dat: it can't be read: "),
                          HasSubstr(ids[1] + "-1.dat: it can't be read: Is a directory. Zeros are")));
  EXPECT_EQ(MembersOf(file)["archives/" + ids[2] + "-1.dat"], "good");
}

TEST_F(BackupTest, MakerThatWasCancelledMakesNone) {
  const ArchiveStore archives(settings_.data_folder);
  const SqliteStore store(settings_.data_folder / "tickets.db");
  DiskRoom room(settings_.data_folder, 0);
  BackupMaker maker(store, archives, settings_.data_folder, room, events_.sink());
  maker.Cancel();
  std::promise<std::string> told;
  ASSERT_TRUE(maker.Begin(true, [&](const std::shared_ptr<BodySource>& body, const std::string& fault) {
    told.set_value(body ? "a body" : fault);
  }));
  EXPECT_EQ(told.get_future().get(), "the service shuts down");
  EXPECT_EQ(IncomingFiles(), 0U);
}

TEST_F(BackupTest, CheckOfACopyEndsWhenItIsToEnd) {
  const fs::path copy = temp_.path() / "copy.db";
  Start();
  service().dispatcher().Call([](TicketBook& book) {
    for (int i = 0; i < 3000; ++i) book.registry().Record({"test", "service"}, "fill", "", "");
  });
  static_cast<const SqliteStore&>(service().store()).CopyTo(copy, [] { return true; });
  EXPECT_NO_THROW(static_cast<void>(SqliteStore::Examine(copy, [] { return true; })));
  EXPECT_THROW(static_cast<void>(SqliteStore::Examine(copy, [] { return false; })), StoreError);
}

TEST_F(BackupTest, DeletedArchivesAreNeitherThereNorMissed) {
  Start();
  const std::string id = ServeTicket("archive");
  ASSERT_EQ(AskApi(service().control_socket(), "DELETE", "/tickets/" + id + "/archives/1").status, 204);
  const BackupFacts facts = ReadBackup(MakeBackup(), {});
  EXPECT_THAT(facts.missing, IsEmpty());
  EXPECT_EQ(facts.sums.count("archives/" + id + "-1.dat"), 0U);
}

TEST_F(BackupTest, OneIsMadeAtATimeAndAClientThatLeavesEndsIts) {
  Start();
  // More than what waits on its way to a client that reads nothing.
  const std::string id = ServeTicket(AwkwardData(20'000'000));
  Transfer stalled("http://localhost/api/v1/backup", {});
  stalled.Set(CURLOPT_UNIX_SOCKET_PATH, service().control_socket().c_str());
  stalled.Set(
      CURLOPT_WRITEFUNCTION,
      +[](char*, std::size_t, std::size_t, void*) -> std::size_t { return CURL_WRITEFUNC_PAUSE; });
  const std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi(curl_multi_init(), curl_multi_cleanup);
  curl_multi_add_handle(multi.get(), stalled.get());
  long status = 0;
  ASSERT_TRUE(Eventually([&] {
    int running = 0;
    curl_multi_perform(multi.get(), &running);
    curl_easy_getinfo(stalled.get(), CURLINFO_RESPONSE_CODE, &status);
    return status == 200;
  }));
  const ReceivedAnswer second = AskForBackup();
  EXPECT_EQ(second.status, 409);
  EXPECT_THAT(second.body, HasSubstr("a backup is being made"));
  curl_multi_remove_handle(multi.get(), stalled.get());
  EXPECT_TRUE(Eventually([&] { return AskForBackup("?archives=false").status == 200; }));
}

TEST_F(BackupTest, StopOfTheServiceEndsOneUnderWay) {
  Start();
  ServeTicket(AwkwardData(20'000'000));
  Transfer stalled("http://localhost/api/v1/backup", {});
  stalled.Set(CURLOPT_UNIX_SOCKET_PATH, service().control_socket().c_str());
  std::atomic<bool> has_begun{false};
  struct Gate {
    std::atomic<bool>& has_begun;
    std::atomic<bool> is_open{false};
    static std::size_t Take(char*, std::size_t size, std::size_t count, void* self_pointer) {
      auto& self = *static_cast<Gate*>(self_pointer);
      self.has_begun = true;
      while (!self.is_open) std::this_thread::yield();
      return size * count;
    }
  } gate{has_begun};
  stalled.Set(CURLOPT_WRITEFUNCTION, &Gate::Take);
  stalled.Set(CURLOPT_WRITEDATA, &gate);
  int code = CURLE_OK;
  std::thread client([&] { code = stalled.Run().curl_code; });
  ASSERT_TRUE(Eventually([&] { return has_begun.load(); }));
  service_.reset();
  gate.is_open = true;
  client.join();
  EXPECT_NE(code, CURLE_OK) << "a part must not look like all of it";
  EXPECT_TRUE(events_.Has("a backup was not finished"));
}

TEST_F(BackupTest, NothingIsRestoredToAFolderThatIsNotEmpty) {
  Start();
  const fs::path file = MakeBackup();
  WriteFile(restored_ / "mine", "mine");
  EXPECT_THROW(Restore(file), std::exception);
  EXPECT_EQ(ReadFile(restored_ / "mine"), "mine");
  fs::remove(restored_ / "mine");
  EXPECT_THAT(Restore(file), HasSubstr("restored to"));
  try {
    Restore(file);
    ADD_FAILURE();
  } catch (const std::exception& fault) {
    EXPECT_THAT(fault.what(), HasSubstr("is not empty"));
  }
}

TEST_F(BackupTest, NoServiceBeginsInAFolderThatIsBeingRestored) {
  Start();
  const std::string id = ServeTicket("archive");
  const fs::path file = MakeBackup();
  // With a lease, who opens the file waits until it is closed here.
  const int lease = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_NE(lease, -1);
  ASSERT_EQ(fcntl(lease, F_SETSIG, SIGURG), 0);  // it is told by a signal that nobody looks at
  ASSERT_EQ(fcntl(lease, F_SETLEASE, F_WRLCK), 0);
  std::string report;
  std::thread restore([&] { report = Restore(file); });
  EXPECT_TRUE(Eventually([&] { return fcntl(lease, F_GETLEASE) != F_WRLCK; })) << "it reads the backup";
  // Also one that has not seen "restoring" yet.
  EXPECT_THROW(close(LockDataFolder(restored_)), std::runtime_error);
  EXPECT_THROW(ArchiveStore{restored_}, std::runtime_error);
  close(lease);
  restore.join();
  EXPECT_THAT(report, HasSubstr("restored to"));
  StartRestored();
  EXPECT_EQ(ReadFile(ArchiveOf(id)), "archive");
}

TEST_F(BackupTest, NothingIsRestoredToAFolderThatAServiceIsTaking) {
  Start();
  const fs::path file = MakeBackup();
  fs::create_directories(restored_);
  const int lock = LockDataFolder(restored_);
  EXPECT_THROW(Restore(file), std::runtime_error);
  EXPECT_FALSE(fs::exists(restored_ / "restoring"));
  close(lock);
  EXPECT_THAT(Restore(file), HasSubstr("restored to"));
}

TEST_F(BackupTest, FolderOfAnUnfinishedRestoreIsNoDataFolder) {
  fs::create_directories(settings_.data_folder / "restoring");
  fs::permissions(settings_.data_folder, fs::perms::owner_all);
  try {
    Start();
    ADD_FAILURE();
  } catch (const std::exception& fault) {
    EXPECT_THAT(fault.what(), HasSubstr("a backup was not restored to its end"));
  }
  EXPECT_NO_THROW(close(LockDataFolder(settings_.data_folder))) << "nobody has it any more";
}

TEST_F(BackupTest, OtherFilesAreRefused) {
  const fs::path file = temp_.path() / "file";
  EXPECT_THAT(RestoreFails(file), HasSubstr("can't be read"));
  EXPECT_THAT(RestoreFails(temp_.path()), HasSubstr("is no file"));
  WriteFile(file, "");
  EXPECT_THAT(RestoreFails(file), HasSubstr("is no backup of a support service"));
  WriteFile(file, "some text\n");
  EXPECT_THAT(RestoreFails(file), HasSubstr("is no backup of a support service"));
  WriteTar(file, {{"photo.jpg", "x"}});
  EXPECT_THAT(RestoreFails(file), HasSubstr("it begins with \"photo.jpg\""));
  WriteTar(file, WithSums({{"tickets.db", std::string(1000, 'x')}, {"backup.json", kFacts}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("is no database"));
  WriteTar(file, WithSums({{"tickets.db", "x"}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("it has no backup.json"));
  WriteTar(file, WithSums({{"backup.json", kFacts}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("it has no tickets.db"));
  WriteTar(file, {{"backup-form", "2\n"}, {"something/of form 2", "x"}});
  EXPECT_THAT(RestoreFails(file),
              HasSubstr("another version of the service (form 2, this one knows form 1)"));
  WriteTar(file, {{"backup-form", "x"}});
  EXPECT_THAT(RestoreFails(file), HasSubstr("its form can't be read"));
}

TEST_F(BackupTest, NamesLeadNowhereElse) {
  const fs::path file = temp_.path() / "file";
  for (const char* name : {"../outside", "/outside", "archives/../../outside", "archives/..", "archives/",
                           "archives/a/b", "archives/.hidden", "other/x", "lock", "archives\\x", ""}) {
    WriteTar(file, WithSums({{"tickets.db", "x"}, {name, "y"}, {"backup.json", kFacts}}));
    EXPECT_THAT(RestoreFails(file), HasSubstr("which no backup has")) << name;
    EXPECT_FALSE(fs::exists(temp_.path() / "outside")) << name;
  }
  WriteTar(file, WithSums({{"tickets.db", "x"}, {"archives/x.dat", "", "../../outside"}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("which no backup has"));
  WriteTar(file, WithSums({{"tickets.db", "x"}, {"tickets.db", "y"}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("twice"));
}

TEST_F(BackupTest, StoreOfANewerServiceIsRefused) {
  Start();
  Members members = MembersOf(MakeBackup());
  std::string& store = members["tickets.db"];
  store[63] = 99;  // the last byte of PRAGMA user_version, in SQLite's head
  const fs::path file = temp_.path() / "file";
  WriteTar(file, WithSums({{"tickets.db", store}, {"backup.json", kFacts}}));
  EXPECT_THAT(RestoreFails(file), HasSubstr("written by a newer version"));
}

TEST_F(BackupTest, CutOrChangedAnywhereItIsRefusedOrStillWhole) {
  Start();
  ServeTicket("archive");
  const fs::path file = MakeBackup();
  const Members whole = MembersOf(file);
  const std::string bytes = ReadFile(file);
  const fs::path other = temp_.path() / "other";
  const auto is_refused_or_whole = [&](const std::string& changed) {
    WriteFile(other, changed);
    try {
      return MembersOf(other) == whole;
    } catch (const BackupError&) {
      return true;
    }
  };
  for (std::size_t size = 0; size < bytes.size(); size += 499) {
    ASSERT_TRUE(is_refused_or_whole(bytes.substr(0, size))) << size;
  }
  for (std::size_t place = 0; place < bytes.size(); place += 211) {
    std::string changed = bytes;
    changed[place] = static_cast<char>(changed[place] ^ 0x10);
    ASSERT_TRUE(is_refused_or_whole(changed)) << place;
  }
  WriteFile(other, bytes.substr(0, bytes.size() / 2));
  EXPECT_THAT(RestoreFails(other), HasSubstr("Take another one"));
}

TEST_F(BackupTest, FullDiskRefusesACopy) {
  settings_.disk_stays_free = UINT64_MAX / 2;
  Start();
  const ReceivedAnswer answer = AskForBackup();
  EXPECT_EQ(answer.status, 503);
  EXPECT_THAT(answer.body, HasSubstr("no room for a copy of the store"));
  EXPECT_EQ(IncomingFiles(), 0U);
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
