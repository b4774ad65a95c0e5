#include "reader_program.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "child_process.h"

namespace TarvoOrvane::ArchiveReader {

std::vector<std::string> ReaderResult::lines() const {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = output.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(output.substr(begin, end - begin));
  }
  EXPECT_EQ(begin, output.size()) << "the last line has no end";
  return lines;
}

std::vector<std::string> ReaderResult::names() const {
  std::vector<std::string> names;
  for (const std::string& line : lines()) {
    Json::Value entry;
    EXPECT_TRUE(Json::Reader().parse(line, entry)) << line;
    names.push_back(entry["name"].asString());
  }
  return names;
}

std::string ReaderResult::content() const {
  return output.substr(std::min(output.find('\n'), output.size() - 1) + 1);
}

ReaderResult RunReader(const std::vector<std::string>& arguments, int input, std::size_t kept) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  lseek(input, 0, SEEK_SET);
  std::vector<std::string> argv{ARCHIVE_READER_PROGRAM};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  const pid_t pid = test_support::StartProgram(argv, {}, {input, ends[1], STDERR_FILENO});
  close(ends[1]);
  ReaderResult result;
  std::array<char, 65536> piece{};
  ssize_t count = 0;
  while ((count = read(ends[0], piece.data(), piece.size())) > 0) {
    const std::size_t room = kept - std::min(kept, result.output.size());
    result.output.append(piece.data(), std::min(room, static_cast<std::size_t>(count)));
  }
  close(ends[0]);
  int status = 0;
  rusage usage{};
  EXPECT_EQ(wait4(pid, &status, 0, &usage), pid);
  result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  result.peak_bytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
  return result;
}

ReaderResult RunReader(const std::vector<std::string>& arguments, const std::string& archive) {
  return RunReader(arguments, ArchiveFile(archive).fd());
}

ArchiveFile::ArchiveFile(const std::string& content) : fd_(memfd_create("archive", MFD_CLOEXEC)) {
  Append(content);
}

ArchiveFile::~ArchiveFile() { close(fd_); }

void ArchiveFile::Append(const std::string& content) const {
  std::size_t written = 0;
  while (written < content.size()) {
    const ssize_t count = write(fd_, content.data() + written, content.size() - written);
    ASSERT_GT(count, 0);
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace TarvoOrvane::ArchiveReader
