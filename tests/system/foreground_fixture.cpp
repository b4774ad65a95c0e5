#include "foreground_fixture.h"

#include <algorithm>
#include <csignal>

void ForegroundFixture::TearDown() {
  if (run_ != nullptr) {
    run_->Signal(SIGTERM);
    run_->Signal(SIGINT);
    EXPECT_GE(run_->Wait(), 0) << Everything();
  }
  run_.reset();
  SystemTest::TearDown();
}

void ForegroundFixture::StartRun(const std::vector<std::string>& arguments, const Environment& extra) {
  std::vector<std::string> argv = {BinaryPath("debug_dat_run")};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  run_.reset();
  run_ = std::make_unique<Program>(argv, std::string(kTestFolder) + "/run.out", extra);
}

void ForegroundFixture::StartAllInForeground(const std::vector<std::string>& arguments,
                                             const Environment& extra) {
  ASSERT_NO_FATAL_FAILURE(StartService());
  WriteConfig();
  StartRun(arguments, extra);
  ASSERT_TRUE(WaitForConnections(1)) << Everything();
  ASSERT_TRUE(Eventually([&] { return FindProcesses(); })) << Everything();
}

bool ForegroundFixture::FindProcesses() {
  supervisor_ = static_cast<pid_t>(std::strtol(ReadFile(kPidFile).c_str(), nullptr, 10));
  const std::vector<pid_t> children = supervisor_ > 0 ? ChildrenOf(supervisor_) : std::vector<pid_t>();
  worker_ = children.empty() ? 0 : *std::min_element(children.begin(), children.end());
  return worker_ > 0 && !HasEnded(supervisor_) && !HasEnded(worker_);
}

std::size_t ForegroundFixture::Connections() const {
  const std::string output = service_->Output();
  std::size_t count = 0;
  for (std::size_t at = 0; (at = output.find("device connected", at)) != std::string::npos; ++at) ++count;
  return count;
}

bool ForegroundFixture::WaitForConnections(std::size_t count) const {
  return Eventually([&] { return Connections() >= count; });
}

std::string ForegroundFixture::Everything() const {
  return WholeLog() + "debug_dat_run:\n" + (run_ ? run_->Output() : "");
}

testing::AssertionResult ForegroundFixture::WaitForNothingElse(std::set<pid_t> spared) const {
  if (run_ != nullptr) spared.insert(run_->pid());
  return WaitForOtherProcessesEnd(std::move(spared));
}
