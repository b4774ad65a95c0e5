#include "command_taker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "file_entry.h"
#include "file_util.h"
#include "redactor.h"
#include "reserved_room.h"
#include "task_folder.h"

namespace TARVO::SupportForm {
namespace {

/// Whether the next argument is this option's secret value.
bool AnnouncesSecret(const std::string& argument, const RedactionRules* rules) {
  return argument.rfind('-', 0) == 0 && Redacted(argument + " x", rules).back() == '*';
}

std::vector<std::string> RedactedArguments(const std::vector<std::string>& argv,
                                           const RedactionRules* rules) {
  std::vector<std::string> result;
  bool secret = false;
  for (const std::string& argument : argv) {
    result.push_back(secret ? std::string(argument.size(), '*') : Redacted(argument, rules));
    secret = AnnouncesSecret(argument, rules);
  }
  return result;
}

/// @param stored  Bytes in the spool.
std::vector<std::string> NotesOf(const CommandResult& result, const FileEntry& taken, std::uint64_t stored) {
  std::vector<std::string> notes;
  if (taken.no_room != 0) notes.push_back(taken.notes.back());
  // The spool's length says nothing about the output's: what AddFile() notes about that would mislead.
  if (result.begin_lost || taken.size < stored) {
    notes.push_back("longer than the limit: its last " + std::to_string(taken.size) + " bytes");
  }
  return notes;
}

}  // namespace

bool CommandTaker::Take(const CommandEntry& entry) {
  if (archive_.TimeIsUp(entry.name)) return false;
  const std::optional<std::uint64_t> allowed =
      archive_.Allow(entry.name, entry.command.output_limit_bytes, limits_.least_bytes);
  if (!allowed) return false;
  const CommandRequest request = Request(entry, *allowed);
  archive_.WriteProgress();  // Nothing is counted while the command runs.
  const UniqueFd spool = OpenSpool(entry.name);
  if (!spool.valid()) return false;
  const CommandResult result = RunCommand(request, spool.get());
  return TakeOutput(entry.name, request, result, spool.get());
}

CommandRequest CommandTaker::Request(const CommandEntry& entry, std::uint64_t allowed) {
  const CommandDescription& command = entry.command;
  CommandRequest request;
  request.argv = command.argv;
  request.programs = paths_.programs;
  request.time_limit_ms =
      std::min<std::int64_t>(std::int64_t{command.time_limit_seconds} * 1000,
                             std::max<std::int64_t>(archive_.deadline_ms() - MonotonicMs(), 0));
  // The spool may take twice the limit, and the archive once more.
  const std::uint64_t room = archive_.RoomFor(3 * command.output_limit_bytes);
  request.output_limit = std::min({allowed, room / 3, FileSizeLimit() / 3});
  request.output = entry.output;
  return request;
}

UniqueFd CommandTaker::OpenSpool(const std::string& where) {
  UniqueFd fd(openat(folder_fd_, kSpoolFile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid() || unlinkat(folder_fd_, kSpoolFile, 0) != 0) {
    archive_.manifest().AddError(where, "left out: there is no room for its output: " + ErrorText(errno));
    fd.Close();
  }
  return fd;
}

bool CommandTaker::TakeOutput(const std::string& name, const CommandRequest& request,
                              const CommandResult& result, int spool_fd) {
  struct stat status = {};
  const bool empty = fstat(spool_fd, &status) != 0 || status.st_size == 0;
  if (result.end == CommandResult::End::kNotStored) {
    archive_.manifest().AddError(name, "left out: " + result.Text());
    return true;
  }
  // An empty log is as good as none; that an ordinary command has nothing to say is worth an entry.
  if (result.end == CommandResult::End::kNotStarted || (empty && request.output == Output::kEndNoErrors)) {
    archive_.manifest().AddError(
        name, Redacted(request.argv.front(), rules_) + " gave no output: " + result.Text());
    return false;
  }
  const FileEntry taken =
      AddFile(archive_.writer(), name, spool_fd, status, request.output_limit, {rules_, false, false});
  ManifestEntry entry;
  entry.name = name;
  entry.argv = RedactedArguments(request.argv, rules_);
  entry.result = result.Text();
  if (result.end == CommandResult::End::kExited) entry.exit_status = result.code;
  entry.notes = NotesOf(result, taken, static_cast<std::uint64_t>(status.st_size));
  archive_.Record(std::move(entry), taken);
  return true;
}

}  // namespace TARVO::SupportForm
