#include <hs.h>

#include <exception>
#include <new>
#include <utility>

#include "scanner.h"

namespace TARVO::SupportForm {

struct WordScanner::Memory {
  explicit Memory(hs_scratch_t* made) : scratch(made) {}
  ~Memory() { hs_free_scratch(scratch); }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  hs_scratch_t* const scratch;
};

/// Read by all threads.
struct WordScanner::Compiled {
  explicit Compiled(hs_database_t* made) : database(made) {
    if (hs_alloc_scratch(database, &scratch) == HS_SUCCESS) return;
    hs_free_database(database);
    throw std::bad_alloc();
  }
  ~Compiled() {
    hs_free_scratch(scratch);
    hs_free_database(database);
  }
  Compiled(const Compiled&) = delete;
  Compiled& operator=(const Compiled&) = delete;

  hs_database_t* const database;
  hs_scratch_t* scratch = nullptr;  ///< Only cloned, for each file: one made anew costs (`./bench 8`).
};

namespace {

/// The error that Vectorscan's compiler has made, which is freed.
ScannerError TakeError(hs_compile_error_t* error) {
  ScannerError taken(error->message);
  hs_free_compile_error(error);
  return taken;
}

}  // namespace

void WordScanner::MemoryDeleter::operator()(Memory* memory) const { delete memory; }

WordScanner::WordScanner(const std::vector<ScannedWord>& words) {
  if (hs_valid_platform() != HS_SUCCESS) {
    throw ScannerError("this processor lacks what the pattern matcher needs (SSE4.2 on x86)");
  }
  std::vector<const char*> texts;
  std::vector<std::size_t> lengths;
  std::vector<unsigned> flags;
  std::vector<unsigned> numbers;
  for (const ScannedWord& word : words) {
    numbers.push_back(static_cast<unsigned>(texts.size()));
    texts.push_back(word.text.data());
    lengths.push_back(word.text.size());
    flags.push_back(word.any_case ? HS_FLAG_CASELESS : 0);
  }
  hs_database_t* database = nullptr;
  hs_compile_error_t* error = nullptr;
  if (hs_compile_lit_multi(texts.data(), flags.data(), numbers.data(), lengths.data(),
                           static_cast<unsigned>(texts.size()), HS_MODE_BLOCK, nullptr, &database,
                           &error) != HS_SUCCESS) {
    throw TakeError(error);
  }
  compiled_ = std::make_unique<Compiled>(database);
}

WordScanner::~WordScanner() = default;

WordMemory WordScanner::NewMemory() const {
  hs_scratch_t* scratch = nullptr;
  if (hs_clone_scratch(compiled_->scratch, &scratch) != HS_SUCCESS) throw std::bad_alloc();
  return WordMemory(new Memory(scratch));
}

void WordScanner::Scan(std::string_view text, Memory& memory, const OnHit& on_hit) const {
  struct Context {
    const OnHit& on_hit;
    std::exception_ptr error;  // Nothing may be thrown through Vectorscan.
  } context = {on_hit, nullptr};
  const auto take = [](unsigned number, unsigned long long /*from*/, unsigned long long to,
                       unsigned /*flags*/, void* data) noexcept {
    auto& scan = *static_cast<Context*>(data);
    try {
      return scan.on_hit(number, static_cast<std::size_t>(to)) ? 0 : 1;
    } catch (...) {
      scan.error = std::current_exception();
      return 1;
    }
  };
  const hs_error_t result = hs_scan(compiled_->database, text.data(), static_cast<unsigned>(text.size()), 0,
                                    memory.scratch, take, &context);
  if (context.error) std::rethrow_exception(context.error);
  if (result != HS_SUCCESS && result != HS_SCAN_TERMINATED) {
    throw ScannerError("error " + std::to_string(result));
  }
}

}  // namespace TARVO::SupportForm
