/// The limits that a device uses are those of the table that makers of descriptions read.
#include "collection_limits.h"

#include <gmock/gmock.h>

#include <cctype>
#include <sstream>

#include "support_log_fixture.h"

namespace TARVO::SupportForm {
namespace {

using testing::ElementsAreArray;

/// Every number of a text, in its order: "1,000,000, and 16 MiB of their text" has two.
std::vector<std::uint64_t> NumbersOf(const std::string& text) {
  std::vector<std::uint64_t> numbers;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (std::isdigit(static_cast<unsigned char>(text[at])) == 0) continue;
    std::uint64_t number = 0;
    for (; at < text.size(); ++at) {
      if (std::isdigit(static_cast<unsigned char>(text[at])) != 0) {
        number = 10 * number + static_cast<std::uint64_t>(text[at] - '0');
      } else if (text[at] != ',' || std::isdigit(static_cast<unsigned char>(text[at + 1])) == 0) {
        break;
      }
    }
    for (const auto& [unit, shift] : {std::pair{" KiB", 10U}, {" MiB", 20U}, {" GiB", 30U}}) {
      if (text.compare(at, 4, unit) == 0) number <<= shift;
    }
    numbers.push_back(number);
  }
  return numbers;
}

/// What the document's table says of a limit, "default" and "a description may say"; empty where it has no such row.
std::vector<std::uint64_t> DocumentedLimit(const std::string& name) {
  std::istringstream lines(ReadText(DOCUMENT_PATH));
  const std::string begin = "| " + name + " | ";
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(begin, 0) != 0) continue;
    const std::string cells = line.substr(begin.size());
    const std::size_t second = cells.find('|') + 1;
    return NumbersOf(cells.substr(0, cells.find('|', second)));
  }
  return {};
}

TEST(CollectionLimitsTest, AreThoseOfTheDocument) {
  const Limits limits;
  const std::pair<const char*, std::vector<std::uint64_t>> rows[] = {
      {"bytes of a file", {limits.file_bytes}},
      {"bytes that a compressed file unpacks to", {limits.unpacked_file_bytes, limits.file_bytes}},
      {"bytes that all compressed files unpack to, and that are read of them",
       {limits.unpacked_archive_bytes}},
      {"bytes of a file of proc, sysfs and the like", {limits.kernel_file_bytes}},
      {"bytes of an archive's content", {limits.archive_bytes}},
      {"entries of an archive", {limits.archive_entries}},
      {"bytes that stay free on the archive's file system", {limits.free_bytes}},
      {"least bytes taken of a longer file for want of room", {limits.least_bytes}},
      {"bytes of a command's output", {limits.output_bytes, limits.output_bytes_max}},
      {"seconds of a command", {limits.command_seconds, limits.command_seconds_max}},
      {"entries of a unit's journal, or the system's", {limits.journal_lines, limits.journal_lines_max}},
      {"bytes of these entries", {limits.journal_bytes, limits.output_bytes_max}},
      {"how far back these entries go", {limits.journal_hours_max}},
      {"seconds of journalctl and dmesg", {limits.system_command_seconds}},
      {"levels of folders below a match", {limits.folder_depth}},
      {"names in one folder", {limits.folder_names}},
      {"names met per application", {limits.app_names, limits.app_name_bytes}},
      {"links on the way along a pattern", {limits.links}},
      {"lines under \"errors\"", {limits.manifest_errors}},
      {"bytes of a description", {limits.description_bytes}},
      {"seconds of a task", {limits.task_seconds}},
      {"seconds until a task that hangs is ended", {limits.task_seconds_hard}},
      {"seconds for which \"collect\" waits until another one's task has begun",
       {limits.prepare_wait_ms / 1000}},
      {"bytes of the audit log", {limits.audit_bytes}}};
  for (const auto& [name, values] : rows) {
    EXPECT_THAT(DocumentedLimit(name), ElementsAreArray(values)) << name;
  }
}

}  // namespace
}  // namespace TARVO::SupportForm
