#ifndef ZRK_TESTS_MAINQUEUEWAIT_H
#define ZRK_TESTS_MAINQUEUEWAIT_H

#include <chrono>
#include <functional>

#include "zrk/ZRKMainQueue.h"

namespace zrk::test {

// Lets the main queue run until the condition holds; false after the time-out.
inline bool runMainQueueUntil(const std::function<bool()>& done,
                              std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  return ZRKMainQueue::mainQueue().runUntil(done, timeout);
}

}  // namespace zrk::test

#endif  // ZRK_TESTS_MAINQUEUEWAIT_H
