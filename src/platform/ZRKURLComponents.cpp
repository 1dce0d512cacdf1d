#include "zrk/ZRKURLComponents.h"
#include "platform/ZRKText.h"
#include "platform/ZRKURLCharacters.h"

#include <algorithm>
#include <utility>

namespace zrk {
namespace {

using namespace detail;  // the character classes

// What each component may hold unescaped (RFC 3986, section 3).
bool userCharacter(unsigned char c) { return isUnreserved(c) || isSubDelim(c); }
bool passwordCharacter(unsigned char c) { return userCharacter(c) || c == ':'; }
bool hostCharacter(unsigned char c) { return userCharacter(c) || c == ':'; }
bool pathCharacter(unsigned char c) { return userCharacter(c) || c == ':' || c == '@' || c == '/'; }
bool queryCharacter(unsigned char c) { return pathCharacter(c) || c == '?'; }
// Inside a query item "&" and "=" would split it; "+" is escaped too because
// form decoders on servers read it as a space.
bool queryItemCharacter(unsigned char c) { return queryCharacter(c) && c != '&' && c != '=' && c != '+'; }

bool isScheme(std::string_view s) {
  if (s.empty() || !isAlpha(static_cast<unsigned char>(s.front()))) return false;
  for (unsigned char c : s) {
    if (!(isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.')) return false;
  }
  return true;
}

// Escapes what the component may not hold, keeping escapes that are already
// complete, so that text in encoded form passes through unchanged.
template <typename Keep>
std::string escaped(std::string_view text, Keep keep) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2])) {
      out.append(text, i, 3);
      i += 2;
    } else {
      detail::appendPercentEncoded(out, text.substr(i, 1), keep);
    }
  }
  return out;
}

template <typename Keep>
std::optional<std::string> escaped(std::optional<std::string_view> text, Keep keep) {
  if (!text) return std::nullopt;
  return escaped(*text, keep);
}

std::string queryItemText(std::string_view text) {
  std::string out;
  detail::appendPercentEncoded(out, text, queryItemCharacter);
  return out;
}

}  // namespace

std::optional<ZRKURLComponents> ZRKURLComponents::componentsWithURL(const ZRKURL& url) {
  ZRKURLComponents c;
  c.scheme_ = url.scheme();
  c.host_ = url.host();
  c.port_ = url.port();
  c.path_ = url.path();
  c.query_ = url.query();
  c.fragment_ = url.fragment();
  if (!c.host_) {
    // ZRKURL lets "a:b/c" through as a relative path when "a:" is no scheme
    // ("x[y]:z"); put back together, that ":" would read as ending one.
    if (!c.scheme_ && c.path_.substr(0, c.path_.find('/')).find(':') != std::string::npos) return std::nullopt;
    return c;
  }

  // ZRKURL does not give the user info, and reads a port that is no number
  // as none; both need the authority's own text.
  std::string_view authority = url.absoluteString();
  authority.remove_prefix((c.scheme_ ? c.scheme_->size() + 1 : 0) + 2);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    const std::string_view userInfo = authority.substr(0, at);
    const auto colon = userInfo.find(':');
    c.user_ = std::string(userInfo.substr(0, colon));
    if (colon != std::string_view::npos) c.password_ = std::string(userInfo.substr(colon + 1));
    authority.remove_prefix(at + 1);
  }
  std::optional<std::string_view> portText;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    // Brackets are only put back around a host with a ":" in it.
    if (close == std::string_view::npos || c.host_->find(':') == std::string::npos) return std::nullopt;
    const std::string_view rest = authority.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') return std::nullopt;
    if (!rest.empty()) portText = rest.substr(1);
  } else {
    const auto colon = authority.rfind(':');
    if (colon != std::string_view::npos) portText = authority.substr(colon + 1);
    // A ":" in a host is only put back inside brackets.
    if (c.host_->find_first_of(":[]") != std::string::npos) return std::nullopt;
  }
  // The port is held as a number: an empty one ("h:") or one with leading
  // zeros ("h:080") would not be put back as it stood.
  if (portText && (!c.port_ || std::to_string(*c.port_) != *portText)) return std::nullopt;
  return c;
}

std::optional<ZRKURLComponents> ZRKURLComponents::componentsWithString(std::string_view string) {
  const auto url = ZRKURL::URLWithString(string);
  if (!url) return std::nullopt;
  return componentsWithURL(*url);
}

void ZRKURLComponents::setScheme(std::optional<std::string_view> scheme) {
  scheme_ = scheme ? std::optional<std::string>(*scheme) : std::nullopt;
}

void ZRKURLComponents::setUser(std::optional<std::string_view> user) { user_ = escaped(user, userCharacter); }

void ZRKURLComponents::setPassword(std::optional<std::string_view> password) {
  password_ = escaped(password, passwordCharacter);
}

void ZRKURLComponents::setHost(std::optional<std::string_view> host) {
  if (host && host->size() >= 2 && host->front() == '[' && host->back() == ']') {
    host = host->substr(1, host->size() - 2);
  }
  host_ = escaped(host, hostCharacter);
}

void ZRKURLComponents::setPath(std::string_view path) { path_ = escaped(path, pathCharacter); }

void ZRKURLComponents::setQuery(std::optional<std::string_view> query) { query_ = escaped(query, queryCharacter); }

void ZRKURLComponents::setFragment(std::optional<std::string_view> fragment) {
  fragment_ = escaped(fragment, queryCharacter);
}

std::optional<std::vector<ZRKURLQueryItem>> ZRKURLComponents::queryItems() const {
  if (!query_) return std::nullopt;
  std::vector<ZRKURLQueryItem> items;
  if (query_->empty()) return items;
  const std::string_view query = *query_;
  std::size_t start = 0;
  while (true) {
    const auto end = std::min(query.find('&', start), query.size());
    const std::string_view piece = query.substr(start, end - start);
    const auto equals = piece.find('=');
    ZRKURLQueryItem item{percentDecoded(piece.substr(0, equals)), std::nullopt};
    if (equals != std::string_view::npos) item.value = percentDecoded(piece.substr(equals + 1));
    items.push_back(std::move(item));
    if (end == query.size()) break;
    start = end + 1;
  }
  return items;
}

void ZRKURLComponents::setQueryItems(const std::optional<std::vector<ZRKURLQueryItem>>& items) {
  if (!items) {
    query_.reset();
    return;
  }
  std::string query;
  for (std::size_t i = 0; i < items->size(); ++i) {
    const ZRKURLQueryItem& item = (*items)[i];
    if (i > 0) query += '&';
    query += queryItemText(item.name);
    if (item.value) {
      query += '=';
      query += queryItemText(*item.value);
    }
  }
  query_ = std::move(query);
}

std::optional<ZRKURL> ZRKURLComponents::URL() const {
  std::string out;
  if (scheme_) {
    if (!isScheme(*scheme_)) return std::nullopt;
    out += *scheme_;
    out += ':';
  }
  if (host_ || user_ || password_ || port_) {
    out += "//";
    if (user_ || password_) {
      out += user_.value_or("");
      if (password_) {
        out += ':';
        out += *password_;
      }
      out += '@';
    }
    const std::string host = host_.value_or("");
    if (host.find(':') != std::string::npos) {
      out += '[';
      out += host;
      out += ']';
    } else {
      out += host;
    }
    if (port_) {
      if (*port_ < 0 || *port_ > 65535) return std::nullopt;
      out += ':';
      out += std::to_string(*port_);
    }
    // Without its "/" the path would run into the host.
    if (!path_.empty() && path_.front() != '/') return std::nullopt;
  } else {
    // Without a host, "//" would start one, and a ":" before the first "/"
    // would end a scheme.
    if (path_.starts_with("//")) return std::nullopt;
    if (!scheme_ && path_.substr(0, path_.find('/')).find(':') != std::string::npos) return std::nullopt;
  }
  out += path_;
  if (query_) {
    out += '?';
    out += *query_;
  }
  if (fragment_) {
    out += '#';
    out += *fragment_;
  }
  return ZRKURL::URLWithString(out);
}

std::optional<std::string> ZRKURLComponents::string() const {
  auto url = URL();
  if (!url) return std::nullopt;
  return url->absoluteString();
}

}  // namespace zrk
