/// A set of words that are looked up in any case, without copying them: the lists of the search for secrets, which asks
/// for several of them at every hit. The lists all over the search have the same shape because they are lists; there is
/// nothing in them to share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "byte_class.h"
#include "look_cost.h"

namespace TARVO::SupportForm {

/// Made once, as a local static; read by any number of threads then.
/// @tparam slots  A power of two, at least four times as many as the words: most look-ups end at the first slot then.
template <std::size_t slots>
class WordSet {
 public:
  /// @param words  In lower case, none empty; the texts they lie in outlive the set, as literals do.
  WordSet(std::initializer_list<std::string_view> words) {
    for (const std::string_view word : words) {
      words_[Find(word)] = word;
      looks_[LookOf(word)] = true;
    }
  }

  /// Whether the word, in any case of ASCII letters, is one of them; an empty one never is.
  [[nodiscard]] bool Has(std::string_view word) const {
    look_cost += 4;
    if (word.empty() || !looks_[LookOf(word)]) return false;
    look_cost += 10 + word.size();
    return !words_[Find(word)].empty();
  }

 private:
  /// Tells most words apart by their ends and their length, before all of their bytes are looked at.
  static std::size_t LookOf(std::string_view word) {
    const auto first = static_cast<unsigned char>(ToLower(word.front()));
    const auto last = static_cast<unsigned char>(ToLower(word.back()));
    return (first * 37U + last * 5U + word.size()) % (2 * slots);
  }

  /// Where the word is, or would be.
  [[nodiscard]] std::size_t Find(std::string_view word) const {
    std::uint32_t hash = 2166136261U;
    for (const char byte : word) hash = (hash ^ static_cast<unsigned char>(ToLower(byte))) * 16777619U;
    std::size_t slot = (hash ^ (hash >> 15)) % slots;
    while (!words_[slot].empty() && !IsSame(words_[slot], word)) slot = (slot + 1) % slots;
    return slot;
  }

  /// As IsSameWord(), without its cost: Has() has counted it.
  static bool IsSame(std::string_view lower, std::string_view word) {
    if (lower.size() != word.size()) return false;
    for (std::size_t at = 0; at < lower.size(); ++at) {
      if (lower[at] != ToLower(word[at])) return false;
    }
    return true;
  }

  /// Each in the first slot from its hash on that was free; the others are empty.
  std::array<std::string_view, slots> words_;
  std::array<bool, 2 * slots> looks_ = {};  ///< Which LookOf() the words have.
};

}  // namespace TARVO::SupportForm
