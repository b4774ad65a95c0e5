/// Secrets in command lines, as shells' histories, process lists and logs have them: "mysql -psecret",
/// "curl -u user:secret", "echo secret | kinit".
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "secret.h"

namespace TARVO::SupportForm {

constexpr std::size_t kCommandReach = 2048;  ///< Bytes of a line that are looked at behind a command's name.

/// Words that begin the names of the commands that are known.
const std::vector<std::string_view>& CommandWords();

/// Finds the secrets among the arguments of the commands in the rest of the line, those behind pipes too.
/// @param word  Offset of one of CommandWords().
/// @return Offset up to which the line was looked at: commands before it need no look of their own.
std::size_t FindCommandSecrets(std::string_view text, std::size_t word, std::vector<Secret>& found);

}  // namespace TARVO::SupportForm
