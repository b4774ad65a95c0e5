/// Archives as debug.dat is one, also such as no honest program makes.
#pragma once

#include <zstd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test_support {

/// What a tar header says of an entry.
struct TarEntry {
  std::string name;
  std::string content = {};
  char type = '0';  ///< As tar has it: '1' hard link, '2' symbolic link, '3' device, '5' folder.
  std::string target = {};
  std::uint64_t modified = 1'700'000'000;
};

constexpr std::size_t kTarBlock = 512;

inline std::string Padded(std::string text) {
  text.resize((text.size() + kTarBlock - 1) / kTarBlock * kTarBlock, '\0');
  return text;
}

/// A header as GNU tar makes it.
/// @param size  Of the content that follows, or that shall seem to.
inline std::string TarHeader(const TarEntry& entry, std::uint64_t size) {
  std::string block(kTarBlock, '\0');
  const auto put = [&block](std::size_t at, const std::string& text) {
    block.replace(at, text.size(), text);
  };
  const auto octal = [](std::uint64_t number, int digits) {
    std::array<char, 32> text{};
    static_cast<void>(
        std::snprintf(text.data(), text.size(), "%0*llo", digits, static_cast<unsigned long long>(number)));
    return std::string(text.data());
  };
  put(0, entry.name.substr(0, 100));
  put(100, octal(0600, 7));
  put(108, octal(0, 7));
  put(116, octal(0, 7));
  put(124, octal(size, 11));
  put(136, octal(entry.modified, 11));
  put(148, std::string(8, ' '));
  block[156] = entry.type;
  put(157, entry.target.substr(0, 100));
  put(257, "ustar  ");
  unsigned sum = 0;
  for (const char byte : block) sum += static_cast<unsigned char>(byte);
  put(148, octal(sum, 6) + std::string("\0 ", 2));
  return block;
}

/// A long name or target goes before it, as GNU tar does it.
inline std::string TarOf(const TarEntry& entry) {
  constexpr std::size_t kShort = 100;
  std::string tar;
  const auto put_long = [&tar](char type, const std::string& text) {
    if (text.size() <= kShort) return;
    tar += TarHeader({"././@LongLink", "", type, "", 0}, text.size() + 1) + Padded(text + '\0');
  };
  put_long('L', entry.name);
  put_long('K', entry.target);
  return tar + TarHeader(entry, entry.content.size()) + Padded(entry.content);
}

/// A record of a pax header, whose length counts itself.
inline std::string PaxRecord(const std::string& key, const std::string& value) {
  const std::string rest = " " + key + "=" + value + "\n";
  std::size_t size = rest.size();
  while (std::to_string(size).size() + rest.size() != size) size = std::to_string(size).size() + rest.size();
  return std::to_string(size) + rest;
}

/// A pax header, which stands before the header that it is about.
inline std::string PaxHeader(const std::string& records) {
  return TarHeader({"pax", "", 'x'}, records.size()) + Padded(records);
}

/// What ends an archive.
inline std::string TarEnd() { return std::string(2 * kTarBlock, '\0'); }

template <typename Entries>
std::string Tar(const Entries& entries) {
  std::string tar;
  for (const TarEntry& entry : entries) tar += TarOf(entry);
  return tar + TarEnd();
}

/// One frame, with a checksum as the collector writes it.
inline std::string Zstd(std::string_view bytes, int level = 1) {
  ZSTD_CCtx* context = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, level);
  ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
  std::string packed(ZSTD_compressBound(bytes.size()), '\0');
  const std::size_t size = ZSTD_compress2(context, packed.data(), packed.size(), bytes.data(), bytes.size());
  ZSTD_freeCCtx(context);
  if (ZSTD_isError(size) != 0) throw std::runtime_error("can't compress");
  packed.resize(size);
  return packed;
}

template <typename Entries>
std::string MadeArchive(const Entries& entries) {
  return Zstd(Tar(entries));
}

}  // namespace test_support
