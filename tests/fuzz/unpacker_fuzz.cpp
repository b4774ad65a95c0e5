/// Compressed logs, unpacked whole and in pieces, and measured as before they go into an archive.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "file_entry.h"
#include "file_util.h"
#include "fuzz_support.h"
#include "unique_fd.h"
#include "unpacker.h"

namespace {

using namespace TARVO::SupportForm;
using fuzz::Require;

/// No more is unpacked of an input, whatever it has.
constexpr std::size_t kMaxUnpacked = std::size_t{64} << 10;

struct Unpacked {
  std::string text;
  bool is_cut = false;  ///< There is more than kMaxUnpacked.
  std::string failure;
  bool has_tail = false;
};

/// @param next  How many bytes are given, or asked for, next.
Unpacked Unpack(Packing packing, std::string_view input, const std::function<std::size_t()>& next) {
  std::string_view left = input;
  Unpacker unpacker(packing, [&](char* buffer, std::size_t capacity) {
    const std::size_t count = left.copy(buffer, std::min(next(), capacity));
    left.remove_prefix(count);
    return static_cast<ssize_t>(count);
  });
  Unpacked result;
  std::string buffer(2 * kMaxUnpacked, '\0');
  while (!result.is_cut) {
    const std::size_t capacity = std::min(next(), buffer.size());
    const ssize_t count = unpacker.Read(buffer.data(), capacity);
    Require(count < 0 || static_cast<std::size_t>(count) <= capacity, "a read fills its buffer at most");
    if (count <= 0) {
      Require((count < 0) == !unpacker.failure().empty(), "a failure has a reason");
      break;
    }
    result.text.append(buffer, 0, static_cast<std::size_t>(count));
    result.is_cut = result.text.size() > kMaxUnpacked;
  }
  Require(unpacker.bytes_read() == input.size() - left.size(), "what was read is counted");
  result.failure = unpacker.failure();
  result.has_tail = unpacker.has_tail();
  return result;
}

bool OneBeginsTheOther(const std::string& one, const std::string& other) {
  return one.compare(0, other.size(), other, 0, one.size()) == 0;
}

void CheckPieces(Packing packing, std::string_view input, const Unpacked& whole) {
  for (std::uint32_t seed = 1; seed <= 2; ++seed) {
    std::minstd_rand random(seed + static_cast<std::uint32_t>(input.size()));
    const Unpacked pieces =
        Unpack(packing, input, [&] { return 1 + random() % (random() % 2 == 0 ? 20 : 20'000); });
    // A library may hold back what comes before the damage, or not.
    Require(OneBeginsTheOther(pieces.text, whole.text), "the text is the same however it is cut");
    if (pieces.is_cut || whole.is_cut) continue;
    Require(pieces.failure == whole.failure, "a failure is the same however the input is cut");
    Require(!whole.failure.empty() || pieces.text.size() == whole.text.size(), "no less comes out in pieces");
    Require(pieces.has_tail == whole.has_tail, "a tail is seen however the input is cut");
  }
}

/// What is taken into an archive is what there is, and never more than is allowed.
void CheckMeasured(Packing packing, std::string_view input, const Unpacked& whole) {
  const UniqueFd fd(memfd_create("input", MFD_CLOEXEC));
  struct stat status = {};
  Require(WriteAll(fd.get(), input) && fstat(fd.get(), &status) == 0, "there is room for a file");
  const UnpackLimits limits = {std::uint64_t{1} << 20, kMaxUnpacked,
                               std::numeric_limits<std::int64_t>::max()};
  const PackedFile packed = MeasurePacked(fd.get(), status, packing, limits);
  Require(packed.cost <= input.size() + kMaxUnpacked + (128U << 10U),
          "no more is unpacked than a block too much");
  if (!packed.left_out.empty()) return;
  Require(packed.size <= kMaxUnpacked, "no more is taken than is allowed");
  Require(!whole.is_cut && whole.failure.empty(), "what does not unpack is not taken");
  Require(packed.size == whole.text.size() && packed.has_tail == whole.has_tail,
          "a file is measured as it is");
}

void Check(Packing packing, std::string_view input) {
  const Unpacked whole = Unpack(packing, input, [] { return 2 * kMaxUnpacked; });
  CheckPieces(packing, input, whole);
  CheckMeasured(packing, input, whole);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = fuzz::AsText(data, size);
  const Packing packing = PackingOf(input);
  Require((packing == Packing::kNone) == NameOf(packing).empty(), "every packing has a name");
  if (packing != Packing::kNone) Check(packing, input);
  return 0;
}
