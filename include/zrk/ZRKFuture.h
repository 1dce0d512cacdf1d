// Futures over the client's operations, for code that would rather wait for
// an answer than pass a completion.
//
//   zrk::ZRKFutureClient api;                       // the shared client
//   auto page = api.retrieveScanHistoryWithCount(20, 0).get();
//   if (page && page->ok()) ...                      // page->value, page->error
//
// Each operation of ZRKFutureClient calls the client's operation of the same
// name with a completion that fills a ZRKFuture; nothing else changes: the
// same request, the same threads, the same errors. The answer is a
// ZRKResult, the completion's two arguments as one value.
//
// Waiting on the main thread. The completions run on the main thread, so a
// future waited for there could never be filled by a plain blocking wait.
// wait(), waitFor() and get() called on the main thread therefore run the
// main queue (ZRKMainQueue::runUntil) until the answer is in: completions of
// other requests, and anything else posted there, run during the wait. Off
// the main thread they block, and the main thread must be running its queue
// as usual. This is why ZRKFuture is not a std::future: a std::future that
// ran the queue would have to be a deferred one, whose wait_for() answers
// "deferred" without waiting, and a plain one deadlocks on the main thread.
//
// Silences. Where the client documents that an operation ends without
// calling its completion (a user operation whose token step failed,
// retrieveUser with no token, a user operation without a user, a listing
// answer with neither list nor error), the library drops the completion
// without calling it; the future then becomes silent: wait() returns
// ZRKFutureStatus::silent and get() returns std::nullopt. A request that
// never ends (a server that never answers before the session's time-outs)
// keeps the future pending; waitFor() and getFor() bound the wait.
//
// Logout calls its completion twice, first with (nullptr, nullopt) on the
// calling thread to say that the logout is under way; its future resolves
// on the second call, the answer. A logout refused at once ("Invalid user",
// 10001) resolves at once with that error.
//
// A user without a mandatory field makes the operation throw
// std::invalid_argument, as the client's does; no future is returned.
//
// co_await: see ZRKAwait.h.
#ifndef ZRK_ZRKFUTURE_H
#define ZRK_ZRKFUTURE_H

#include "zrk/ZRKExport.h"

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKError.h"

namespace zrk {

// A completion's two arguments: the value (null or empty when there is
// none) and the error.
template <class T>
struct ZRKResult {
  T value{};
  std::optional<ZRKError> error;

  bool ok() const { return !error.has_value(); }
};

using ZRKScanResult = ZRKResult<std::shared_ptr<ZRKScanAPIResponse>>;
using ZRKUserResult = ZRKResult<std::shared_ptr<ZRKUserAPIResponse>>;
using ZRKCollectionsResult = ZRKResult<std::optional<std::vector<std::shared_ptr<ZRKCollection>>>>;
using ZRKScanHistoryResult = ZRKResult<std::optional<std::vector<std::shared_ptr<ZRKScanHistory>>>>;

enum class ZRKFutureStatus {
  pending,  // no answer yet
  ready,    // the answer is in
  silent,   // the operation ended without an answer, and none will come
};

template <class T>
class ZRKFuture;

// The untyped part of a future's state: its lock, its waiters and the
// continuations of the coroutines that await it. Safe from any thread.
// Exported for the templates below; not meant to be used on its own.
class ZRK_API ZRKFutureCore {
 public:
  ZRKFutureCore();
  ~ZRKFutureCore();
  ZRKFutureCore(const ZRKFutureCore&) = delete;
  ZRKFutureCore& operator=(const ZRKFutureCore&) = delete;

  ZRKFutureStatus status() const;
  // Waits for ready or silent, for at most the time-out when there is one;
  // on the main thread the main queue runs meanwhile. Returns the status.
  ZRKFutureStatus wait(std::optional<std::chrono::steady_clock::duration> timeout) const;
  // Posts then(status) to the main queue once the future is ready or silent,
  // at once if it already is.
  void whenDone(std::function<void(ZRKFutureStatus)> then);

 protected:
  // True for the first caller only, who then stores the answer and calls
  // publish(); every later answer is dropped.
  bool claim();
  void publish();
  // Makes the future silent unless an answer was claimed.
  void abandon();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

namespace detail {

template <class T>
class ZRKFutureState final : public ZRKFutureCore {
 public:
  void resolve(T answer) {
    if (!claim()) return;
    value_.emplace(std::move(answer));
    publish();
  }
  void fail(std::exception_ptr exception) {
    if (!claim()) return;
    exception_ = std::move(exception);
    publish();
  }
  using ZRKFutureCore::abandon;

  // Only after status() or wait() said ready.
  std::optional<T> answer() const {
    if (exception_) std::rethrow_exception(exception_);
    return value_;
  }

 private:
  std::optional<T> value_;         // written once, before publish()
  std::exception_ptr exception_;   // written once, before publish()
};

// Held by the completion: when the last copy of the completion goes without
// having answered, the future becomes silent.
template <class T>
class ZRKFutureProducer {
 public:
  explicit ZRKFutureProducer(std::shared_ptr<ZRKFutureState<T>> state) : state_(std::move(state)) {}
  ~ZRKFutureProducer() { state_->abandon(); }
  ZRKFutureProducer(const ZRKFutureProducer&) = delete;
  ZRKFutureProducer& operator=(const ZRKFutureProducer&) = delete;
  ZRKFutureState<T>& state() const { return *state_; }

 private:
  std::shared_ptr<ZRKFutureState<T>> state_;
};

template <class T>
struct ZRKFutureAwaiter;

}  // namespace detail

// The answer of one operation, to come. Move-only, like std::future; unlike
// it, get() may be called more than once and returns a copy.
template <class T>
class ZRKFuture {
 public:
  ZRKFuture() = default;
  explicit ZRKFuture(std::shared_ptr<detail::ZRKFutureState<T>> state) : state_(std::move(state)) {}
  ZRKFuture(ZRKFuture&&) noexcept = default;
  ZRKFuture& operator=(ZRKFuture&&) noexcept = default;
  ZRKFuture(const ZRKFuture&) = delete;
  ZRKFuture& operator=(const ZRKFuture&) = delete;

  // False for a default-constructed or moved-from future; nothing else may
  // be called on such a one.
  bool valid() const { return state_ != nullptr; }
  // Without waiting.
  ZRKFutureStatus status() const { return state_->status(); }
  // Waits until the answer is in or the operation has ended in silence.
  ZRKFutureStatus wait() const { return state_->wait(std::nullopt); }
  // As wait(), but gives up after the time-out and then returns pending.
  template <class Rep, class Period>
  ZRKFutureStatus waitFor(std::chrono::duration<Rep, Period> timeout) const {
    return state_->wait(std::chrono::duration_cast<std::chrono::steady_clock::duration>(timeout));
  }
  // The answer, or nullopt when the operation ended in silence. A coroutine
  // that returns a ZRKFuture (ZRKAwait.h) and let an exception out has it
  // rethrown here.
  std::optional<T> get() const {
    return wait() == ZRKFutureStatus::ready ? state_->answer() : std::nullopt;
  }
  // The answer, or nullopt when it is not in by the time-out or the
  // operation ended in silence (status() tells which).
  template <class Rep, class Period>
  std::optional<T> getFor(std::chrono::duration<Rep, Period> timeout) const {
    return waitFor(timeout) == ZRKFutureStatus::ready ? state_->answer() : std::nullopt;
  }

 private:
  friend struct detail::ZRKFutureAwaiter<T>;
  std::shared_ptr<detail::ZRKFutureState<T>> state_;
};

// The client's operations with futures instead of completions. Each takes
// the arguments of the operation of the same name on ZRKApiClient, less the
// completion. Holds the client; safe to use from any thread.
class ZRK_API ZRKFutureClient {
 public:
  // The shared client.
  ZRKFutureClient();
  explicit ZRKFutureClient(std::shared_ptr<ZRKApiClient> client);

  const std::shared_ptr<ZRKApiClient>& client() const { return client_; }

  ZRKFuture<ZRKScanResult> scanWithUrl(const std::optional<ZRKURL>& url,
                                       const std::optional<std::string>& collection = std::nullopt) const;
  ZRKFuture<ZRKScanResult> scanWithUrl(const ZRKJson& url,
                                       const std::optional<std::string>& collection = std::nullopt) const;
  // Without an image the future is ready at once with error 1000.
  ZRKFuture<ZRKScanResult> scanWithImage(std::shared_ptr<const ZRKImage> image,
                                         const std::optional<std::string>& collection = std::nullopt) const;

  ZRKFuture<ZRKCollectionsResult> retrieveCollections() const;
  ZRKFuture<ZRKScanHistoryResult> retrieveScanHistoryWithCount(ZRKInteger count, ZRKInteger offset) const;

  ZRKFuture<ZRKUserResult> registerUser(std::shared_ptr<const ZRKUser> user) const;
  ZRKFuture<ZRKUserResult> updateUserProfile(std::shared_ptr<const ZRKUser> user) const;
  ZRKFuture<ZRKUserResult> updateUserAvatar(std::shared_ptr<const ZRKUser> user,
                                            std::shared_ptr<const ZRKImage> image) const;
  ZRKFuture<ZRKUserResult> retrieveUser(const std::optional<std::string>& userToken) const;
  // A token in the answer becomes the session's user token, as with a
  // completion.
  ZRKFuture<ZRKUserResult> loginUser(std::shared_ptr<const ZRKUser> user) const;
  // Resolves on the answer, after the session has been cleared.
  ZRKFuture<ZRKUserResult> logoutUser(std::shared_ptr<const ZRKUser> user) const;

 private:
  std::shared_ptr<ZRKApiClient> client_;
};

}  // namespace zrk

#endif  // ZRK_ZRKFUTURE_H
