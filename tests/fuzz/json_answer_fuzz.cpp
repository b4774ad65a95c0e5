/// The text of a server's answer, as the daemon parses it, and what that costs. The input: records of text, each of
/// which that begins with '*' again and again, up to some hundred kilobytes.
#include "budget.h"
#include "fuzz_support.h"
#include "json_util.h"

namespace {

using fuzz::Require;
using TarvoOrvane::Utils::Comments;
using TarvoOrvane::Utils::FromString;
using TarvoOrvane::Utils::ToString;

constexpr std::size_t kMostBytes = std::size_t{256} << 10;  // as the client library takes them
/// Collecting comments takes time that grows with the square of the length.
constexpr std::size_t kShort = 4096;
/// Some ten times what the costliest text takes, for the sanitizers.
constexpr double kSecondsPerByte = 4e-6;
constexpr double kSecondsForAll = 0.05;

std::string Repeated(const std::vector<std::string>& records) {
  std::string text;
  for (const std::string& record : records) {
    const bool repeats = record.size() > 1 && record.front() == '*';
    const std::size_t most = kMostBytes / 2 / records.size();
    for (std::size_t bytes = 0; repeats && bytes < most; bytes += record.size() - 1) text.append(record, 1);
    if (!repeats) text += record;
  }
  return text.substr(0, kMostBytes);
}

void CheckThatCommentsDontMatter(const std::string& text, bool parsed, const Json::Value& value) {
  Json::Value collected;
  Require(FromString(text, collected, Comments::kCollect) == parsed, "the same texts are accepted");
  Require(!parsed || collected == value, "as the same values");
  Require(!parsed || ToString(collected) == ToString(value), "which are written the same");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Repeated(fuzz::Records(fuzz::AsText(data, size)));
  Json::Value value;
  const double begin = fuzz::CpuSeconds();
  const bool parsed = FromString(text, value);
  Require(fuzz::CpuSeconds() - begin < kSecondsForAll + kSecondsPerByte * static_cast<double>(text.size()),
          "the time that a text takes grows with its length and no faster");
  if (text.size() <= kShort) CheckThatCommentsDontMatter(text, parsed, value);
  return 0;
}
