// Records the calls of a completion handed to the library: how many, whether
// each ran on the main thread, and the arguments of the last one. The state
// is shared, so a late call after the test is done still lands somewhere.
#ifndef ZRK_TESTS_RECORDER_H
#define ZRK_TESTS_RECORDER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <type_traits>

#include "zrk/ZRKMainQueue.h"

namespace zrk::test {

template <class... Args>
class Recorder {
 public:
  using Values = std::tuple<std::decay_t<Args>...>;

  // The completion to hand over; each copy records into this recorder.
  std::function<void(Args...)> completion() const {
    return [state = state_](Args... args) {
      const bool offMain = !ZRKMainQueue::isMainThread();
      {
        std::lock_guard lock(state->mutex);
        ++state->calls;
        if (offMain) state->offMain = true;
        state->last.emplace(std::move(args)...);
      }
      // A wait() on the main thread wakes only for the main queue.
      if (offMain) ZRKMainQueue::mainQueue().async([] {});
    };
  }
  operator std::function<void(Args...)>() const { return completion(); }

  // Lets the main queue run until the first call; false after the time-out.
  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    return ZRKMainQueue::mainQueue().runUntil([this] { return calls() > 0; }, timeout);
  }
  // wait(), then lets the queue run a little longer so that a second call
  // would show; true if exactly one call came, on the main thread.
  bool once(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
    if (!wait(timeout)) return false;
    ZRKMainQueue::mainQueue().runFor(std::chrono::milliseconds(20));
    return calls() == 1 && !offMainThread();
  }

  std::size_t calls() const {
    std::lock_guard lock(state_->mutex);
    return state_->calls;
  }
  bool offMainThread() const {
    std::lock_guard lock(state_->mutex);
    return state_->offMain;
  }
  // The last call's arguments; value-initialized ones before the first call,
  // so that a test whose completion never came fails instead of crashing.
  Values last() const {
    std::lock_guard lock(state_->mutex);
    return state_->last.value_or(Values{});
  }
  template <std::size_t I>
  auto arg() const {
    return std::get<I>(last());
  }

 private:
  struct State {
    std::mutex mutex;
    std::size_t calls = 0;
    bool offMain = false;
    std::optional<Values> last;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_RECORDER_H
