#include <algorithm>

#include "checks.h"

namespace DebugDatPlatformTest {
namespace {

/// Such as "tarvocore".
std::string ShortNameOf(Library library) {
  const std::string name = FileNameOf(library);
  return name.substr(3, name.rfind('.') - 3);
}

Check SonameCheck(const Platform& platform, Library library) {
  const std::string name = FileNameOf(library);
  return {ShortNameOf(library) + "-soname",
          "its SONAME is its file name",
          "Link it with -Wl,-soname," + name,
          {},
          [&platform, library, name] {
            const std::string soname = platform.SonameOf(library);
            Expect(soname == name, name + (soname.empty() ? " has no SONAME" : " has the SONAME " + soname));
          }};
}

Check SymbolsCheck(const Platform& platform, Library library) {
  const std::string name = FileNameOf(library);
  return {ShortNameOf(library) + "-symbols",
          "it exports all that the daemon calls",
          std::string("Define each as in ") + HeaderOf(library) +
              " with that header included, with the compiler's ordinary std::string, and let none be hidden",
          {},
          [&platform, library, name] {
            std::string missing;
            for (const Symbol symbol : SymbolsOf(library)) {
              if (!platform.Has(symbol)) missing += std::string(missing.empty() ? "" : ", ") + NameOf(symbol);
            }
            Expect(missing.empty(), name + " lacks " + missing);
          }};
}

/// Objects of these libraries cross the border: two of them in one process take each other's for theirs.
void ExpectOneOfEach() {
  for (const char* name : {"libjsoncpp.so", "libcurl", "libstdc++.so"}) {
    const std::vector<std::string> files = LoadedFiles(name);
    if (files.size() < 2) continue;
    throw Fault(files[0] + " and " + files[1] + " are both loaded");
  }
}

}  // namespace

Check LoadCheck(Platform& platform, Library library) {
  const std::string name = FileNameOf(library);
  return {ShortNameOf(library) + "-load",
          "it can be loaded",
          "Its folder has to hold the file " + name +
              ", built for this machine, and it has to name every library that it calls",
          {},
          [&platform, library] {
            try {
              platform.Load(library);
            } catch (const std::runtime_error& error) {
              throw Fault(error.what());
            }
          }};
}

std::vector<Check> FileChecks(const Platform& platform) {
  std::vector<Check> checks;
  for (const Library library : kLibraries) {
    if (!platform.IsLoaded(library)) continue;
    checks.push_back(SonameCheck(platform, library));
    checks.push_back(SymbolsCheck(platform, library));
  }
  checks.push_back({"one-of-each",
                    "the daemon's libraries are loaded once each",
                    "Link with the very versions that the daemon is linked with",
                    {},
                    &ExpectOneOfEach});
  return checks;
}

}  // namespace DebugDatPlatformTest
