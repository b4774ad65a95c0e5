/// The redactor with the built-in rules. The input: a text, see Unpacked().
#include "fuzz_support.h"
#include "pieces.h"
#include "redactor.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const TARVO::SupportForm::RedactionRules rules("/nonexistent/patterns");
  const std::string text = fuzz::Unpacked(fuzz::AsText(data, size));
  static_cast<void>(TARVO::SupportForm::LooksLikeText(std::string_view(text).substr(0, 8192)));
  fuzz::CheckRedaction(rules, text);
  return 0;
}
