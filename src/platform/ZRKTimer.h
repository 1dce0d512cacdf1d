// One private thread that runs callbacks at given times: the session's
// time-outs and the memory transport's delayed answers.
#ifndef ZRK_PLATFORM_ZRKTIMER_H
#define ZRK_PLATFORM_ZRKTIMER_H

#include <chrono>
#include <functional>

namespace zrk::detail {

// Runs `callback` on the timer thread at `deadline` (at once if it has
// passed). Callbacks must be short: they delay every later one.
void scheduleAt(std::chrono::steady_clock::time_point deadline, std::function<void()> callback);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKTIMER_H
