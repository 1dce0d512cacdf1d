#include "zrk/ZRKFuture.h"

#include <condition_variable>
#include <mutex>

#include "zrk/ZRKMainQueue.h"

namespace zrk {

struct ZRKFutureCore::Impl {
  mutable std::mutex mutex;
  mutable std::condition_variable done;
  bool claimed = false;                                        // guarded by mutex
  ZRKFutureStatus status = ZRKFutureStatus::pending;           // guarded by mutex
  std::vector<std::function<void(ZRKFutureStatus)>> pending;   // guarded by mutex
  mutable int mainThreadWaiters = 0;                           // guarded by mutex

  void finish(ZRKFutureStatus outcome) {
    std::vector<std::function<void(ZRKFutureStatus)>> continuations;
    bool wakeMainThread;
    {
      std::lock_guard lock(mutex);
      if (status != ZRKFutureStatus::pending) return;
      status = outcome;
      continuations.swap(pending);
      wakeMainThread = mainThreadWaiters > 0;
    }
    done.notify_all();
    auto& queue = ZRKMainQueue::mainQueue();
    for (auto& then : continuations) queue.async([then = std::move(then), outcome] { then(outcome); });
    // A main-thread waiter sleeps in runUntil, which looks again only after
    // a callback has run.
    if (wakeMainThread && continuations.empty()) queue.async([] {});
  }
};

ZRKFutureCore::ZRKFutureCore() : impl_(std::make_unique<Impl>()) {}
ZRKFutureCore::~ZRKFutureCore() = default;

ZRKFutureStatus ZRKFutureCore::status() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status;
}

ZRKFutureStatus ZRKFutureCore::wait(std::optional<std::chrono::steady_clock::duration> timeout) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = timeout ? Clock::now() + *timeout : Clock::time_point::max();
  if (!ZRKMainQueue::isMainThread()) {
    std::unique_lock lock(impl_->mutex);
    const auto finished = [&] { return impl_->status != ZRKFutureStatus::pending; };
    if (timeout) {
      impl_->done.wait_until(lock, deadline, finished);
    } else {
      impl_->done.wait(lock, finished);
    }
    return impl_->status;
  }

  // The answer comes through the main queue, so the wait runs it.
  {
    std::lock_guard lock(impl_->mutex);
    ++impl_->mainThreadWaiters;
  }
  const auto finished = [this] { return status() != ZRKFutureStatus::pending; };
  while (!finished()) {
    const auto now = Clock::now();
    if (now >= deadline) break;
    const auto slice = timeout ? std::chrono::ceil<std::chrono::milliseconds>(deadline - now)
                               : std::chrono::milliseconds(std::chrono::hours(1));
    ZRKMainQueue::mainQueue().runUntil(finished, slice);
  }
  std::lock_guard lock(impl_->mutex);
  --impl_->mainThreadWaiters;
  return impl_->status;
}

void ZRKFutureCore::whenDone(std::function<void(ZRKFutureStatus)> then) {
  ZRKFutureStatus status;
  {
    std::lock_guard lock(impl_->mutex);
    status = impl_->status;
    if (status == ZRKFutureStatus::pending) {
      impl_->pending.push_back(std::move(then));
      return;
    }
  }
  ZRKMainQueue::mainQueue().async([then = std::move(then), status] { then(status); });
}

bool ZRKFutureCore::claim() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->claimed) return false;
  impl_->claimed = true;
  return true;
}

void ZRKFutureCore::publish() { impl_->finish(ZRKFutureStatus::ready); }

void ZRKFutureCore::abandon() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->claimed) return;
    impl_->claimed = true;
  }
  impl_->finish(ZRKFutureStatus::silent);
}

namespace {

// A completion that answers the future with its two arguments. Logout's
// early (nullptr, nullopt) call is the only call of a completion with
// neither value nor error; skipping it leaves the answer to the next one.
template <class Value>
std::pair<ZRKFuture<ZRKResult<Value>>, std::function<void(Value, std::optional<ZRKError>)>> bridge(
    bool skipEmptyCall = false) {
  auto state = std::make_shared<detail::ZRKFutureState<ZRKResult<Value>>>();
  auto producer = std::make_shared<detail::ZRKFutureProducer<ZRKResult<Value>>>(state);
  auto completion = [producer = std::move(producer), skipEmptyCall](Value value, std::optional<ZRKError> error) {
    if (skipEmptyCall && !value && !error) return;
    producer->state().resolve(ZRKResult<Value>{std::move(value), std::move(error)});
  };
  return {ZRKFuture<ZRKResult<Value>>(std::move(state)), std::move(completion)};
}

using ScanValue = std::shared_ptr<ZRKScanAPIResponse>;
using UserValue = std::shared_ptr<ZRKUserAPIResponse>;

}  // namespace

ZRKFutureClient::ZRKFutureClient() : ZRKFutureClient(ZRKApiClient::sharedClient()) {}
ZRKFutureClient::ZRKFutureClient(std::shared_ptr<ZRKApiClient> client) : client_(std::move(client)) {}

ZRKFuture<ZRKScanResult> ZRKFutureClient::scanWithUrl(const std::optional<ZRKURL>& url,
                                                      const std::optional<std::string>& collection) const {
  auto [future, completion] = bridge<ScanValue>();
  client_->scanWithUrl(url, collection, std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKScanResult> ZRKFutureClient::scanWithUrl(const ZRKJson& url,
                                                      const std::optional<std::string>& collection) const {
  auto [future, completion] = bridge<ScanValue>();
  client_->scanWithUrl(url, collection, std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKScanResult> ZRKFutureClient::scanWithImage(std::shared_ptr<const ZRKImage> image,
                                                        const std::optional<std::string>& collection) const {
  auto [future, completion] = bridge<ScanValue>();
  client_->scanWithImage(std::move(image), collection, std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKCollectionsResult> ZRKFutureClient::retrieveCollections() const {
  auto [future, completion] = bridge<decltype(ZRKCollectionsResult::value)>();
  client_->retrieveCollectionsWithCompletion(std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKScanHistoryResult> ZRKFutureClient::retrieveScanHistoryWithCount(ZRKInteger count,
                                                                             ZRKInteger offset) const {
  auto [future, completion] = bridge<decltype(ZRKScanHistoryResult::value)>();
  client_->retrieveScanHistoryWithCount(count, offset, std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::registerUser(std::shared_ptr<const ZRKUser> user) const {
  auto [future, completion] = bridge<UserValue>();
  client_->registerUser(std::move(user), std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::updateUserProfile(std::shared_ptr<const ZRKUser> user) const {
  auto [future, completion] = bridge<UserValue>();
  client_->updateUserProfile(std::move(user), std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::updateUserAvatar(std::shared_ptr<const ZRKUser> user,
                                                           std::shared_ptr<const ZRKImage> image) const {
  auto [future, completion] = bridge<UserValue>();
  client_->updateUserAvatar(std::move(user), std::move(image), std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::retrieveUser(const std::optional<std::string>& userToken) const {
  auto [future, completion] = bridge<UserValue>();
  client_->retrieveUser(userToken, std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::loginUser(std::shared_ptr<const ZRKUser> user) const {
  auto [future, completion] = bridge<UserValue>();
  client_->loginUser(std::move(user), std::move(completion));
  return std::move(future);
}

ZRKFuture<ZRKUserResult> ZRKFutureClient::logoutUser(std::shared_ptr<const ZRKUser> user) const {
  auto [future, completion] = bridge<UserValue>(true);
  client_->logoutUser(std::move(user), std::move(completion));
  return std::move(future);
}

}  // namespace zrk
