#include "zrk/ZRKURL.h"
#include "platform/ZRKText.h"
#include "platform/ZRKURLCharacters.h"

#include <curl/curl.h>

#include <memory>

namespace zrk {
namespace {

using namespace detail;  // the character classes

// Every character RFC 3986 lets stand unescaped somewhere in a URL, and
// percent escapes that are complete; at most one "#".
bool hasOnlyURLCharacters(std::string_view s) {
  bool fragment = false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (isUnreserved(c) || isSubDelim(c)) continue;
    switch (c) {
      case ':': case '/': case '?': case '@': case '[': case ']':
        continue;
      case '#':
        if (fragment) return false;
        fragment = true;
        continue;
      case '%':
        if (i + 2 >= s.size() || !isHex(s[i + 1]) || !isHex(s[i + 2])) return false;
        i += 2;
        continue;
      default:
        return false;
    }
  }
  return true;
}

// Length of "scheme:" at the front, or 0.
std::size_t schemeLength(std::string_view s) {
  if (s.empty() || !isAlpha(s[0])) return 0;
  for (std::size_t i = 1; i < s.size(); ++i) {
    const char c = s[i];
    if (c == ':') return i + 1;
    if (!(isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.')) return 0;
  }
  return 0;
}

// The pieces of a reference, as views into its text (RFC 3986, appendix B).
struct Pieces {
  std::optional<std::string_view> scheme;
  std::optional<std::string_view> authority;
  std::string_view path;
  std::optional<std::string_view> query;
  std::optional<std::string_view> fragment;
  std::size_t pathEnd = 0;  // offset where the path stops
};

Pieces split(std::string_view s) {
  Pieces p;
  std::size_t i = 0;
  if (const std::size_t n = schemeLength(s)) {
    p.scheme = s.substr(0, n - 1);
    i = n;
  }
  if (s.substr(i, 2) == "//") {
    const std::size_t start = i + 2;
    std::size_t end = s.find_first_of("/?#", start);
    if (end == std::string_view::npos) end = s.size();
    p.authority = s.substr(start, end - start);
    i = end;
  }
  std::size_t end = s.find_first_of("?#", i);
  if (end == std::string_view::npos) end = s.size();
  p.path = s.substr(i, end - i);
  p.pathEnd = end;
  i = end;
  if (i < s.size() && s[i] == '?') {
    std::size_t qend = s.find('#', i + 1);
    if (qend == std::string_view::npos) qend = s.size();
    p.query = s.substr(i + 1, qend - i - 1);
    i = qend;
  }
  if (i < s.size() && s[i] == '#') p.fragment = s.substr(i + 1);
  return p;
}

// "user:pass@host:port" -> host and port text.
void splitAuthority(std::string_view authority, std::string_view& host, std::optional<std::string_view>& port) {
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) {
      host = authority;
      return;
    }
    host = authority.substr(1, close - 1);
    if (close + 1 < authority.size() && authority[close + 1] == ':') port = authority.substr(close + 2);
    return;
  }
  const auto colon = authority.rfind(':');
  if (colon == std::string_view::npos) {
    host = authority;
  } else {
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
  }
}

struct CurlUrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
using CurlUrl = std::unique_ptr<CURLU, CurlUrlDeleter>;

constexpr unsigned kCurlUrlFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;

bool curlAccepts(std::string_view s) {
  CurlUrl u(curl_url());
  if (!u) return false;
  const std::string text(s);
  return curl_url_set(u.get(), CURLUPART_URL, text.c_str(), kCurlUrlFlags) == CURLUE_OK;
}

}  // namespace

ZRKURL::ZRKURL(std::string string) : string_(std::move(string)) {}

std::optional<ZRKURL> ZRKURL::URLWithString(std::string_view string) {
  if (!hasOnlyURLCharacters(string)) return std::nullopt;
  const Pieces p = split(string);
  // Hierarchical absolute URLs go through libcurl's parser, which knows
  // hosts, ports and IPv6 literals; opaque and relative ones are plain text.
  if (p.scheme && p.authority && !curlAccepts(string)) return std::nullopt;
  return ZRKURL(std::string(string));
}

std::optional<std::string> ZRKURL::scheme() const {
  const Pieces p = split(string_);
  if (!p.scheme) return std::nullopt;
  return std::string(*p.scheme);
}

std::optional<std::string> ZRKURL::host() const {
  const Pieces p = split(string_);
  if (!p.authority) return std::nullopt;
  std::string_view host;
  std::optional<std::string_view> port;
  splitAuthority(*p.authority, host, port);
  return std::string(host);
}

std::optional<int> ZRKURL::port() const {
  const Pieces p = split(string_);
  if (!p.authority) return std::nullopt;
  std::string_view host;
  std::optional<std::string_view> port;
  splitAuthority(*p.authority, host, port);
  if (!port || port->empty() || port->size() > 5) return std::nullopt;
  int value = 0;
  for (char c : *port) {
    if (!isDigit(c)) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

std::string ZRKURL::path() const { return std::string(split(string_).path); }

std::optional<std::string> ZRKURL::query() const {
  const Pieces p = split(string_);
  if (!p.query) return std::nullopt;
  return std::string(*p.query);
}

std::optional<std::string> ZRKURL::fragment() const {
  const Pieces p = split(string_);
  if (!p.fragment) return std::nullopt;
  return std::string(*p.fragment);
}

ZRKURL ZRKURL::URLByAppendingPathComponent(std::string_view component) const {
  const Pieces p = split(string_);
  std::string out(string_, 0, p.pathEnd);
  const bool baseEndsWithSlash = !p.path.empty() && p.path.back() == '/';
  const bool componentStartsWithSlash = !component.empty() && component.front() == '/';
  if (!baseEndsWithSlash && !componentStartsWithSlash) out += '/';
  detail::appendPercentEncoded(out, component, [](unsigned char c) {
    return isUnreserved(static_cast<char>(c)) || isSubDelim(static_cast<char>(c)) || c == ':' || c == '@' ||
           c == '/';
  });
  out.append(string_, p.pathEnd, std::string::npos);
  return ZRKURL(std::move(out));
}

std::optional<ZRKURL> ZRKURL::URLByResolvingReference(std::string_view reference) const {
  CurlUrl u(curl_url());
  if (!u) return std::nullopt;
  if (curl_url_set(u.get(), CURLUPART_URL, string_.c_str(), kCurlUrlFlags) != CURLUE_OK) return std::nullopt;
  // Servers put raw spaces and UTF-8 into Location; escape them rather than
  // fail the redirect, as browsers do.
  std::string ref;
  detail::appendPercentEncoded(ref, reference, [](unsigned char c) { return c > 0x20 && c < 0x7f; });
  if (curl_url_set(u.get(), CURLUPART_URL, ref.c_str(), kCurlUrlFlags) != CURLUE_OK) return std::nullopt;
  char* text = nullptr;
  if (curl_url_get(u.get(), CURLUPART_URL, &text, 0) != CURLUE_OK || !text) return std::nullopt;
  std::string resolved(text);
  curl_free(text);
  return URLWithString(resolved);
}

}  // namespace zrk
