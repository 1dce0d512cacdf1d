#include "platform/ZRKTimer.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <map>
#include <utility>
#include <thread>
#include <vector>

namespace zrk::detail {
namespace {

class TimerThread {
 public:
  static TimerThread& shared() {
    // Leaked on purpose, like the I/O thread: callbacks may be pending at exit.
    static TimerThread* const timers = new TimerThread;
    return *timers;
  }

  TimerHandle schedule(std::chrono::steady_clock::time_point deadline, std::function<void()> callback) {
    TimerHandle handle{deadline, 0};
    bool earliest;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return {};
      handle.sequence = ++sequence_;
      const auto at = entries_.emplace(Key(deadline, handle.sequence), std::move(callback)).first;
      earliest = at == entries_.begin();
    }
    // The thread sleeps until the earliest deadline; a later one needs no
    // wake-up, and most are later (every request adds its time-outs).
    if (earliest) wake_.notify_one();
    return handle;
  }

  void cancel(const TimerHandle& handle) {
    if (handle.sequence == 0) return;
    std::function<void()> dropped;  // what it holds goes outside the lock
    std::lock_guard lock(mutex_);
    const auto it = entries_.find(Key(handle.deadline, handle.sequence));
    if (it == entries_.end()) return;
    dropped = std::move(it->second);
    entries_.erase(it);
  }

  std::size_t pending() {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }

 private:
  // Equal deadlines run in the order scheduled.
  using Key = std::pair<std::chrono::steady_clock::time_point, unsigned long long>;

  TimerThread() {
    thread_ = std::thread([this] { run(); });
    std::atexit([] { shared().stop(); });
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
  }

  void run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      if (entries_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const auto deadline = entries_.begin()->first.first;
      if (std::chrono::steady_clock::now() < deadline) {
        wake_.wait_until(lock, deadline);
        continue;
      }
      auto callback = std::move(entries_.begin()->second);
      entries_.erase(entries_.begin());
      lock.unlock();
      callback();
      callback = nullptr;  // what it holds goes outside the lock
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<Key, std::function<void()>> entries_;  // guarded by mutex_
  unsigned long long sequence_ = 0;               // guarded by mutex_
  bool stopping_ = false;                         // guarded by mutex_
  std::thread thread_;
};

}  // namespace

TimerHandle scheduleAt(std::chrono::steady_clock::time_point deadline, std::function<void()> callback) {
  return TimerThread::shared().schedule(deadline, std::move(callback));
}

void cancelTimer(const TimerHandle& handle) { TimerThread::shared().cancel(handle); }

std::size_t pendingTimers() { return TimerThread::shared().pending(); }

}  // namespace zrk::detail
