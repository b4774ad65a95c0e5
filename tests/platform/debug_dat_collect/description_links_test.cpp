#include "description_links.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "app_description.h"
#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using State = DescriptionState;

class DescriptionLinksTest : public SupportLogTest {
 protected:
  DescriptionLinksTest() {
    fs::create_directories(ready_);
    paths_.ready_descriptions = ready_;
    WriteText(ready_ / "kernel.json", R"({"description": "The kernel"})");
    WriteText(ready_ / "web.json", R"({"description": "The web server"})");
  }

  [[nodiscard]] fs::path Used(const std::string& name) const {
    return fs::path(paths_.descriptions) / (name + ".json");
  }
  bool Enable(const std::string& name) { return EnableDescription(paths_, limits_, name); }
  bool Disable(const std::string& name) { return DisableDescription(paths_, name); }

  /// The one of that name in the list; fails the test when there is none, or not exactly one.
  ListedDescription Listed(const std::string& name) {
    std::vector<ListedDescription> found;
    for (const ListedDescription& listed : ListDescriptions(paths_, limits_)) {
      if (listed.name == name) found.push_back(listed);
    }
    EXPECT_EQ(found.size(), 1U) << name;
    return found.empty() ? ListedDescription() : found.front();
  }

  void ExpectFailure(const std::function<void()>& change, const std::string& why) {
    EXPECT_THAT(change, testing::ThrowsMessage<std::runtime_error>(HasSubstr(why)));
  }

  const fs::path ready_ = folder_ / "share" / "tarvo" / "descriptions";
};

TEST_F(DescriptionLinksTest, EnabledOneIsLoadedByItsName) {
  EXPECT_EQ(Listed("kernel").state, State::kAvailable);
  EXPECT_TRUE(Enable("kernel"));
  EXPECT_EQ(fs::read_symlink(Used("kernel")), ready_ / "kernel.json");
  EXPECT_EQ(LoadAppDescription(paths_, limits_, "kernel").description, "The kernel");
  EXPECT_EQ(Listed("kernel").state, State::kEnabled);
  EXPECT_EQ(Listed("web").state, State::kAvailable);
}

TEST_F(DescriptionLinksTest, DisabledOneIsUnknownAgain) {
  EXPECT_TRUE(Enable("kernel"));
  EXPECT_TRUE(Disable("kernel"));
  EXPECT_THROW(static_cast<void>(LoadAppDescription(paths_, limits_, "kernel")), DescriptionError);
  EXPECT_EQ(Listed("kernel").state, State::kAvailable);
  EXPECT_TRUE(fs::exists(ready_ / "kernel.json"));
}

TEST_F(DescriptionLinksTest, AskingTwiceChangesNothing) {
  EXPECT_FALSE(Disable("kernel"));
  EXPECT_TRUE(Enable("kernel"));
  EXPECT_FALSE(Enable("kernel"));
  EXPECT_EQ(Listed("kernel").state, State::kEnabled);
  EXPECT_TRUE(Disable("kernel"));
  EXPECT_FALSE(Disable("kernel"));
}

TEST_F(DescriptionLinksTest, FolderIsMadeForTheFirstOneAndIsTrusted) {
  fs::remove_all(paths_.descriptions);
  EXPECT_EQ(Listed("kernel").state, State::kAvailable);
  umask(0);
  EXPECT_TRUE(Enable("kernel"));
  EXPECT_EQ(LoadAppDescription(paths_, limits_, "kernel").description, "The kernel");
}

TEST_F(DescriptionLinksTest, UnknownNameIsAnError) {
  ExpectFailure([&] { Enable("kernle"); },
                "there is no ready description " + (ready_ / "kernle.json").string());
  ExpectFailure([&] { Disable("kernle"); }, "there is no ready description ");
  EXPECT_FALSE(fs::exists(Used("kernle")));
}

TEST_F(DescriptionLinksTest, ReadyOneThatCanNotBeUsedIsNotEnabled) {
  WriteText(ready_ / "web.json", R"({"path": []})");
  ExpectFailure([&] { Enable("web"); }, "unknown member \"path\"");
  WriteText(ready_ / "web.json", "{}");
  chmod((ready_ / "web.json").c_str(), 0666);
  ExpectFailure([&] { Enable("web"); }, "can be changed by others");
  EXPECT_FALSE(fs::exists(fs::symlink_status(Used("web"))));
  EXPECT_THAT(Listed("web").text, HasSubstr("can be changed by others"));
}

TEST_F(DescriptionLinksTest, OperatorsFileStaysAsItIs) {
  Describe("kernel", R"({"description": "My own"})");
  EXPECT_EQ(Listed("kernel").state, State::kOwn);
  EXPECT_EQ(Listed("kernel").text, "My own");
  ExpectFailure([&] { Enable("kernel"); },
                Used("kernel").string() + " is not a link to the ready description");
  ExpectFailure([&] { Disable("kernel"); }, "stays as it is");
  EXPECT_EQ(ReadText(Used("kernel")), R"({"description": "My own"})");
}

TEST_F(DescriptionLinksTest, OperatorsLinkStaysAsItIs) {
  WriteText(data_ / "kernel.json", R"({"description": "My own"})");
  fs::create_symlink(data_ / "kernel.json", Used("kernel"));
  EXPECT_EQ(Listed("kernel").state, State::kOwn);
  for (const bool target_is_there : {true, false}) {
    if (!target_is_there) fs::remove(data_ / "kernel.json");
    ExpectFailure([&] { Enable("kernel"); }, "it leads to " + (data_ / "kernel.json").string());
    ExpectFailure([&] { Disable("kernel"); }, "it leads to " + (data_ / "kernel.json").string());
    EXPECT_EQ(fs::read_symlink(Used("kernel")), data_ / "kernel.json");
  }
  EXPECT_EQ(Listed("kernel").state, State::kBrokenLink);
}

TEST_F(DescriptionLinksTest, LinkIsOursOnlyIfItsNameAndBothFoldersAreThoseOfTheReadyOne) {
  for (const char* target : {"/x/tarvo/descriptions/web.json", "/x/tarvo/elsewhere/kernel.json",
                             "/x/elsewhere/descriptions/kernel.json"}) {
    fs::create_symlink(target, Used("kernel"));
    ExpectFailure([&] { Disable("kernel"); }, target);
    fs::remove(Used("kernel"));
  }
  fs::create_symlink("../share/tarvo/descriptions/kernel.json", Used("kernel"));
  EXPECT_EQ(Listed("kernel").state, State::kEnabled);
  EXPECT_TRUE(Disable("kernel"));
}

TEST_F(DescriptionLinksTest, LinkWhoseTargetVanishedIsToldAndCanBeRemoved) {
  EXPECT_TRUE(Enable("web"));
  fs::remove(ready_ / "web.json");
  EXPECT_EQ(Listed("web").state, State::kBrokenLink);
  EXPECT_THAT(Listed("web").text, HasSubstr((ready_ / "web.json").string() + ", which is not there"));
  EXPECT_TRUE(Disable("web"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(Used("web"))));
}

TEST_F(DescriptionLinksTest, LinkToAFormerInstallationIsReplaced) {
  fs::create_symlink("/nonexistent/share/tarvo/descriptions/web.json", Used("web"));
  EXPECT_EQ(Listed("web").state, State::kBrokenLink);
  EXPECT_TRUE(Enable("web"));
  EXPECT_EQ(fs::read_symlink(Used("web")), ready_ / "web.json");
}

TEST_F(DescriptionLinksTest, OwnOnesAreListedWithWhatIsWrongWithThem) {
  Describe("mail", "{");
  EXPECT_EQ(Listed("mail").state, State::kOwn);
  EXPECT_THAT(Listed("mail").text, HasSubstr("not valid JSON"));
}

TEST_F(DescriptionLinksTest, WithoutAnyFolderThereIsNothingToList) {
  fs::remove_all(paths_.descriptions);
  fs::remove_all(ready_);
  EXPECT_THAT(ListDescriptions(paths_, limits_), IsEmpty());
}

TEST_F(DescriptionLinksTest, FolderThatMayNotBeChangedIsAnErrorThatTellsWhatToDo) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  chmod(folder_.c_str(), 0755);
  const CallerProcess process([&] {
    if (seteuid(65534) != 0) return std::string("no other user");
    std::ostringstream out;
    std::ostringstream err;
    const bool all = ChangeDescriptions(paths_, limits_, {"kernel"}, true, out, err);
    return (all ? "done: " : "failed: ") + err.str();
  });
  EXPECT_THAT(process.Answer(), HasSubstr("failed: debug_dat_collect: kernel: "));
  EXPECT_THAT(process.Answer(), HasSubstr("Permission denied; run this as root"));
}

TEST_F(DescriptionLinksTest, OneFailureDoesNotKeepTheOthers) {
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_FALSE(ChangeDescriptions(paths_, limits_, {"kernel", "kernle", "web", "web"}, true, out, err));
  EXPECT_EQ(out.str(), "kernel: enabled\nweb: enabled\nweb: already enabled\n");
  EXPECT_THAT(err.str(), HasSubstr("kernle: there is no ready description"));
  EXPECT_TRUE(ChangeDescriptions(paths_, limits_, {"kernel", "web"}, false, out, err));
  EXPECT_THAT(out.str(), HasSubstr("kernel: disabled\nweb: disabled\n"));
}

TEST_F(DescriptionLinksTest, ListHasALinePerDescription) {
  EXPECT_TRUE(Enable("web"));
  std::ostringstream out;
  PrintDescriptions(paths_, limits_, out);
  EXPECT_EQ(out.str(),
            "available    kernel                  The kernel\n"
            "enabled      web                     The web server\n");
}

}  // namespace
}  // namespace TARVO::SupportForm
