/// Secrets that stand at a fixed place behind a fixed beginning, with no name of their own: arguments of commands of
/// modems and mail servers, of calls and directives, fields of entries, members of keys.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "secret.h"

namespace TARVO::SupportForm {

/// The fixed beginnings; each is known by its place here.
struct PlaceWord {
  std::string_view text;  ///< Lasts as long as the program.
  bool any_case = false;  ///< Upper and lower case letters are the same.
};
/// All of them, the same at each call; SecretFinder makes them fixed words of its own.
[[nodiscard]] const std::vector<PlaceWord>& PlaceWords();

/// Finds what stands behind the beginning.
/// @param place  Its number in PlaceWords().
/// @param begin  Offset of the beginning.
/// @param hit    Offset behind it.
/// @param found  Gets what is found; most beginnings betray one secret, lists of codes several.
void FindAtPlace(std::size_t place, std::string_view text, std::size_t begin, std::size_t hit,
                 std::vector<Secret>& found);

/// The beginnings of keys of services, and how the keys go on: a new service's key is a line in this list.
struct KeyPrefix {
  std::string_view text;  ///< In its own case; lasts as long as the program.
  SecretForm form;        ///< What the key is written with behind it.
  std::size_t least;      ///< Bytes of the shortest key behind the beginning.
};
/// All of them, the same at each call.
[[nodiscard]] const std::vector<KeyPrefix>& KeyPrefixes();

}  // namespace TARVO::SupportForm
