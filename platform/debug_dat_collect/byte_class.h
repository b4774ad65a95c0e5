/// Kinds of bytes in logs and configuration files, as a table: a look-up per byte, the same in every locale. What the
/// search for secrets means by a word, a name or a URL is written down here; a new kind is a bit and a line in
/// MakeByteClasses(). Text may be in any character set: bytes beyond ASCII are one kind.
#pragma once

#include <array>
#include <string_view>

namespace TARVO::SupportForm {

/// Sets of bytes; they overlap. The first are bits of the table, the last ones unions of them, to be given to Is().
enum ByteClass : unsigned {
  kBlank = 1U << 0,         ///< Space and tab.
  kLineEnd = 1U << 1,       ///< "\n" and "\r".
  kQuote = 1U << 2,         ///< '"' and "'".
  kUpper = 1U << 3,         ///< A-Z.
  kLower = 1U << 4,         ///< a-z.
  kDigit = 1U << 5,         ///< 0-9.
  kDash = 1U << 6,          ///< '_' and '-'.
  kDot = 1U << 7,           ///< '.'.
  kEncoding = 1U << 8,      ///< "~+/=%": with those above, what base64, percent and other encodings use.
  kPunctuation = 1U << 9,   ///< What may stand directly behind a word of a sentence, brackets and quotes too.
  kListEnd = 1U << 10,      ///< ',', ']' and '}'.
  kUrlUserByte = 1U << 11,  ///< What the user's name in a URL may be written with; '@' too.
  kUrlByte = 1U << 12,      ///< What a URL may be written with, carelessly.
  kHashSign = 1U << 13,     ///< "./$=,+-".
  kBase64Sign = 1U << 14,   ///< '+' and '/'.
  kHigh = 1U << 15,         ///< Beyond ASCII: of a letter in UTF-8, or of another character set.
  kColon = 1U << 16,        ///< ':'.
  kSpelled = 1U << 17,  ///< Punctuation in another spelling begins with it: '\\', '%', '&', or 0xEF of UTF-8.
  // From here on unions: no bits of their own.
  kLowerDigit = kLower | kDigit,  ///< As of hexadecimal and base36 in lower case.
  kUpperDigit = kUpper | kDigit,  ///< As of base32.
  // What names, identifiers and values of the usual encodings are written with.
  kAlnum = kUpper | kLower | kDigit,     ///< Of ASCII only.
  kIdentifierByte = kAlnum | kDash,      ///< Of variables and options: "db_password", "api-key".
  kNameByte = kIdentifierByte | kDot,    ///< Of members behind each other, too: "spring.datasource.password".
  kEncodedByte = kNameByte | kEncoding,  ///< Of base64 in both alphabets, percent codes and JSON web tokens.
  kHashByte = kAlnum | kHashSign,        ///< Of crypt(3) and its kin: "$6$rounds=5000$salt$hash".
  kBase64Byte = kAlnum | kBase64Sign,    ///< Of base64 in its usual alphabet, without the padding.
};

/// The classes of each byte, as bits; evaluated by the compiler only.
constexpr std::array<unsigned, 256> MakeByteClasses() {
  constexpr std::string_view kNoUrl = " \t\r\n\"'<>\\";
  std::array<unsigned, 256> table = {};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    const char c = static_cast<char>(byte);
    const auto in = [c](std::string_view bytes, unsigned classes) {
      return bytes.find(c) == std::string_view::npos ? 0U : classes;
    };
    unsigned classes = in(" \t", kBlank) | in("\r\n", kLineEnd) | in("\"'", kQuote) | in("_-", kDash) |
                       in(".", kDot) | in("~+/=%", kEncoding) | in(",;.)]}\"'!?:<>\\", kPunctuation) |
                       in(",]}", kListEnd) | in("./$=,+-", kHashSign) | in("+/", kBase64Sign) |
                       in("\\%&\xef", kSpelled);
    if (c >= 'A' && c <= 'Z') classes |= kUpper;
    if (c >= 'a' && c <= 'z') classes |= kLower;
    if (c >= '0' && c <= '9') classes |= kDigit;
    if (c == ':') classes |= kColon;
    if (byte >= 0x80) classes |= kHigh;
    if (in(kNoUrl, 1U) == 0) classes |= kUrlByte | (in(":/?#", 1U) == 0 ? kUrlUserByte : 0U);
    table[byte] = classes;
  }
  return table;
}

/// By the byte's value, 0 to 255. Read through Is() alone, which makes no sign of a char an offset.
inline constexpr std::array<unsigned, 256> kByteClasses = MakeByteClasses();

/// Whether the byte is of at least one of the classes.
/// @param classes  Of ByteClass, joined by '|'.
constexpr bool Is(char byte, unsigned classes) {
  return (kByteClasses[static_cast<unsigned char>(byte)] & classes) != 0;
}

/// The letter in lower case, of ASCII only: other bytes stay, whatever the locale.
constexpr char ToLower(char byte) { return Is(byte, kUpper) ? static_cast<char>(byte + ('a' - 'A')) : byte; }

}  // namespace TARVO::SupportForm
