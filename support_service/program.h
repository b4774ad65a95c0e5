/// What the main functions of the two programs have in common.
#pragma once

#include <exception>
#include <iostream>

#include "options.h"

namespace TarvoOrvane::SupportService {

/// Reads the command line and does what it says.
/// @param name   The program's, before the text of an exception.
/// @param parse  ParseServiceOptions() or ParseTicketOptions().
/// @param run    Does the program's work with the options. Its result becomes the exit status.
/// @return The exit status: 1 after an exception, whose text then went to standard error.
template <typename Options, typename Work>
int RunProgram(const char* name, Parsed<Options> (*parse)(int, const char* const*), int argc, char** argv,
               const Work& run) {
  try {
    const Parsed<Options> parsed = parse(argc, argv);
    if (parsed.run) return run(parsed.options);
    (parsed.exit_status == 0 ? std::cout : std::cerr) << parsed.text;
    return parsed.exit_status;
  } catch (const std::exception& error) {
    std::cerr << name << ": " << error.what() << "\n";
    return 1;
  }
}

}  // namespace TarvoOrvane::SupportService
