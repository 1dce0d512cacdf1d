// URLs: parsing, validation, path appending and reference resolution.
//
// ZRKURL is an immutable, validated URL reference. Parsing follows RFC 3986:
// a string holding a character that a URL may not carry unescaped (a space,
// a quote, "<", ">", "\", "^", "`", "{", "|", "}", a control or non-ASCII
// byte, or a "%" not followed by two hex digits) is no URL. A string with a
// scheme is checked by libcurl's URL parser; one without is a relative
// reference. absoluteString() is the text as given: nothing is normalised.
// Values are safe to copy and to share between threads.
#ifndef ZRK_ZRKURL_H
#define ZRK_ZRKURL_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zrk {

class ZRK_API ZRKURL {
 public:
  // nullopt when the string is no URL.
  static std::optional<ZRKURL> URLWithString(std::string_view string);

  const std::string& absoluteString() const { return string_; }
  std::optional<std::string> scheme() const;
  std::optional<std::string> host() const;
  std::optional<int> port() const;
  // The path as it stands in the URL, percent escapes kept; "" when empty.
  std::string path() const;
  // The text after "?" up to any "#"; present (possibly "") when there is a "?".
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;

  // Appends one path component: exactly one "/"
  // between the existing path and the component, the "/" inside the
  // component kept, and every character a path may not hold ("?", "#", "%",
  // space, ...) percent-encoded. A query or fragment of the receiver stays
  // after the new path.
  ZRKURL URLByAppendingPathComponent(std::string_view component) const;

  // Resolves a reference (an absolute URL or a relative one such as a
  // Location header) against this URL; nullopt when it cannot be resolved.
  std::optional<ZRKURL> URLByResolvingReference(std::string_view reference) const;

  friend bool operator==(const ZRKURL& a, const ZRKURL& b) { return a.string_ == b.string_; }

 private:
  explicit ZRKURL(std::string string);
  std::string string_;
};

}  // namespace zrk

#endif  // ZRK_ZRKURL_H
