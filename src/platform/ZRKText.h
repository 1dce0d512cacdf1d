// Byte-level text helpers shared by the URL, header and query code.
#ifndef ZRK_PLATFORM_ZRKTEXT_H
#define ZRK_PLATFORM_ZRKTEXT_H

#include <algorithm>
#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"

namespace zrk::detail {

inline char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// ASCII case-insensitive equality, as header names and hosts compare.
inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

// Appends the bytes to out, each byte that keep() refuses as "%XX".
template <typename Keep>
void appendPercentEncoded(std::string& out, std::string_view bytes, Keep keep) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : bytes) {
    if (keep(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
}

// Each complete "%XX" escape as its byte; anything else as it stands.
inline std::string percentDecoded(std::string_view text) {
  const auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The shortest decimal text that reads back as the same JSON number ("1"
// for 1.0, "0.1", "1e+20").
std::string shortestDecimal(const ZRKJson& number);

// True when the bytes are well-formed UTF-8 (no overlongs, surrogates or
// code points past U+10FFFF), the only text a JSON value can carry.
bool isValidUTF8(std::string_view bytes);

// The length of the well-formed UTF-8 sequence that starts text, or 0.
std::size_t utf8SequenceLength(std::string_view text);

// Appends a code point (at most U+10FFFF) as UTF-8.
void appendUTF8(std::string& out, char32_t cp);

// Each whitespace-separated word with its first letter upper case and the
// rest lower case. Case is mapped for Latin (ASCII, Latin-1, Latin
// Extended-A), Greek and Cyrillic letters; other characters, and bytes that
// are not UTF-8, pass unchanged.
std::string capitalized(std::string_view text);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKTEXT_H
