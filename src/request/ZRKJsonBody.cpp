#include "request/ZRKJsonBody.h"

#include <cstdint>
#include <iterator>
#include <string_view>
#include <vector>

#include "platform/ZRKText.h"

namespace zrk::detail {
namespace {

// Deeper nesting than any answer of the service has; past it a body is
// treated as no JSON rather than risk the stack in recursive readers.
constexpr int kMaximumJsonDepth = 256;

// String values at least this long are decoded here, straight into a buffer
// of their final size: the parser would grow its own buffer by doubling and
// then copy it, about three times the string at its peak.
constexpr std::size_t kLongString = 64 * 1024;

struct LongString {
  std::size_t index;  // among all string literals, keys included, in order
  std::size_t begin;  // just after the opening quote
  std::size_t end;    // at the closing quote
  std::string value;
};

unsigned hex4(std::string_view s) {
  unsigned v = 0;
  for (const char c : s) {
    v <<= 4;
    if (c >= '0' && c <= '9') v |= c - '0';
    else if (c >= 'a' && c <= 'f') v |= c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v |= c - 'A' + 10;
    else return 0x110000;
  }
  return v;
}

// Decodes a string literal's contents as the parser would; false where the
// parser would refuse them, which is then left to the parser to report.
bool decodeString(std::string_view raw, std::string& out) {
  out.reserve(raw.size());
  for (std::size_t i = 0; i < raw.size();) {
    const auto c = static_cast<unsigned char>(raw[i]);
    if (c < 0x20) return false;
    if (c < 0x80 && c != '\\') {
      // Runs of plain ASCII, the bulk of any long value, in one append.
      std::size_t j = i + 1;
      while (j < raw.size() && static_cast<unsigned char>(raw[j]) >= 0x20 &&
             static_cast<unsigned char>(raw[j]) < 0x80 && raw[j] != '\\') {
        ++j;
      }
      out.append(raw, i, j - i);
      i = j;
    } else if (c >= 0x80) {
      const std::size_t n = utf8SequenceLength(raw.substr(i));
      if (n == 0) return false;
      out.append(raw, i, n);
      i += n;
    } else {
      if (i + 1 >= raw.size()) return false;
      const char e = raw[i + 1];
      i += 2;
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          if (i + 4 > raw.size()) return false;
          unsigned cp = hex4(raw.substr(i, 4));
          i += 4;
          if (cp > 0xFFFF || (cp >= 0xDC00 && cp <= 0xDFFF)) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 6 > raw.size() || raw[i] != '\\' || raw[i + 1] != 'u') return false;
            const unsigned low = hex4(raw.substr(i + 2, 4));
            if (low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            i += 6;
          }
          appendUTF8(out, cp);
          break;
        }
        default:
          return false;
      }
    }
  }
  return true;
}

// One pass over the text: false when it nests too deep; otherwise the long
// string values, decoded.
bool scan(std::string_view text, std::vector<LongString>& longStrings) {
  int depth = 0;
  std::size_t literals = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      const std::size_t begin = i + 1;
      for (++i; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] == '\\') ++i;
      }
      if (i >= text.size()) return true;  // unterminated: the parser says so
      const std::size_t index = literals++;
      if (i - begin < kLongString) continue;
      std::size_t next = i + 1;
      while (next < text.size() && (text[next] == ' ' || text[next] == '\t' || text[next] == '\n' || text[next] == '\r')) {
        ++next;
      }
      if (next < text.size() && text[next] == ':') continue;  // a key: left to the parser
      LongString s{index, begin, i, {}};
      if (decodeString(text.substr(begin, i - begin), s.value)) longStrings.push_back(std::move(s));
    } else if (c == '[' || c == '{') {
      if (++depth > kMaximumJsonDepth) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

// The text with the contents of the long strings left out: each reads as "".
class SkippingIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  SkippingIterator() = default;
  SkippingIterator(const std::string_view* text, const std::vector<LongString>* skips, std::size_t at)
      : text_(text), skips_(skips), at_(at) {
    settle();
  }
  reference operator*() const { return (*text_)[at_]; }
  SkippingIterator& operator++() {
    ++at_;
    settle();
    return *this;
  }
  SkippingIterator operator++(int) {
    auto before = *this;
    ++*this;
    return before;
  }
  bool operator==(const SkippingIterator& other) const { return at_ == other.at_; }

 private:
  void settle() {
    while (next_ < skips_->size() && at_ > (*skips_)[next_].begin) ++next_;
    if (next_ < skips_->size() && at_ == (*skips_)[next_].begin) at_ = (*skips_)[next_++].end;
  }
  const std::string_view* text_ = nullptr;
  const std::vector<LongString>* skips_ = nullptr;
  std::size_t at_ = 0;
  std::size_t next_ = 0;
};

}  // namespace

// The parser accepts any JSON text; what is no object is no answer here.
std::optional<ZRKJson> parseJSONObjectBody(const std::optional<std::string>& body) {
  if (!body || body->empty()) return std::nullopt;
  std::vector<LongString> longStrings;
  if (!scan(*body, longStrings)) return std::nullopt;
  ZRKJson json;
  if (longStrings.empty()) {
    json = ZRKJson::parse(*body, nullptr, /*allow_exceptions=*/false);
  } else {
    // Each literal, key or value, is one event in document order; the long
    // ones arrive as "" and take their decoded contents.
    const std::string_view text(*body);
    std::size_t literal = 0, next = 0;
    const ZRKJson::parser_callback_t takeLongStrings = [&](int, ZRKJson::parse_event_t event, ZRKJson& parsed) {
      if (event == ZRKJson::parse_event_t::key || (event == ZRKJson::parse_event_t::value && parsed.is_string())) {
        if (next < longStrings.size() && longStrings[next].index == literal) {
          parsed = std::move(longStrings[next++].value);
        }
        ++literal;
      }
      return true;
    };
    json = ZRKJson::parse(SkippingIterator(&text, &longStrings, 0), SkippingIterator(&text, &longStrings, text.size()),
                          takeLongStrings, /*allow_exceptions=*/false);
  }
  if (!json.is_object()) return std::nullopt;
  return json;
}

}  // namespace zrk::detail
