#include "ImageFetch.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <charconv>

#include "EmulatorOptions.h"

namespace zrk::emulator {

ParsedUrl parseHttpUrl(const std::string& url) {
  ParsedUrl parsed;
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string::npos) return {};
  std::string scheme = url.substr(0, schemeEnd);
  std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
  if (scheme != "http" && scheme != "https") return {};
  const std::size_t authorityStart = schemeEnd + 3;
  const std::size_t authorityEnd = std::min(url.find_first_of("/?#", authorityStart), url.size());
  std::string authority = url.substr(authorityStart, authorityEnd - authorityStart);
  // User information has no place in an image address and hides the real host.
  if (authority.empty() || authority.find('@') != std::string::npos) return {};
  std::string host = authority;
  std::string port;
  if (authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string::npos) return {};
    host = authority.substr(1, close - 1);
    const std::string after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return {};
      port = after.substr(1);
    }
  } else if (const auto colon = authority.rfind(':'); colon != std::string::npos) {
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
  }
  if (host.empty()) return {};
  parsed.port = scheme == "https" ? 443 : 80;
  if (!port.empty()) {
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), parsed.port);
    if (error != std::errc() || end != port.data() + port.size() || parsed.port < 1 || parsed.port > 65535) return {};
  }
  std::string target = url.substr(authorityEnd);
  if (const auto fragment = target.find('#'); fragment != std::string::npos) target.resize(fragment);
  if (target.empty() || target.front() != '/') target.insert(0, "/");
  if (target.find_first_of(" \r\n") != std::string::npos) return {};
  parsed.scheme = scheme;
  parsed.host = host;
  parsed.target = target;
  return parsed;
}

std::variant<FetchedImage, FetchFailure> fetchImage(const ParsedUrl& url, bool allowRemote, std::size_t maxBytes) {
  if (url.scheme.empty()) return FetchFailure{400, "fileUrl is not an http or https URL"};
  if (!allowRemote && !isLoopbackHost(url.host)) {
    return FetchFailure{403,
                        "fileUrl must point at a loopback address; start the emulator with "
                        "--allow-remote-fetch to fetch from other hosts"};
  }
  const std::string host = url.host.find(':') != std::string::npos ? "[" + url.host + "]" : url.host;
  httplib::Client client(url.scheme + "://" + host + ":" + std::to_string(url.port));
  client.set_connection_timeout(5, 0);
  client.set_read_timeout(10, 0);
  client.set_write_timeout(5, 0);
  client.set_follow_location(false);
  FetchedImage image;
  bool tooLarge = false;
  auto result = client.Get(url.target, [&](const char* data, std::size_t length) {
    if (image.bytes.size() + length > maxBytes) {
      tooLarge = true;
      return false;
    }
    image.bytes.append(data, length);
    return true;
  });
  if (tooLarge) return FetchFailure{413, "the image at fileUrl is larger than " + std::to_string(maxBytes) + " bytes"};
  if (!result) return FetchFailure{422, "could not fetch fileUrl: " + httplib::to_string(result.error())};
  if (result->status != 200) {
    return FetchFailure{422, "fetching fileUrl gave HTTP status " + std::to_string(result->status)};
  }
  return image;
}

}  // namespace zrk::emulator
