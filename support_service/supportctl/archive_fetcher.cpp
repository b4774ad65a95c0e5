#include "archive_fetcher.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "file.h"
#include "sha256.h"
#include "text_forms.h"

namespace TarvoOrvane::Supportctl {
namespace {

namespace fs = std::filesystem;
using SupportService::Sha256Digest;

constexpr long kPartialContent = 206;

std::uint64_t SizeOf(const Descriptor& file, const fs::path& path) {
  struct stat found {};
  if (fstat(file.get(), &found) == -1) FailWithErrno("can't look at", path);
  if (!S_ISREG(found.st_mode)) throw Failure(ExitStatus::kFailed, path.string() + " is no file: remove it");
  return static_cast<std::uint64_t>(found.st_size);
}

std::string HashOf(const Descriptor& file, const fs::path& path) {
  constexpr std::size_t kChunk = 256UL << 10;
  if (lseek(file.get(), 0, SEEK_SET) == -1) FailWithErrno("can't read", path);
  Sha256Digest hash;
  std::vector<char> chunk(kChunk);
  for (;;) {
    const ssize_t count = read(file.get(), chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) FailWithErrno("can't read", path);
    if (count == 0) return hash.Hex();
    hash.Add({chunk.data(), static_cast<std::size_t>(count)});
  }
}

/// The file that grows while the archive comes. The others that fetch it are kept off it.
class Part {
 public:
  Part(fs::path path, std::uint64_t whole)
      : path_(std::move(path)), file_(open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
    if (file_.get() == -1) FailWithErrno("can't write", path_);
    if (flock(file_.get(), LOCK_EX | LOCK_NB) == -1) {
      throw Failure(ExitStatus::kFailed,
                    "another supportctl fetches " + path_.string() + ": let it come to its end");
    }
    size_ = SizeOf(file_, path_);
    if (size_ > whole) CutOff();
  }

  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] std::string Hash() const { return HashOf(file_, path_); }

  void CutOff() {
    if (ftruncate(file_.get(), 0) == -1) FailWithErrno("can't write", path_);
    size_ = 0;
  }

  void Append(std::string_view bytes) {
    if (lseek(file_.get(), static_cast<off_t>(size_), SEEK_SET) == -1) FailWithErrno("can't write", path_);
    WriteAll(file_, bytes, path_);
    size_ += bytes.size();
  }

  void Finish(const fs::path& name) {
    Sync(file_, path_);
    Rename(path_, name);
    SyncFolder(name.parent_path());
  }

  void Remove() { static_cast<void>(unlink(path_.c_str())); }

 private:
  const fs::path path_;
  const Descriptor file_;
  std::uint64_t size_ = 0;
};

/// Asks once for what the part lacks.
/// @throws Failure when it did not come to its end; the part has what came.
void FetchRest(const ApiClient& api, const ArchiveFacts& archive, const FetchSettings& settings, Part& part,
               const std::function<void(std::uint64_t)>& progress) {
  std::vector<std::string> header;
  if (part.size() > 0) header.push_back("Range: bytes=" + std::to_string(part.size()) + "-");
  bool is_first = true;
  std::optional<Transfer> transfer;
  transfer.emplace(
      api.service(), "GET", "/tickets/" + archive.ticket + "/archives/" + std::to_string(archive.version),
      header, [&](std::string_view bytes) {
        // A server may answer a range with all of it.
        if (is_first && transfer->status() != kPartialContent) part.CutOff();
        is_first = false;
        if (bytes.size() > archive.size_bytes - part.size()) {
          throw Failure(ExitStatus::kFailed, archive.FileName() + " is longer than the service says");
        }
        part.Append(bytes);
        progress(part.size());
      });
  transfer->LimitSilence(settings.silence);
  transfer->Run();
  if (part.size() < archive.size_bytes) {
    throw Failure(ExitStatus::kUnreachable, "the connection broke before the end of " + archive.FileName());
  }
}

/// Whether it may be otherwise in a while.
bool IsPassing(const Failure& failure) {
  const auto* refusal = dynamic_cast<const Refusal*>(&failure);
  return refusal == nullptr ? failure.status() == ExitStatus::kUnreachable : refusal->IsPassing();
}

/// Asks until there is all of it, or nothing comes any more.
void FetchAll(const ApiClient& api, const ArchiveFacts& archive, const FetchSettings& settings, Part& part,
              const std::function<void(std::uint64_t)>& progress) {
  auto pause = settings.first_pause;
  for (int attempts = settings.attempts; part.size() < archive.size_bytes;) {
    const std::uint64_t before = part.size();
    try {
      FetchRest(api, archive, settings, part, progress);
    } catch (const Failure& failure) {
      if (!IsPassing(failure)) throw;
      if (part.size() > before) {
        attempts = settings.attempts;
        pause = settings.first_pause;
      } else if (--attempts <= 0) {
        throw Failure(failure.status(),
                      std::string(failure.what()) + "; the same command goes on with what there is");
      }
      std::this_thread::sleep_for(pause);
      pause *= 2;
    }
  }
}

}  // namespace

ArchiveFacts ReadArchiveFacts(const Json::Value& ticket, const Json::Value& archive) {
  ArchiveFacts facts{TextOf(ticket, "id"), NumberOf(archive, "version"), NumberOf(archive, "size_bytes"),
                     TextOf(archive, "sha256")};
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  if (facts.ticket.empty() || facts.ticket.find_first_not_of(kHexDigits) != std::string::npos) {
    throw Failure(ExitStatus::kFailed,
                  "the service tells of a ticket whose id is none: " + SupportService::Quoted(facts.ticket));
  }
  return facts;
}

fs::path FetchArchive(const ApiClient& api, const ArchiveFacts& archive, const fs::path& folder,
                      const FetchSettings& settings, const std::function<void(std::uint64_t)>& progress) {
  MakeFolder(folder);
  const fs::path name = folder / archive.FileName();
  if (const Descriptor there(open(name.c_str(), O_RDONLY | O_CLOEXEC)); there.get() != -1) {
    if (SizeOf(there, name) == archive.size_bytes && HashOf(there, name) == archive.sha256) return name;
    throw Failure(
        ExitStatus::kFailed,
        name.string() + " is there already, and is another file than the service has: move it away");
  }
  Part part(name.string() + ".part", archive.size_bytes);
  FetchAll(api, archive, settings, part, progress);
  const std::string hash = part.Hash();
  if (hash != archive.sha256) {
    part.Remove();  // nothing could be added to it that would mend it
    throw Failure(ExitStatus::kFailed,
                  archive.FileName() + " came damaged, and was removed: its SHA-256 is " + hash + ", not " +
                      SupportService::Printable(archive.sha256) + ". Fetch it again");
  }
  part.Finish(name);
  return name;
}

}  // namespace TarvoOrvane::Supportctl
