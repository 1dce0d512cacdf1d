#include "Secrets.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>

#include "zrk/ZRKApiAuthToken.h"

namespace zrk::tool {
namespace {

constexpr std::array<std::string_view, 3> kSecretOptions = {"--secret", "--password", "--token"};
constexpr std::string_view kMask = "***";
// Shorter values would mask ordinary letters all over the output without
// hiding anything worth hiding.
constexpr std::size_t kShortestSecret = 3;

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], kAlphabet[v & 63]};
  }
  if (i + 1 == bytes.size()) {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], '=', '='};
  } else if (i + 2 == bytes.size()) {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += {kAlphabet[v >> 18], kAlphabet[(v >> 12) & 63], kAlphabet[(v >> 6) & 63], '='};
  }
  return out;
}

}  // namespace

Secrets Secrets::fromCommandLine(int argc, const char* const* argv) {
  Secrets secrets;
  if (const char* fromEnvironment = std::getenv("ZRK_APP_SECRET")) secrets.add(fromEnvironment);
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    for (const std::string_view option : kSecretOptions) {
      if (argument == option && i + 1 < argc) {
        secrets.add(argv[i + 1]);
      } else if (argument.size() > option.size() && argument.starts_with(option) && argument[option.size()] == '=') {
        secrets.add(std::string(argument.substr(option.size() + 1)));
      }
    }
  }
  return secrets;
}

void Secrets::add(std::string secret) {
  if (secret.size() < kShortestSecret || std::ranges::find(secrets_, secret) != secrets_.end()) return;
  secrets_.push_back(std::move(secret));
  std::ranges::stable_sort(secrets_, [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

void Secrets::addAppToken() {
  const auto token = ZRKApiAuthToken::token();
  if (!token || !token->tokenString()) return;
  add(*token->tokenString());
  add(base64(*token->tokenString()));
}

std::string Secrets::redact(std::string text) const {
  for (const std::string& secret : secrets_) {
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + kMask.size())) {
      text.replace(at, secret.size(), kMask);
    }
  }
  return text;
}

ZRKJson Secrets::redact(ZRKJson json) const {
  if (json.is_string()) return redact(json.get<std::string>());
  if (json.is_structured()) {
    for (auto& element : json) element = redact(std::move(element));
  }
  return json;
}

}  // namespace zrk::tool
