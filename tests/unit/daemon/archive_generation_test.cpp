#include "daemon_fixture.h"

using testing::Each;

namespace {

constexpr char kCollected[] = R"({"data":{"task_id":"task 7"},"success":true})";
constexpr char kCollectCall[] =
    R"(Exec(TARVO.Core.SupportForm.Log, 1, collect, {"app_list":["a",2]}, admin))";
constexpr char kStatusCall[] = R"(Exec(TARVO.Core.SupportForm.Log, 1, status, {"task_id":"task 7"}, admin))";
constexpr char kUnfinished[] = R"({"data":{"finished":false},"success":true})";
constexpr char kFinished[] = R"({"data":{"finished":true,"path":"/var/debug.dat"},"success":true})";

/// The web API answers "collect" with `collect_answer_` and "status" with `status_answers_` in turn, the
/// last one again and again. The clock moves by sleep() alone, unless a test says otherwise.
class ArchiveGenerationTest : public DaemonTest {
 protected:
  void SetUp() override {
    platform_.exec = [this](Json::Value& out, const std::string& method, const Json::Value&) {
      EXPECT_EQ(out, Json::Value(Json::objectValue)) << "the holder is empty before every call";
      now_ += exec_seconds_;
      if (method == "collect") {
        out = Parse(collect_answer_);
      } else {
        out = Parse(status_answers_.front());
        if (status_answers_.size() > 1) status_answers_.erase(status_answers_.begin());
      }
      return exec_result_;
    };
    platform_.time = [this] { return now_; };
    platform_.sleep = [this](unsigned seconds) {
      now_ += oversleep_ + static_cast<time_t>(seconds);
      return 0U;
    };
  }

  bool Generate() { return main_.GenerateDebugDat(apps_, path_); }

  Json::Value apps_ = Parse(R"(["a",2])");
  std::string path_;
  std::string collect_answer_ = kCollected;
  std::vector<std::string> status_answers_ = {kFinished};
  bool exec_result_ = true;
  time_t now_ = 1000000;
  time_t exec_seconds_ = 0;
  time_t oversleep_ = 0;
};

TEST_F(ArchiveGenerationTest, CollectionThatIsFinishedAtOnceYieldsItsPath) {
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "/var/debug.dat");
  EXPECT_THAT(log_.events(), ElementsAre(Call(kCollectCall), Call(kStatusCall)));
}

TEST_F(ArchiveGenerationTest, StatusIsAskedEveryFiveSeconds) {
  status_answers_ = {kUnfinished, R"({"data":{"finished":false,"path":"/early"},"success":true})", kFinished};
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "/var/debug.dat");
  EXPECT_THAT(log_.events(), ElementsAre(Call(kCollectCall), Call(kStatusCall), Call("sleep(5)"),
                                         Call(kStatusCall), Call("sleep(5)"), Call(kStatusCall)));
}

TEST_F(ArchiveGenerationTest, VerdictOfTheRunnerItselfIsIgnored) {
  exec_result_ = false;
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "/var/debug.dat");
}

TEST_F(ArchiveGenerationTest, EmptyListOfApplicationsIsSentAsAnArray) {
  apps_ = Json::Value(Json::arrayValue);
  EXPECT_TRUE(Generate());
  EXPECT_EQ(log_.calls()[0], R"(Exec(TARVO.Core.SupportForm.Log, 1, collect, {"app_list":[]}, admin))");
}

TEST_F(ArchiveGenerationTest, EmptyPathIsAPath) {
  status_answers_ = {R"({"data":{"finished":true,"path":""},"success":true})"};
  path_ = "before";
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ArchiveGenerationTest, ApplicationsArePassedOnUnchanged) {
  apps_ = Parse(R"([{"b":[1.5]},null,"a","a",[]])");
  EXPECT_TRUE(Generate());
  EXPECT_EQ(log_.calls()[0], R"(Exec(TARVO.Core.SupportForm.Log, 1, collect, )"
                             R"({"app_list":[{"b":[1.5]},null,"a","a",[]]}, admin))");
}

TEST_F(ArchiveGenerationTest, TaskIdIsPassedOnUnchanged) {
  for (const char* const id : {"", " 7\\n", "\\\"}"}) {
    log_.Clear();
    collect_answer_ = std::string(R"({"data":{"task_id":")") + id + R"("},"success":true})";
    EXPECT_TRUE(Generate());
    EXPECT_THAT(log_.calls(),
                ElementsAre(kCollectCall, std::string(R"(Exec(TARVO.Core.SupportForm.Log, 1, )") +
                                              R"(status, {"task_id":")" + id + R"("}, admin))"));
  }
}

TEST_F(ArchiveGenerationTest, PathIsWrittenOnlyWhenOneHasBeenRead) {
  path_ = "before";
  collect_answer_ = "{}";
  EXPECT_FALSE(Generate());
  EXPECT_EQ(path_, "before");
  collect_answer_ = kCollected;
  for (const char* const answer : {"{}", R"({"success":true,"data":{"finished":true,"path":12}})"}) {
    status_answers_ = {answer};
    EXPECT_FALSE(Generate());
    EXPECT_EQ(path_, "before");
  }
  status_answers_ = {kUnfinished};
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "before");
}

TEST_F(ArchiveGenerationTest, LongAnswersAreLoggedWholeInSyslogAndCutByTheLogger) {
  const std::string answer = R"({"%s%n":")" + std::string(1500, 'x') + R"("})";
  const std::vector<std::string> starts = {
      R"(Failed to execute log collection webapi: app list: ["a",2], ret=[)",
      "Failed to check log collection status: task id: task 7, ret=["};
  for (const std::string& start : starts) {
    log_.Clear();
    collect_answer_ = start == starts[0] ? answer : kCollected;
    status_answers_ = {answer};
    EXPECT_FALSE(Generate());
    EXPECT_THAT(log_.lines(), ElementsAre(Error(start + answer + "]")));
  }
}

/// Answers to "collect" that fail one test each.
class BadCollectAnswerTest : public ArchiveGenerationTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, BadCollectAnswerTest,
                         testing::Values("[]", "null", "\"success\"", "{}", R"({"data":{"task_id":"7"}})",
                                         R"({"data":{"task_id":"7"},"success":1})",
                                         R"({"data":{"task_id":"7"},"success":"true"})",
                                         R"({"data":{"task_id":"7"},"success":null})",
                                         R"({"data":{"task_id":"7"},"success":false})", R"({"success":true})",
                                         R"({"data":"task_id","success":true})",
                                         R"({"data":["task_id"],"success":true})",
                                         R"({"data":null,"success":true})", R"({"data":{},"success":true})",
                                         R"({"data":{"task_id":12},"success":true})",
                                         R"({"data":{"task_id":null},"success":true})",
                                         R"({"error":{"code":3},"success":false})"));

TEST_P(BadCollectAnswerTest, EndsTheGenerationBeforeAnyStatus) {
  collect_answer_ = GetParam();
  EXPECT_FALSE(Generate());
  EXPECT_EQ(path_, "");
  EXPECT_THAT(log_.events(),
              ElementsAre(Call(kCollectCall),
                          Error(R"(Failed to execute log collection webapi: app list: ["a",2], ret=[)" +
                                std::string(GetParam()) + "]")));
}

/// Answers to "status" that fail one test each.
class BadStatusAnswerTest : public ArchiveGenerationTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, BadStatusAnswerTest,
                         testing::Values("[]", "null", "true", "{}",
                                         R"({"data":{"finished":true,"path":"/p"}})",
                                         R"({"data":{"finished":true,"path":"/p"},"success":1})",
                                         R"({"data":{"finished":true,"path":"/p"},"success":"true"})",
                                         R"({"data":{"finished":true,"path":"/p"},"success":false})",
                                         R"({"success":true})", R"({"data":"finished","success":true})",
                                         R"({"data":["finished"],"success":true})",
                                         R"({"data":null,"success":true})", R"({"data":{},"success":true})",
                                         R"({"data":{"path":"/p"},"success":true})",
                                         R"({"data":{"finished":"true","path":"/p"},"success":true})",
                                         R"({"data":{"finished":1,"path":"/p"},"success":true})",
                                         R"({"data":{"finished":null,"path":"/p"},"success":true})"));

TEST_P(BadStatusAnswerTest, EndsTheGenerationWithoutARetry) {
  status_answers_ = {kUnfinished, GetParam()};
  EXPECT_FALSE(Generate());
  EXPECT_EQ(path_, "");
  EXPECT_THAT(log_.events(),
              ElementsAre(Call(kCollectCall), Call(kStatusCall), Call("sleep(5)"), Call(kStatusCall),
                          Error("Failed to check log collection status: task id: task 7, ret=[" +
                                std::string(GetParam()) + "]")));
}

TEST_F(ArchiveGenerationTest, FinishedWithoutAUsablePathIsAFailure) {
  for (const char* const answer : {R"({"success":true,"data":{"finished":true}})",
                                   R"({"success":true,"data":{"finished":true,"path":12}})",
                                   R"({"success":true,"data":{"finished":true,"path":null}})",
                                   R"({"success":true,"data":{"finished":true,"path":["/p"]}})"}) {
    log_.Clear();
    status_answers_ = {answer};
    EXPECT_FALSE(Generate()) << answer;
    EXPECT_EQ(path_, "");
    EXPECT_THAT(log_.events(),
                ElementsAre(Call(kCollectCall), Call(kStatusCall), Error("Failed to get debug.dat path")));
  }
}

// ---- The time limit ----

TEST_F(ArchiveGenerationTest, TaskThatNeverFinishesEndsAfter1200SecondsAsSuccessWithoutPath) {
  status_answers_ = {kUnfinished};
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "");
  EXPECT_EQ(now_, 1000000 + 1200);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(log_.CallsOf("Exec").size(), 1U + 240U);
  EXPECT_THAT(log_.CallsOf("sleep"), Each("sleep(5)"));
  EXPECT_EQ(log_.CallsOf("sleep").size(), 240U);
}

TEST_F(ArchiveGenerationTest, StatusIsStillAskedAfter1199SecondsAndNotAfter1200) {
  for (const time_t elapsed : {1199, 1200}) {
    log_.Clear();
    path_.clear();
    status_answers_ = {kUnfinished, kFinished};
    oversleep_ = elapsed - 5;
    EXPECT_TRUE(Generate());
    EXPECT_EQ(path_, elapsed == 1199 ? "/var/debug.dat" : "");
    EXPECT_EQ(log_.CallsOf("Exec").size(), elapsed == 1199 ? 3U : 2U);
  }
}

TEST_F(ArchiveGenerationTest, TimeIsTakenFromTheAnswerOfCollectOn) {
  exec_seconds_ = 1199;  // "collect" takes as long as the first "status"
  status_answers_ = {kUnfinished, kFinished};
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "") << "1199 + 5 seconds after the answer of collect";
  EXPECT_THAT(log_.calls(), ElementsAre(kCollectCall, kStatusCall, "sleep(5)"));
}

TEST_F(ArchiveGenerationTest, PauseThatASignalCutsShortIsFollowedByTheNextStatus) {
  platform_.sleep = [this](unsigned seconds) {
    now_ += 2;
    return seconds - 2;  // the rest, as sleep() tells it
  };
  status_answers_ = {kUnfinished, kUnfinished, kFinished};
  EXPECT_TRUE(Generate());
  EXPECT_THAT(log_.calls(),
              ElementsAre(kCollectCall, kStatusCall, "sleep(5)", kStatusCall, "sleep(5)", kStatusCall));
}

TEST_F(ArchiveGenerationTest, ClockThatIsSetBackPostponesTheLimit) {
  oversleep_ = -3600;
  status_answers_ = {kUnfinished, kFinished};
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "/var/debug.dat");
}

TEST_F(ArchiveGenerationTest, LimitIsNotCheckedBetweenAStatusCallAndItsAnswer) {
  exec_seconds_ = 5000;
  EXPECT_TRUE(Generate());
  EXPECT_EQ(path_, "/var/debug.dat");
}

}  // namespace
