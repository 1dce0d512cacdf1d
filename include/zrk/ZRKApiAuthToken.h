// The app access token and the process-wide token cache.
//
// The service admits an app by key and secret and answers with a token that
// expires at an absolute second. The cache (the class operations) holds one
// token for the process; it is valid up to the last instant before "expire",
// with no margin. Authentication is lazy: endpoint calls go through
// refresh(), which authenticates only when the cached token is not valid.
// Concurrent refreshes are not merged: each sends its own request and the
// last answer stored wins. All members are safe to call from any thread.
#ifndef ZRK_ZRKAPIAUTHTOKEN_H
#define ZRK_ZRKAPIAUTHTOKEN_H

#include "zrk/ZRKExport.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKApiResponseDecodable.h"
#include "zrk/ZRKError.h"

namespace zrk {

// Called with success (true exactly when there is no error) and the error.
using ZRKAuthCompletion = std::function<void(bool success, std::optional<ZRKError> error)>;

class ZRK_API ZRKApiAuthToken : public ZRKApiResponseDecodable {
 public:
  ZRKApiAuthToken() = default;

  static void initialize() {}
  // The cache: a snapshot of the shared instance's values at this moment
  // (the shared instance itself changes under a lock, never in a caller's hands).
  static std::shared_ptr<ZRKApiAuthToken> token();
  // Copies token, expireIn and expire into the cache (not
  // allResponseFields); nullptr leaves the cache with no token and times 0.
  static void setToken(const std::shared_ptr<const ZRKApiAuthToken>& token);
  // Empties the cache: "", 0, 0, invalid.
  static void clear();
  // Hops to the global worker pool and calls authWithCompletion on the
  // shared client there. The completion may be empty.
  static void refresh(ZRKAuthCompletion completion);

  // Decodes "token", "expire" and "expireIn" (whole seconds); nullptr when
  // the body has no string "token".
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const override;

  bool isValid() const;
  bool expired() const;

  // The token text. (Named apart from the class operation token(), which
  // C++ would not tell from it.)
  const std::optional<std::string>& tokenString() const { return token_; }
  void setTokenString(std::optional<std::string> token) { token_ = std::move(token); }
  double expire() const { return expire_; }
  void setExpire(double expire) { expire_ = expire; }
  double expireIn() const { return expireIn_; }
  void setExpireIn(double expireIn) { expireIn_ = expireIn; }
  std::optional<ZRKJson> allResponseFields() const override { return allResponseFields_; }
  void setAllResponseFields(std::optional<ZRKJson> fields) { allResponseFields_ = std::move(fields); }

  // Carries token and both times, not allResponseFields.
  std::shared_ptr<ZRKApiAuthToken> copy() const;
  // "token: <token>".
  std::string description() const;

 private:
  double expireIn_ = 0;
  double expire_ = 0;
  std::optional<ZRKJson> allResponseFields_;
  std::optional<std::string> token_ = std::string();
};

}  // namespace zrk

#endif  // ZRK_ZRKAPIAUTHTOKEN_H
