#include "zrk/ZRKApiAuthToken.h"

#include <chrono>
#include <mutex>

#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKDictionaryAccessors.h"
#include "zrk/ZRKMainQueue.h"

namespace zrk {
namespace {

// The process-wide cache. Its fields change in place under the mutex and
// are handed out as snapshots.
struct Cache {
  std::mutex mutex;
  ZRKApiAuthToken token;  // guarded by mutex
};

Cache& cache() {
  static Cache* const shared = new Cache;
  return *shared;
}

}  // namespace

std::shared_ptr<ZRKApiAuthToken> ZRKApiAuthToken::token() {
  Cache& c = cache();
  std::lock_guard lock(c.mutex);
  auto snapshot = std::make_shared<ZRKApiAuthToken>(c.token);
  return snapshot;
}

void ZRKApiAuthToken::setToken(const std::shared_ptr<const ZRKApiAuthToken>& token) {
  Cache& c = cache();
  std::lock_guard lock(c.mutex);
  c.token.token_ = token ? token->token_ : std::nullopt;
  c.token.expireIn_ = token ? token->expireIn_ : 0;
  c.token.expire_ = token ? token->expire_ : 0;
}

void ZRKApiAuthToken::clear() { setToken(std::make_shared<ZRKApiAuthToken>()); }

void ZRKApiAuthToken::refresh(ZRKAuthCompletion completion) {
  ZRKGlobalQueue::globalQueue().async(
      [completion = std::move(completion)]() mutable { ZRKApiClient::sharedClient()->authWithCompletion(std::move(completion)); });
}

std::shared_ptr<ZRKApiResponseDecodable> ZRKApiAuthToken::decodedObjectFromAPIResponse(const ZRKJson* response) const {
  if (!response || !response->is_object()) return nullptr;
  ZRKJson fields = zrk_dictionaryByRemovingNulls(*response);
  auto token = zrk_stringForKey(fields, "token");
  const ZRKInteger expire = zrk_intForKey(fields, "expire", 0);
  const ZRKInteger expireIn = zrk_intForKey(fields, "expireIn", 0);
  if (!token) return nullptr;
  auto decoded = std::make_shared<ZRKApiAuthToken>();
  decoded->allResponseFields_ = std::move(fields);
  decoded->token_ = std::move(token);
  decoded->expire_ = static_cast<double>(expire);
  decoded->expireIn_ = static_cast<double>(expireIn);
  return decoded;
}

bool ZRKApiAuthToken::isValid() const { return token_.has_value() && expire_ != 0 && !expired(); }

bool ZRKApiAuthToken::expired() const {
  if (!token_ || expire_ == 0) return true;
  const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  // No margin: the token serves up to the last instant before "expire".
  return !(expire_ > now);
}

std::shared_ptr<ZRKApiAuthToken> ZRKApiAuthToken::copy() const {
  auto copy = std::make_shared<ZRKApiAuthToken>();
  copy->token_ = token_;
  copy->expireIn_ = expireIn_;
  copy->expire_ = expire_;
  return copy;
}

std::string ZRKApiAuthToken::description() const { return "token: " + token_.value_or("(null)"); }

}  // namespace zrk
