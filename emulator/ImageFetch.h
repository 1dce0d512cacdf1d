// Fetching the image of a URL scan. Only http and https; only loopback
// hosts unless remote fetching is allowed; no redirects (one could lead off
// loopback); bounded in size and time.
#ifndef ZRK_EMULATOR_IMAGEFETCH_H
#define ZRK_EMULATOR_IMAGEFETCH_H

#include <cstddef>
#include <string>
#include <variant>

namespace zrk::emulator {

struct FetchedImage {
  std::string bytes;
};

struct FetchFailure {
  int code;  // 400 bad URL, 403 not allowed, 413 too large, 422 fetch failed
  std::string message;
};

struct ParsedUrl {
  std::string scheme;  // lower case
  std::string host;    // IPv6 literals without brackets
  int port = 0;
  std::string target;  // path and query, at least "/"
};

// Nothing usable gives an empty scheme.
ParsedUrl parseHttpUrl(const std::string& url);

std::variant<FetchedImage, FetchFailure> fetchImage(const ParsedUrl& url, bool allowRemote, std::size_t maxBytes);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_IMAGEFETCH_H
