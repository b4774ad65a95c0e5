/// The redaction pattern file, and what its patterns find. The input: the file's text and a record with the text to
/// redact, see Unpacked().
#include "fuzz_support.h"
#include "pieces.h"
#include "redaction_rules.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const test_support::TemporaryFolder folder;
  const std::string_view input = fuzz::AsText(data, size);
  const std::size_t end = std::min(input.find('\x1e'), input.size());
  const std::string path = folder.Write("patterns", input.substr(0, end));
  try {
    const TARVO::SupportForm::RedactionRules rules(path);
    fuzz::CheckRedaction(rules, fuzz::Unpacked(input.substr(std::min(end + 1, input.size()))));
  } catch (const TARVO::SupportForm::RedactionError& error) {
    fuzz::Require(std::string(error.what()).rfind(path, 0) == 0, "a refusal names the file");
  }
  return 0;
}
