#include "platform/ZRKText.h"

#include <charconv>
#include <cstdint>

namespace zrk::detail {
namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one code point at text[i], advancing i; kInvalid (advancing one
// byte) where the bytes are no well-formed UTF-8.
char32_t decode(std::string_view text, std::size_t& i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) {
    ++i;
    return lead;
  }
  std::size_t length;
  char32_t cp;
  char32_t minimum;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, cp = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, cp = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, cp = lead & 0x07, minimum = 0x10000;
  } else {
    ++i;
    return kInvalid;
  }
  if (text.size() - i < length) {
    ++i;
    return kInvalid;
  }
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned char next = byte(i + k);
    if ((next & 0xC0) != 0x80) {
      ++i;
      return kInvalid;
    }
    cp = (cp << 6) | (next & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return kInvalid;
  }
  i += length;
  return cp;
}

// Latin Extended-A pairs an upper-case letter with the next code point, on
// even positions in some stretches and odd ones in others.
bool upperIsEvenInExtendedA(char32_t cp) { return cp <= 0x137 || (cp >= 0x14A && cp <= 0x177); }
bool inPairedExtendedA(char32_t cp) {
  return (cp >= 0x100 && cp <= 0x12F) || (cp >= 0x132 && cp <= 0x137) || (cp >= 0x139 && cp <= 0x148) ||
         (cp >= 0x14A && cp <= 0x177) || (cp >= 0x179 && cp <= 0x17E);
}

char32_t toUpper(char32_t cp) {
  if (cp >= 'a' && cp <= 'z') return cp - 32;
  if (cp < 0x80) return cp;
  if (cp >= 0xE0 && cp <= 0xFE && cp != 0xF7) return cp - 32;
  if (cp == 0xFF) return 0x178;
  if (inPairedExtendedA(cp)) {
    const bool isUpper = ((cp % 2) == 0) == upperIsEvenInExtendedA(cp);
    return isUpper ? cp : cp - 1;
  }
  if (cp == 0x131) return 'I';
  if (cp == 0x17F) return 'S';
  if (cp >= 0x3B1 && cp <= 0x3C9) return cp == 0x3C2 ? 0x3A3 : cp - 32;
  if (cp == 0x3AC) return 0x386;
  if (cp >= 0x3AD && cp <= 0x3AF) return cp - 37;
  if (cp == 0x3CC) return 0x38C;
  if (cp == 0x3CD || cp == 0x3CE) return cp - 63;
  if (cp >= 0x430 && cp <= 0x44F) return cp - 32;
  if (cp >= 0x450 && cp <= 0x45F) return cp - 80;
  return cp;
}

char32_t toLower(char32_t cp) {
  if (cp >= 'A' && cp <= 'Z') return cp + 32;
  if (cp < 0x80) return cp;
  if (cp >= 0xC0 && cp <= 0xDE && cp != 0xD7) return cp + 32;
  if (cp == 0x178) return 0xFF;
  if (inPairedExtendedA(cp)) {
    const bool isUpper = ((cp % 2) == 0) == upperIsEvenInExtendedA(cp);
    return isUpper ? cp + 1 : cp;
  }
  if (cp == 0x130) return 'i';
  if (cp >= 0x391 && cp <= 0x3A9 && cp != 0x3A2) return cp + 32;
  if (cp == 0x386) return 0x3AC;
  if (cp >= 0x388 && cp <= 0x38A) return cp + 37;
  if (cp == 0x38C) return 0x3CC;
  if (cp == 0x38E || cp == 0x38F) return cp + 63;
  if (cp >= 0x410 && cp <= 0x42F) return cp + 32;
  if (cp >= 0x400 && cp <= 0x40F) return cp + 80;
  return cp;
}

bool isWhitespace(char32_t cp) {
  return cp == ' ' || (cp >= 0x09 && cp <= 0x0D) || cp == 0x85 || cp == 0xA0 || cp == 0x2028 || cp == 0x2029;
}

}  // namespace

std::string shortestDecimal(const ZRKJson& number) {
  if (number.is_number_unsigned()) return std::to_string(number.get<std::uint64_t>());
  if (number.is_number_integer()) return std::to_string(number.get<std::int64_t>());
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number.get<double>());
  return std::string(buffer, result.ptr);
}

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  std::size_t i = 0;
  return decode(text, i) == kInvalid ? 0 : i;
}

bool isValidUTF8(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    if (decode(bytes, i) == kInvalid) return false;
  }
  return true;
}

std::string capitalized(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool startOfWord = true;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t start = i;
    const char32_t cp = decode(text, i);
    if (cp == kInvalid) {
      out += text[start];
      startOfWord = false;
      continue;
    }
    if (isWhitespace(cp)) {
      appendUTF8(out, cp);
      startOfWord = true;
      continue;
    }
    appendUTF8(out, startOfWord ? toUpper(cp) : toLower(cp));
    startOfWord = false;
  }
  return out;
}

}  // namespace zrk::detail
