/// What the API tells of the content of archives.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "made_archive.h"
#include "program.h"
#include "service_fixture.h"
#include "text_forms.h"

namespace TarvoOrvane::SupportService {
namespace {

using test_support::MadeArchive;
using test_support::TarEntry;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

class ArchiveApiTest : public ServiceTest {
 protected:
  /// Sends an archive for a ticket, which Place() means from now on.
  void Receive(const std::string& content) {
    const Delivered ticket = AcceptTicket();
    ticket_id_ = ticket.id;
    WriteFile(temp_.path() / "debug.dat", content);
    const auto form = DeviceForm(temp_.path() / "debug.dat", "SN1", {"a"});
    ASSERT_EQ(PostForm(UploadUrl(), {"AUTH-TOKEN: " + ticket.token}, form).status, 200);
  }
  [[nodiscard]] std::string Place(const std::string& rest) const {
    return "/tickets/" + ticket_id_ + "/archives/1" + rest;
  }
  ReceivedAnswer Ask(const std::string& rest, const std::string& method = "GET") {
    return AskApi(service().control_socket(), method, Place(rest));
  }
  /// The answer's object.
  Json::Value Told(const std::string& rest) {
    const ReceivedAnswer answer = Ask(rest);
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_THAT(answer.headers, HasSubstr("Content-Type: application/json\r\n"));
    return ParseJson(answer.body);
  }
  std::string CodeOf(const std::string& rest, long status) {
    const ReceivedAnswer answer = Ask(rest);
    EXPECT_EQ(answer.status, status) << rest << ": " << answer.body;
    const Json::Value value = ParseJson(answer.body);
    return value.isObject() && value["error"].isObject() ? value["error"]["code"].asString() : "";
  }
  static std::vector<std::string> NamesIn(const Json::Value& page) {
    std::vector<std::string> names;
    for (const Json::Value& entry : page["entries"]) names.push_back(entry["name"].asString());
    return names;
  }
  std::vector<std::string> Audit() {
    std::vector<std::string> texts;
    for (const AuditRecord& record : service().store().Audit(0, 1000)) {
      texts.push_back(record.action + " " + record.object + " " + record.detail);
    }
    return texts;
  }
  std::size_t Audited(const std::string& action) {
    const auto texts = Audit();
    return static_cast<std::size_t>(std::count_if(texts.begin(), texts.end(), [&](const std::string& text) {
      return text.compare(0, action.size(), action) == 0;
    }));
  }

  std::string ticket_id_;
};

TEST_F(ArchiveApiTest, EntriesAreListed) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"apps/", "", '5'},
                                            {"apps/log", "text", '0', "", 1},
                                            {"link", "", '2', "/etc/passwd"},
                                            {"../x\x1b", ""}}));
  const Json::Value page = Told("/entries");
  EXPECT_EQ(page["complete"], true);
  EXPECT_FALSE(page.isMember("error"));
  EXPECT_FALSE(page.isMember("next"));
  EXPECT_THAT(NamesIn(page), ElementsAre("apps/", "apps/log", "link", "../x\\x1b"));
  const Json::Value& log = page["entries"][1];
  EXPECT_EQ(
      CompactJson(log),
      R"({"kind":"file","modified":"1970-01-01T00:00:01.000Z","name":"apps/log","number":2,"size_bytes":4})");
  EXPECT_EQ(page["entries"][2]["target"], "/etc/passwd");
  EXPECT_THAT(Audit(), Contains("list archive " + ticket_id_ + " " + ticket_id_ + "-1.dat"));
}

TEST_F(ArchiveApiTest, EntriesComeInPages) {
  Start();
  std::vector<TarEntry> entries;
  for (int i = 1; i <= 7; ++i) entries.push_back({"entry " + std::to_string(i)});
  Receive(MadeArchive(entries));
  std::vector<std::string> all;
  std::string after = "0";
  for (int pages = 1; pages <= 4; ++pages) {
    const Json::Value page = Told("/entries?limit=2&after=" + after);
    for (const std::string& name : NamesIn(page)) all.push_back(name);
    EXPECT_EQ(page.isMember("next"), pages < 4);
    EXPECT_EQ(page.isMember("complete"), pages == 4);
    after = page["next"].asString();
  }
  ASSERT_EQ(all.size(), 7U);
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i], entries[i].name);
  EXPECT_EQ(Told("/entries?limit=7")["complete"], true);
  EXPECT_EQ(Told("/entries?after=99")["entries"].size(), 0U);
  for (const char* wrong : {"limit=0", "limit=1001", "limit=x", "after=x", "after=-1"}) {
    EXPECT_EQ(CodeOf(std::string("/entries?") + wrong, 400), "bad_request") << wrong;
  }
}

TEST_F(ArchiveApiTest, PageOfLongNamesHasFewerOfThem) {
  Start();
  const std::string name(4000, '\xff');
  Receive(MadeArchive(std::vector<TarEntry>(200, {name})));
  std::size_t count = 0;
  std::string after = "0";
  for (;;) {
    const ReceivedAnswer answer = Ask("/entries?limit=1000&after=" + after);
    EXPECT_LT(answer.body.size(), std::size_t{2} << 20);
    const Json::Value page = ParseJson(answer.body);
    count += page["entries"].size();
    if (!page.isMember("next")) break;
    after = page["next"].asString();
  }
  EXPECT_EQ(count, 200U);
}

TEST_F(ArchiveApiTest, DamagedArchiveIsShownAsFarAsItGoes) {
  Start();
  std::string log;
  while (log.size() < 400'000) log += std::to_string(log.size() * 7919) + "\n";
  const std::string whole =
      MadeArchive(std::vector<TarEntry>{{"first", "text"}, {"log", log}, {"manifest.json", "{}"}});
  Receive(whole.substr(0, whole.size() / 2));
  const Json::Value page = Told("/entries");
  EXPECT_THAT(NamesIn(page), ElementsAre("first", "log"));
  EXPECT_EQ(page["complete"], false);
  EXPECT_THAT(page["error"].asString(), HasSubstr("cut or damaged"));
  EXPECT_EQ(CodeOf("/manifest", 422), "unreadable");
  EXPECT_EQ(Ask("/entries/1").body, "text");
  EXPECT_EQ(CodeOf("/entries/3", 422), "unreadable");

  const ReceivedAnswer text = Ask("/entries/2/text?length=16777216");
  EXPECT_EQ(text.status, 200);
  EXPECT_NE(text.curl_code, CURLE_OK) << "that it is cut has to be seen";
  EXPECT_TRUE(text.body.size() > 1000 && log.compare(0, text.body.size(), text.body) == 0);
  EXPECT_THAT(text.headers, HasSubstr("X-Text-End: " + std::to_string(text.body.size()) + "\r\n"));
  EXPECT_EQ(CodeOf("/entries/2/text?offset=" + std::to_string(text.body.size()), 422), "unreadable");
  EXPECT_NE(Ask("/entries/2").curl_code, CURLE_OK);
}

TEST_F(ArchiveApiTest, WhatIsNoArchiveIsToldSo) {
  Start();
  Receive("no archive at all");
  const Json::Value page = Told("/entries");
  EXPECT_EQ(page["entries"].size(), 0U);
  EXPECT_EQ(page["complete"], false);
  EXPECT_THAT(page["error"].asString(), HasSubstr("no tar archive"));
  for (const char* rest : {"/manifest", "/entries/1", "/entries/1/text"}) {
    EXPECT_EQ(CodeOf(rest, 422), "unreadable");
  }
}

TEST_F(ArchiveApiTest, ManifestIsGivenAsItStands) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"a"}, {"manifest.json", "{\"entries\": [ ]}\n"}}));
  const ReceivedAnswer answer = Ask("/manifest");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "{\"entries\": [ ]}\n");
  EXPECT_THAT(answer.headers, AllOf(HasSubstr("Content-Type: application/json\r\n"),
                                    HasSubstr("X-Content-Type-Options: nosniff\r\n")));
  EXPECT_THAT(Audit(), Contains(EndsWith("-1.dat manifest")));
}

TEST_F(ArchiveApiTest, ManifestThatIsNoneIsRefused) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"manifest.json", "[]"}}));
  EXPECT_EQ(CodeOf("/manifest", 422), "unreadable");
  EXPECT_EQ(Ask("/entries/1").body, "[]");
}

TEST_F(ArchiveApiTest, EntryIsDownloadedByteForByte) {
  Start();
  const std::string content = AwkwardData(3'000'000);
  Receive(MadeArchive(
      std::vector<TarEntry>{{"apps/x/../a \"b\"\r\n<script>.log", content}, {"empty"}, {"apps/.."}}));
  const ReceivedAnswer answer = Ask("/entries/1");
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(answer.body == content);
  EXPECT_THAT(
      answer.headers,
      AllOf(HasSubstr("Content-Type: application/octet-stream\r\n"),
            HasSubstr("Content-Disposition: attachment; filename=\"a__b__x0d_x0a_script_.log\"\r\n"),
            HasSubstr("X-Entry-Size: 3000000\r\n"), HasSubstr("X-Content-Type-Options: nosniff\r\n")));
  EXPECT_EQ(Ask("/entries/2").body, "");
  EXPECT_THAT(Ask("/entries/3").headers, HasSubstr("filename=\"_.\"\r\n"));
  EXPECT_THAT(Audit(), Contains("read archive " + ticket_id_ + " " + ticket_id_ + "-1.dat entry 1"));
}

TEST_F(ArchiveApiTest, EntriesThatAreNotThereOrNoFilesAreNotFound) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"folder/", "", '5'}, {"link", "", '2', "folder"}}));
  for (const char* number : {"1", "2", "3", "0", "01", "+1", "x", "18446744073709551616", "1%00", "-1"}) {
    const std::string place = std::string("/entries/") + number;
    for (const std::string& rest : {place, place + "/text"}) {
      const long status = Ask(rest).status;
      EXPECT_TRUE(status == 404 || status == 400) << rest << ": " << status;
    }
  }
  EXPECT_EQ(CodeOf("/entries/1", 404), "not_found");
}

TEST_F(ArchiveApiTest, TextIsReadInParts) {
  Start();
  std::string log;
  while (log.size() < 2'500'000) log += "\xe2\x82\xac " + std::to_string(log.size()) + "\n";
  Receive(MadeArchive(std::vector<TarEntry>{{"log", log}, {"bytes", "<b>\xff\xfe</b>"}}));
  std::string all;
  for (int parts = 0; parts < 4 && all.size() < log.size(); ++parts) {
    const ReceivedAnswer part = Ask("/entries/1/text?offset=" + std::to_string(all.size()));
    EXPECT_EQ(part.status, 200);
    EXPECT_THAT(part.headers, AllOf(HasSubstr("Content-Type: text/plain; charset=utf-8\r\n"),
                                    HasSubstr("X-Content-Type-Options: nosniff\r\n"),
                                    HasSubstr("X-Text-Begin: " + std::to_string(all.size()) + "\r\n"),
                                    HasSubstr("X-Entry-Size: " + std::to_string(log.size()) + "\r\n")));
    EXPECT_LE(part.body.size(), std::size_t{1} << 20);
    all += part.body;
    EXPECT_THAT(part.headers, HasSubstr("X-Text-End: " + std::to_string(all.size()) + "\r\n"));
  }
  EXPECT_TRUE(all == log);
  EXPECT_EQ(Ask("/entries/2/text").body, "<b>\xef\xbf\xbd\xef\xbf\xbd</b>");
  EXPECT_EQ(Ask("/entries/2/text?offset=1&length=2").body, "b>");
  EXPECT_EQ(Ask("/entries/2/text?offset=9").body, "");
  EXPECT_EQ(CodeOf("/entries/2/text?offset=10", 416), "range");
  for (const char* wrong : {"offset=x", "offset=-1", "length=0", "length=16777217", "length="}) {
    EXPECT_EQ(CodeOf(std::string("/entries/2/text?") + wrong, 400), "bad_request") << wrong;
  }
  EXPECT_EQ(Audited("read archive"), 7U) << "one record for each look, also for a vain one";
}

TEST_F(ArchiveApiTest, DeletedArchiveIsGone) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"manifest.json", "{}"}}));
  EXPECT_EQ(Ask("", "DELETE").status, 204);
  for (const char* rest : {"/entries", "/manifest", "/entries/1", "/entries/1/text"}) {
    EXPECT_EQ(CodeOf(rest, 410), "gone");
  }
  EXPECT_EQ(Audited("list archive") + Audited("read archive"), 0U);
}

TEST_F(ArchiveApiTest, ArchiveWhoseFileIsMissingIsUnavailable) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"a"}}));
  std::filesystem::remove(ArchiveOf(ticket_id_));
  EXPECT_EQ(CodeOf("/entries", 503), "unavailable");
}

// ---- how looks end ----

/// Readers that go on until they are ended.
class EndlessLookTest : public ArchiveApiTest {
 protected:
  EndlessLookTest() { settings_.api_address = "127.0.0.1:0"; }
  ~EndlessLookTest() override {
    if (pipe_ != -1) close(pipe_);
  }

  /// Puts a pipe in the archive's place, which never ends and never holds anything.
  void StallArchive() {
    std::filesystem::remove(ArchiveOf(ticket_id_));
    ASSERT_EQ(mkfifo(ArchiveOf(ticket_id_).c_str(), 0600), 0);
    pipe_ = open(ArchiveOf(ticket_id_).c_str(), O_RDWR | O_CLOEXEC);
  }
  std::unique_ptr<RawHttp> Request(const std::string& rest) {
    if (secret_.empty()) {
      Json::Value token;
      token["name"] = "test";
      token["role"] = "support";
      secret_ =
          ParseJson(AskApi(service().control_socket(), "POST", "/tokens", token).body)["secret"].asString();
    }
    auto client = std::make_unique<RawHttp>(service().api_url());
    client->Send("GET /api/v1" + Place(rest) +
                 " HTTP/1.1\r\nHost: test\r\nConnection: close\r\nAuthorization: Bearer " + secret_ +
                 "\r\n\r\n");
    return client;
  }
  static bool AwaitReaders(std::size_t count) {
    return Eventually([&] { return test_support::ChildrenOf(getpid()).size() == count; });
  }

 private:
  std::string secret_;
  int pipe_ = -1;
};

TEST_F(EndlessLookTest, ReaderEndsWhenTheClientGoesBeforeItsAnswer) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"a"}}));
  StallArchive();
  for (const char* rest : {"/entries", "/manifest", "/entries/1", "/entries/1/text"}) {
    auto client = Request(rest);
    ASSERT_TRUE(AwaitReaders(1)) << rest;
    client.reset();
    EXPECT_TRUE(AwaitReaders(0)) << rest;
  }
}

TEST_F(EndlessLookTest, ReaderEndsWhenTheClientGoesWhileItReads) {
  Start();
  // A gigabyte: more than all buffers between the reader and the client take.
  std::string archive = test_support::Zstd(test_support::TarHeader({"zeros"}, std::uint64_t{1} << 30));
  const std::string piece = test_support::Zstd(std::string(std::size_t{1} << 20, '\0'));
  for (int i = 0; i < 1024; ++i) archive += piece;
  Receive(archive + test_support::Zstd(test_support::TarEnd()));
  auto client = Request("/entries/1");
  ASSERT_TRUE(AwaitReaders(1));
  // It is answered, so the server watches the client.
  ASSERT_TRUE(Eventually([&] { return Audited("read archive") == 1; }));
  client->Reset();
  EXPECT_TRUE(AwaitReaders(0));
}

TEST_F(EndlessLookTest, TooManyAtOnceAreRefused) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"a"}}));
  StallArchive();
  const LookSettings defaults;
  const std::size_t most = static_cast<std::size_t>(defaults.at_once) + defaults.waiting;
  std::vector<std::unique_ptr<RawHttp>> clients;
  clients.reserve(most);
  for (std::size_t i = 0; i < most; ++i) clients.push_back(Request("/entries"));
  ASSERT_TRUE(Eventually([&] { return Audited("list archive") == most; }));
  EXPECT_TRUE(AwaitReaders(static_cast<std::size_t>(defaults.at_once)));
  EXPECT_EQ(CodeOf("/entries", 503), "unavailable");
  EXPECT_EQ(AskApi(service().control_socket(), "GET", "/service").status, 200) << "all else goes on";
  clients.clear();
  EXPECT_TRUE(AwaitReaders(0));
}

TEST_F(EndlessLookTest, EndOfTheServiceEndsReaders) {
  Start();
  Receive(MadeArchive(std::vector<TarEntry>{{"a"}}));
  StallArchive();
  const auto client = Request("/entries");
  ASSERT_TRUE(AwaitReaders(1));
  own_device_.reset();
  service_.reset();
  EXPECT_THAT(client->ReadToEnd(), AllOf(HasSubstr("HTTP/1.1 503"), HasSubstr("shuts down")));
  EXPECT_TRUE(AwaitReaders(0));
}

}  // namespace
}  // namespace TarvoOrvane::SupportService
