#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_st;
struct evp_md_ctx_st;

namespace TARVO::SupportForm {

/// Digits of a digest in hexadecimal: two for each of its 32 bytes.
constexpr std::size_t kSumDigits = 64;

/// SHA-256 of one text after another. Made once for many: looking the algorithm up costs more than a small text. Used
/// in one thread at a time; for the digests of entries that is the compressor's.
class Sha256 {
 public:
  /// @throws std::runtime_error when the system's cryptographic library does not provide it; so do the others.
  Sha256();

  /// Takes the next bytes of the text, which may come in parts of any size and are not kept.
  void Add(std::string_view bytes);
  /// Ends the text; the next one begins.
  /// @return Its digest: kSumDigits lower-case hex digits.
  std::string Finish();

 private:
  /// Looked up once; many contexts could share it.
  std::unique_ptr<evp_md_st, void (*)(evp_md_st*)> algorithm_;
  /// The text so far; ready for the next text after Finish().
  std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

}  // namespace TARVO::SupportForm
