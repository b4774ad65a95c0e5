#include "daemon_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "json_util.h"

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(TarvoOrvane::Utils::FromString(text, value)) << text;
  return value;
}

int SelectAtOnce(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
  EXPECT_EQ(writable, nullptr);
  EXPECT_EQ(exceptional, nullptr);
  RecordCall("select(" + std::to_string(count - 1) + ", " + std::to_string(timeout->tv_sec) + ", " +
             std::to_string(timeout->tv_usec) + ")");
  timeval at_once = {0, 0};
  return real::Select(count, readable, nullptr, nullptr, &at_once);
}

DaemonTest::DaemonTest() { platform_.select = SelectAtOnce; }

DaemonTest::~DaemonTest() {
  std::map<std::string, std::string>
      formats;  // by file and number; the transmitter's log on behalf of callers
  for (const test_support::Event& line : log_.lines()) {
    const std::string site = line.text.substr(0, line.text.find(' '));
    if (line.via_logger || site.rfind("transmitter.cpp:", 0) == 0) continue;
    EXPECT_EQ(formats.emplace(site, line.format).first->second, line.format) << line.text;
  }
}

void DaemonTest::JoinByPipes() {
  int to_worker[2];
  int from_worker[2];
  ASSERT_EQ(pipe2(to_worker, O_NONBLOCK), 0);
  ASSERT_EQ(pipe2(from_worker, O_NONBLOCK), 0);
  worker_.toWorkerReadFd = to_worker[0];
  main_.toWorkerWriteFd = to_worker[1];
  main_.fromWorkerReadFd = from_worker[0];
  worker_.fromWorkerWriteFd = from_worker[1];
}

void DaemonTest::Put(int fd, const std::string& text, std::size_t size) {
  std::string bytes = text;
  bytes.resize(size, '\0');
  ASSERT_EQ(real::Write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string DaemonTest::TakeAll(int fd) {
  std::string bytes(65536, '\0');
  const ssize_t count = real::Read(fd, bytes.data(), bytes.size());
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return bytes;
}

std::vector<std::string> DaemonTest::TakeFrames(int fd) {
  const std::string bytes = TakeAll(fd);
  EXPECT_EQ(bytes.size() % 2048, 0U);
  std::vector<std::string> texts;
  for (std::size_t start = 0; start + 2048 <= bytes.size(); start += 2048) {
    const std::string frame = bytes.substr(start, 2048);
    texts.emplace_back(frame.c_str());
    EXPECT_EQ(frame.find_first_not_of('\0', texts.back().size()), std::string::npos);
  }
  return texts;
}
