/// A maker's three platform libraries, loaded into this process, and what the daemon calls in them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace DebugDatPlatformTest {

/// The libraries, in the order in which the daemon loads them.
enum class Library { kClient, kCore, kRunner };

inline constexpr std::array<Library, 3> kLibraries = {Library::kClient, Library::kCore, Library::kRunner};

[[nodiscard]] const char* FileNameOf(Library library);

/// The header in which the library's interface is declared.
[[nodiscard]] const char* HeaderOf(Library library);

/// What the daemon takes from the libraries.
enum class Symbol {
  kConstructor,
  kDestructor,
  kReceive,
  kSend,
  kInstance,
  kReconfigure,
  kSetupWriteToString,
  kPerform,
  kSlistAppend,
  kHttpPostAdd,
  kGetSerialNumber,
  kPidFileCreate,
  kFork,
  kForkEx,
  kFileExist,
  kExec,
};

/// The symbols of a library, all that it has to export.
[[nodiscard]] std::vector<Symbol> SymbolsOf(Library library);

/// The name in the header.
[[nodiscard]] const char* NameOf(Symbol symbol);

class Platform {
 public:
  /// @param folder  Where the three libraries lie, an absolute path.
  explicit Platform(std::string folder) : folder_(std::move(folder)) {}

  [[nodiscard]] std::string PathOf(Library library) const;

  /// Loads the library for good, as the loader does at the daemon's start: with all its symbols, for all to see.
  /// @throws std::runtime_error with the loader's words.
  void Load(Library library);
  [[nodiscard]] bool IsLoaded(Library library) const;

  /// The SONAME of a loaded library; empty when it has none.
  [[nodiscard]] std::string SonameOf(Library library) const;

  /// Whether the library is loaded and exports the symbol.
  [[nodiscard]] bool Has(Symbol symbol) const { return Find(symbol) != nullptr; }

  /// The function or the object; only where Has() says so.
  template <typename Pointer>
  [[nodiscard]] Pointer Get(Symbol symbol) const {
    void* const found = Find(symbol);
    if (found == nullptr) std::abort();
    return reinterpret_cast<Pointer>(found);
  }

 private:
  [[nodiscard]] void* Find(Symbol symbol) const;

  std::string folder_;
  std::array<void*, kLibraries.size()> handles_ = {};  ///< Null while not loaded.
};

/// The files in this process's memory whose names begin so, such as "libjsoncpp.so".
[[nodiscard]] std::vector<std::string> LoadedFiles(const std::string& begin_of_name);

}  // namespace DebugDatPlatformTest
