#include "Tokens.h"

#include <openssl/crypto.h>

#include <chrono>
#include <cmath>

#include "Passwords.h"

namespace zrk::emulator {

double nowSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  std::string out;
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const int padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
    if (padding == 1 && text[i + 2] == '=') return std::nullopt;  // "x=y=" style
    std::uint32_t group = 0;
    for (int k = 0; k < 4 - padding; ++k) {
      const int v = value(text[i + static_cast<std::size_t>(k)]);
      if (v < 0) return std::nullopt;
      group |= static_cast<std::uint32_t>(v) << (18 - 6 * k);
    }
    out += static_cast<char>(group >> 16);
    if (padding < 2) out += static_cast<char>((group >> 8) & 0xff);
    if (padding < 1) out += static_cast<char>(group & 0xff);
  }
  return out;
}

Tokens::Tokens(Storage& storage, std::map<std::string, std::string> apps, int ttlSeconds)
    : storage_(storage), apps_(std::move(apps)), ttlSeconds_(ttlSeconds) {}

std::optional<IssuedAppToken> Tokens::issueAppToken(const std::string& key, const std::string& secret) {
  const auto app = apps_.find(key);
  if (app == apps_.end() || app->second.size() != secret.size() ||
      CRYPTO_memcmp(app->second.data(), secret.data(), secret.size()) != 0) {
    return std::nullopt;
  }
  IssuedAppToken issued;
  issued.token = randomHex(24);
  issued.expireIn = ttlSeconds_;
  issued.expire = static_cast<std::int64_t>(std::floor(nowSeconds())) + ttlSeconds_;
  storage_.putToken(issued.token, TokenKind::app, key, static_cast<double>(issued.expire));
  return issued;
}

std::optional<std::string> Tokens::appForBearer(std::string_view authorization) {
  constexpr std::string_view prefix = "Bearer ";
  if (!authorization.starts_with(prefix)) return std::nullopt;
  const auto token = decodeBase64(authorization.substr(prefix.size()));
  if (!token || token->empty()) return std::nullopt;
  auto app = storage_.tokenSubject(*token, TokenKind::app, nowSeconds());
  // An app removed from the command line since the token was issued is gone.
  if (app && !apps_.contains(*app)) return std::nullopt;
  return app;
}

std::string Tokens::issueUserToken(std::int64_t userId) {
  std::string token = "u" + randomHex(24);
  storage_.putToken(token, TokenKind::user, std::to_string(userId), 0);
  return token;
}

std::optional<std::int64_t> Tokens::userForToken(const std::string& token) {
  if (token.empty()) return std::nullopt;
  const auto subject = storage_.tokenSubject(token, TokenKind::user, nowSeconds());
  if (!subject) return std::nullopt;
  try {
    return std::stoll(*subject);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace zrk::emulator
