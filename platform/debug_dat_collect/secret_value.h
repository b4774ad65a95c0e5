/// What stands where a secret would: whether it is one, and how far it goes.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "secret.h"
#include "secret_name.h"

namespace TARVO::SupportForm {

/// The value behind a name and its separator; nothing where it is no secret: empty, a placeholder, a reference, an
/// outcome.
std::optional<Secret> FindValue(const Name& name, const Separator& separator);

/// The value in quotes that begins at `at`, with what languages write before a quote; nothing where none does, or where
/// it is empty or a placeholder.
std::optional<Secret> FindQuoted(std::string_view text, std::size_t at);

/// Whether the value at `at` is in quotes, with what languages write before them: "x", b"x", @"x".
bool IsQuotedAt(std::string_view text, std::size_t at);

/// The item of a list of strings, or the value of another member: in quotes, or up to a blank.
std::optional<Secret> FindItem(std::string_view text, std::size_t at);

/// Whether the value is a number: "tokens: 512", "password: 12 bytes".
/// @param in_list  It is one of a JSON list or object: ',' and brackets end it, and no other punctuation.
bool IsNumber(std::string_view text, std::size_t at, bool in_list);

/// Whether what begins there stands for a value: "${DB_PASSWORD}", "<password>", "%s", "********".
bool IsPlaceholder(std::string_view text, std::size_t at);

/// Whether the word tells only what became of a secret: "expired".
bool IsOutcome(std::string_view word);

/// Whether the word, without the punctuation around it, is one of sentences about secrets: "the", "of", "your".
bool IsProse(std::string_view word);

/// Whether a word of a sentence is hardly one of a language: letters with digits or signs, no name, time or address.
bool LooksLikePassword(std::string_view word);

/// Whether it looks like a key: long, letters and digits mixed, no UUID, no name of parts.
bool LooksLikeKey(std::string_view word);

/// Offset behind a key that is written as bytes: 32 hexadecimal digits and more, joined or parted by one of " :-", or 8
/// numbers and more parted by commas; npos where none begins. Brackets around the bytes do not belong to it.
std::size_t BehindHexKey(std::string_view text, std::size_t at);

/// Whether it is the number of a version: "v0.5.0".
bool IsVersionNumber(std::string_view word);

/// Offset of the quote that closes what begins at `at`; npos where none does within `most` bytes of the line.
std::size_t ClosingQuote(std::string_view text, std::size_t at, char quote, std::size_t most);

}  // namespace TARVO::SupportForm
