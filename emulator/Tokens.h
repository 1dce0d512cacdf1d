// App and user tokens: issued here, kept in Storage, checked on every
// request. The client sends an app token as "Bearer " followed by the
// standard base64 of the token text, and a user token as it is in the
// "ZRK-User-Token" header; both forms are required exactly.
#ifndef ZRK_EMULATOR_TOKENS_H
#define ZRK_EMULATOR_TOKENS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Storage.h"

namespace zrk::emulator {

// Seconds since 1970, with fractions.
double nowSeconds();

// Standard base64 with padding, strictly; nothing for anything else.
std::optional<std::string> decodeBase64(std::string_view text);

struct IssuedAppToken {
  std::string token;
  std::int64_t expire = 0;  // whole seconds since 1970
  std::int64_t expireIn = 0;
};

class Tokens {
 public:
  Tokens(Storage& storage, std::map<std::string, std::string> apps, int ttlSeconds);

  // Nothing when key and secret do not name a known app.
  std::optional<IssuedAppToken> issueAppToken(const std::string& key, const std::string& secret);
  // The app key behind an "Authorization" header value, while its token lives.
  std::optional<std::string> appForBearer(std::string_view authorization);

  std::string issueUserToken(std::int64_t userId);
  std::optional<std::int64_t> userForToken(const std::string& token);
  void revoke(const std::string& token) { storage_.deleteToken(token); }

 private:
  Storage& storage_;
  const std::map<std::string, std::string> apps_;
  const int ttlSeconds_;
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_TOKENS_H
