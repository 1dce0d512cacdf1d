// A URL taken apart into components that can be read and replaced one by one.
//
// Every component is held in its percent-encoded form, exactly as it stands
// in the URL: parsing a string and putting it back together gives the same
// text. The setters take text in that form too, and escape whatever the
// component may not hold (a space, "?" in a path, "#" in a query, a "%" that
// starts no "%XX" escape, ...); a complete "%XX" escape is kept as it is.
// Query items are the exception: their names and values are plain text,
// decoded on reading and encoded on writing.
//
// A host is kept without the brackets of an IPv6 literal; they are added
// again when the URL is put together.
//
// Nothing is checked when a component is set. URL() and string() tell
// whether the components make a URL; they give nullopt when they do not (a
// malformed scheme, a port outside 0..65535, a path not starting with "/"
// after a host, a value that libcurl's URL parser refuses, ...).
//
// Values are safe to copy and to share between threads; a value that one
// thread changes must not be read by another at the same time.
#ifndef ZRK_ZRKURLCOMPONENTS_H
#define ZRK_ZRKURLCOMPONENTS_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zrk/ZRKURL.h"

namespace zrk {

// One "name=value" pair of a query, in plain (decoded) text. An item without
// a value stands in the query as its name alone, without "=".
struct ZRK_API ZRKURLQueryItem {
  std::string name;
  std::optional<std::string> value;

  friend bool operator==(const ZRKURLQueryItem&, const ZRKURLQueryItem&) = default;
};

class ZRK_API ZRKURLComponents {
 public:
  // Components of nothing: URL() of them is the empty relative reference.
  ZRKURLComponents() = default;

  // nullopt for a reference the components cannot put back as it stood: a
  // port that is empty ("h:"), has leading zeros or is no number, a stray
  // bracket, or a relative path whose first segment holds a ":".
  static std::optional<ZRKURLComponents> componentsWithURL(const ZRKURL& url);
  // nullopt when the string is no URL (see ZRKURL::URLWithString).
  static std::optional<ZRKURLComponents> componentsWithString(std::string_view string);

  const std::optional<std::string>& scheme() const { return scheme_; }
  void setScheme(std::optional<std::string_view> scheme);

  const std::optional<std::string>& user() const { return user_; }
  void setUser(std::optional<std::string_view> user);
  const std::optional<std::string>& password() const { return password_; }
  void setPassword(std::optional<std::string_view> password);

  // "" when the URL has "//" but no host (as in "file:///tmp").
  const std::optional<std::string>& host() const { return host_; }
  void setHost(std::optional<std::string_view> host);

  std::optional<int> port() const { return port_; }
  void setPort(std::optional<int> port) { port_ = port; }

  // Never absent: "" when the URL has no path.
  const std::string& path() const { return path_; }
  void setPath(std::string_view path);

  // The text after "?" up to any "#"; present (possibly "") when there is a "?".
  const std::optional<std::string>& query() const { return query_; }
  void setQuery(std::optional<std::string_view> query);

  const std::optional<std::string>& fragment() const { return fragment_; }
  void setFragment(std::optional<std::string_view> fragment);

  // The query split at "&", each piece split at its first "=", names and
  // values percent-decoded ("+" stays "+"). nullopt when there is no query;
  // an empty query has no items, while "a&" has two ("a" and "").
  // Decoded bytes are returned as they are, even when they are not UTF-8.
  std::optional<std::vector<ZRKURLQueryItem>> queryItems() const;
  // Replaces the whole query. Names and values are percent-encoded: every
  // character a query may not hold, and "&", "=", "+" and "#" as well, so
  // that each reads back as it was written, also by servers that take "+"
  // for a space. An empty list leaves an empty query ("...?"); nullopt
  // removes the query and its "?".
  void setQueryItems(const std::optional<std::vector<ZRKURLQueryItem>>& items);

  // The components put together, or nullopt when they make no URL.
  std::optional<ZRKURL> URL() const;
  std::optional<std::string> string() const;

  friend bool operator==(const ZRKURLComponents&, const ZRKURLComponents&) = default;

 private:
  std::optional<std::string> scheme_;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  std::optional<std::string> host_;
  std::optional<int> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

}  // namespace zrk

#endif  // ZRK_ZRKURLCOMPONENTS_H
