/// support_archive_reader: tells the support service what is in an archive. The service starts it for each look
/// (reader_end.h). Standard input is the archive, standard output a pipe.
#include <string>
#include <vector>

#include "commands.h"
#include "sandbox.h"

using namespace TarvoOrvane::ArchiveReader;

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  PrepareLibraries();
  if (!EnterSandbox()) return static_cast<int>(ReaderEnd::kNoSandbox);
  return static_cast<int>(DoCommand(arguments, 0, 1, ReadLimits{}));
}
