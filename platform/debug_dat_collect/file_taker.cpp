#include "file_taker.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "file_util.h"
#include "redactor.h"

namespace TARVO::SupportForm {

void FileTaker::Take(const ContentFile& file) {
  ManifestEntry entry;
  entry.name = file.name;
  entry.source = file.source;
  if (IsKernels(file)) {
    TakeKernel(std::move(entry), file);
  } else {
    TakeRegular(std::move(entry), file);
  }
}

void FileTaker::TakeRegular(ManifestEntry entry, const ContentFile& file) {
  const std::uint64_t size = std::min(static_cast<std::uint64_t>(file.status.st_size), limits_.file_bytes);
  const std::optional<std::uint64_t> allowed = archive_.Allow(entry.name, size, limits_.least_bytes);
  if (!allowed) return;
  std::optional<FileEntry> taken = AddFile(archive_.writer(), entry.name, file.fd.get(), file.status,
                                           *allowed, {rules_, file.binary_allowed, true});
  if (taken->packing != Packing::kNone) taken = TakePacked(file, taken->packing);
  if (!taken) return;
  entry.modified = file.status.st_mtime;
  entry.notes = taken->notes;
  archive_.Record(std::move(entry), *taken);
}

std::optional<FileEntry> FileTaker::TakePacked(const ContentFile& file, Packing packing) {
  const std::uint64_t left = limits_.unpacked_archive_bytes - unpacked_;
  const UnpackLimits unpack = {limits_.file_bytes, std::min(left, limits_.unpacked_file_bytes),
                               archive_.deadline_ms()};
  const PackedFile packed = MeasurePacked(file.fd.get(), file.status, packing, unpack);
  unpacked_ += std::min(packed.cost, left);
  if (!packed.left_out.empty()) {
    FileEntry none;
    none.left_out = packed.left_out;
    return none;
  }
  const std::uint64_t size = std::min(packed.size, limits_.file_bytes);
  const std::optional<std::uint64_t> allowed = archive_.Allow(file.name, size, limits_.least_bytes);
  if (!allowed) return std::nullopt;
  return AddUnpacked(archive_.writer(), file.name, file.fd.get(), file.status, packed, *allowed, rules_,
                     unpack);
}

void FileTaker::TakeKernel(ManifestEntry entry, const ContentFile& file) {
  std::string text;
  bool more = false;
  if (!ReadUpTo(file.fd.get(), limits_.kernel_file_bytes, text, more)) {
    entry.notes.push_back("could not be read to its end: " + ErrorText(errno));
  }
  if (more) entry.notes.push_back("cut at " + std::to_string(text.size()) + " bytes");
  if (rules_ && !file.binary_allowed && !LooksLikeText(std::string_view(text).substr(0, kTextHeadBytes))) {
    return archive_.manifest().AddError(entry.name, "left out: not text, so it can't be checked for secrets");
  }
  archive_.TakeText(std::move(entry), text, rules_);
}

bool FileTaker::IsKernels(const ContentFile& file) {
  if (file.status.st_dev != device_) {
    device_ = file.status.st_dev;
    device_is_kernels_ = IsKernelFileSystem(file.fd.get());
  }
  return device_is_kernels_;
}

}  // namespace TARVO::SupportForm
