/// What the fuzz targets share. A target promises that no input makes it crash, hang or break one of its own
/// requirements; an exception that leaves it is a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "temporary_folder.h"

/// A target: takes any bytes. Called any number of times in one process.
/// @return 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process, which counts as a finding, unless `holds`.
/// @param promise  What is broken then.
void Require(bool holds, const char* promise);

[[nodiscard]] std::string_view AsText(const std::uint8_t* data, std::size_t size);

/// The parts of an input that stand for events after each other. The byte 0x1E, which no format here uses, stands
/// between them.
[[nodiscard]] std::vector<std::string> Records(std::string_view input);

[[nodiscard]] bool IsPrintableAscii(std::string_view text);

}  // namespace fuzz
