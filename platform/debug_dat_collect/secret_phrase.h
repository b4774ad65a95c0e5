/// Values that stand behind a name without a sign between: of options, elements, pairs, calls, statements, sentences.
#pragma once

#include <optional>
#include <vector>

#include "secret.h"
#include "secret_name.h"

namespace TARVO::SupportForm {

/// How much the name's word itself tells.
enum class Telling {
  kPassword,  ///< "password" and its likes: hardly anything else stands behind it.
  kOther,     ///< "token", "secret", "key": words of many sentences.
};

/// Finds what stands behind the name. SecretFinder asks where no separator makes what follows the name's value.
/// @param found  Gets the secrets, if any; a call or a pair may hold two.
void FindPhrase(const Name& name, Telling telling, std::vector<Secret>& found);

/// The value of the object that is the name's value: {"db_password": {"value": "abc"}}.
std::optional<Secret> FindInnerValue(const Name& name, const Separator& separator);

}  // namespace TARVO::SupportForm
