/// The service's command line and configuration file. Parsing prints nothing and ends nothing: main does.
#pragma once

#include <string>

#include "service.h"

namespace TarvoOrvane::SupportService {

/// What to do with a command line: either run with the settings, or print a text and exit.
struct ParsedOptions {
  ServiceSettings settings;  ///< The defaults where neither the line nor the file says something else.
  bool run = false;
  /// Where this is set, the backup is to be restored to the data folder instead.
  std::filesystem::path restore;
  /// 0 after --help, --version and a good --check-config, 2 for wrong options; where not run.
  int exit_status = 0;
  std::string text;  ///< The help or the error; ends with a newline.
};

/// Reads the command line and the file that it names. Addresses were checked, and their hosts were looked up for that.
ParsedOptions ParseOptions(int argc, const char* const* argv);

}  // namespace TarvoOrvane::SupportService
