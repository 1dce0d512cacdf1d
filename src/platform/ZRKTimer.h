// One private thread that runs callbacks at given times: the session's
// time-outs and the memory transport's delayed answers.
#ifndef ZRK_PLATFORM_ZRKTIMER_H
#define ZRK_PLATFORM_ZRKTIMER_H

#include <chrono>
#include <cstddef>
#include <functional>

namespace zrk::detail {

// A scheduled callback, for cancelTimer; a default one names none.
struct TimerHandle {
  std::chrono::steady_clock::time_point deadline;
  unsigned long long sequence = 0;
};

// Runs `callback` on the timer thread at `deadline` (at once if it has
// passed). Callbacks must be short: they delay every later one.
TimerHandle scheduleAt(std::chrono::steady_clock::time_point deadline, std::function<void()> callback);

// Drops a callback that has not run yet, with what it holds: a request's
// time-outs go when it ends, not days later.
void cancelTimer(const TimerHandle& handle);

// How many callbacks wait to run.
std::size_t pendingTimers();

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKTIMER_H
