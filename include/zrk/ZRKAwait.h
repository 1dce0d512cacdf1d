// C++20 coroutines over the client's operations.
//
//   zrk::ZRKFuture<bool> signIn(zrk::ZRKFutureClient api, std::shared_ptr<const zrk::ZRKUser> user) {
//     auto login = co_await api.loginUser(user);
//     if (!login.ok()) co_return false;
//     auto account = co_await api.retrieveUser(login.value->token());
//     co_return account.ok();
//   }
//
// Any ZRKFuture (ZRKFuture.h) can be awaited; the coroutine gets the
// ZRKResult as a value. A coroutine awaiting an answer that is not in yet is
// resumed on the main thread, from the main queue, just after the
// completion has run: code after a co_await always runs on the main thread,
// whichever thread the coroutine started on, and only while the application
// lets the main queue run (ZRKMainQueue.h).
//
// A function returning ZRKFuture<T> (T not void) may be a coroutine. It
// starts at once, runs until its first co_await of an answer that is not in
// yet, and its future is ready when it co_returns; an exception that leaves
// it is kept and rethrown by the future's get() or by whoever awaits it.
//
// Silences: a coroutine awaiting an operation that ends in silence is never
// resumed; its frame is destroyed on the main thread (its locals' destructors
// run there), and its own future becomes silent in turn. No frame is left
// behind.
#ifndef ZRK_ZRKAWAIT_H
#define ZRK_ZRKAWAIT_H

#include <coroutine>
#include <exception>
#include <memory>
#include <utility>

#include "zrk/ZRKFuture.h"

namespace zrk {
namespace detail {

template <class T>
struct ZRKFutureAwaiter {
  explicit ZRKFutureAwaiter(const ZRKFuture<T>& future) : state(future.state_) {}

  std::shared_ptr<ZRKFutureState<T>> state;

  bool await_ready() const { return state->status() == ZRKFutureStatus::ready; }
  void await_suspend(std::coroutine_handle<> coroutine) {
    state->whenDone([coroutine](ZRKFutureStatus status) {
      if (status == ZRKFutureStatus::ready) {
        coroutine.resume();
      } else {
        coroutine.destroy();
      }
    });
  }
  T await_resume() const { return *state->answer(); }
};

template <class T>
struct ZRKFuturePromise {
  std::shared_ptr<ZRKFutureState<T>> state = std::make_shared<ZRKFutureState<T>>();

  ZRKFuturePromise() = default;
  ZRKFuturePromise(const ZRKFuturePromise&) = delete;
  ZRKFuturePromise& operator=(const ZRKFuturePromise&) = delete;
  // A frame destroyed before co_return leaves its future silent.
  ~ZRKFuturePromise() { state->abandon(); }

  ZRKFuture<T> get_return_object() { return ZRKFuture<T>(state); }
  std::suspend_never initial_suspend() noexcept { return {}; }
  std::suspend_never final_suspend() noexcept { return {}; }
  void return_value(T value) { state->resolve(std::move(value)); }
  void unhandled_exception() { state->fail(std::current_exception()); }
};

}  // namespace detail

template <class T>
detail::ZRKFutureAwaiter<T> operator co_await(const ZRKFuture<T>& future) {
  return detail::ZRKFutureAwaiter<T>(future);
}

}  // namespace zrk

template <class T, class... Arguments>
struct std::coroutine_traits<zrk::ZRKFuture<T>, Arguments...> {
  using promise_type = zrk::detail::ZRKFuturePromise<T>;
};

#endif  // ZRK_ZRKAWAIT_H
