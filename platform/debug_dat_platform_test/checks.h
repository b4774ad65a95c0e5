/// All checks of a platform, in the order of the report. They use the platform and the folder that are given
/// here, which have to outlive them.
#pragma once

#include <string>
#include <vector>

#include "check.h"
#include "platform.h"
#include "scratch_folder.h"

namespace DebugDatPlatformTest {

/// That the library's file can be loaded. The only one that runs before Platform::Load().
[[nodiscard]] Check LoadCheck(Platform& platform, Library library);

/// Whether the files fit: names, symbols, what they bring along. For the libraries that are loaded.
[[nodiscard]] std::vector<Check> FileChecks(const Platform& platform);

/// What core.h promises.
[[nodiscard]] std::vector<Check> CoreChecks(const Platform& platform, const ScratchFolder& scratch);

/// What support_service_client.h promises of the logger.
[[nodiscard]] std::vector<Check> LoggerChecks(const Platform& platform);

/// What it promises of the curl helpers.
[[nodiscard]] std::vector<Check> HttpChecks(const Platform& platform, const ScratchFolder& scratch);

/// What it promises of the serial number and of the ticket client.
/// @param ticket_from  The address of a notification server that has a ticket; empty for none.
[[nodiscard]] std::vector<Check> TicketChecks(const Platform& platform, const std::string& ticket_from);

/// What web_api_runner.h promises, and the web API behind it.
/// @param room_fault  Why a collection would change this machine; empty when it would not.
[[nodiscard]] std::vector<Check> RunnerChecks(const Platform& platform, const std::string& room_fault);

}  // namespace DebugDatPlatformTest
