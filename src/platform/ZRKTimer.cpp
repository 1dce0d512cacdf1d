#include "platform/ZRKTimer.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <queue>
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

  void schedule(std::chrono::steady_clock::time_point deadline, std::function<void()> callback) {
    bool earliest;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      entries_.push(Entry{deadline, sequence_++, std::move(callback)});
      earliest = entries_.top().sequence == sequence_ - 1;
    }
    // The thread sleeps until the earliest deadline; a later one needs no
    // wake-up, and most are later (every request adds its time-out).
    if (earliest) wake_.notify_one();
  }

 private:
  struct Entry {
    std::chrono::steady_clock::time_point deadline;
    unsigned long long sequence;  // equal deadlines run in the order scheduled
    std::function<void()> callback;
    bool operator>(const Entry& other) const {
      return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
  };

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
      const auto deadline = entries_.top().deadline;
      if (std::chrono::steady_clock::now() < deadline) {
        wake_.wait_until(lock, deadline);
        continue;
      }
      auto callback = std::move(const_cast<Entry&>(entries_.top()).callback);
      entries_.pop();
      lock.unlock();
      callback();
      callback = nullptr;  // what it holds goes outside the lock
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::priority_queue<Entry, std::vector<Entry>, std::greater<>> entries_;  // guarded by mutex_
  unsigned long long sequence_ = 0;                                         // guarded by mutex_
  bool stopping_ = false;                                                   // guarded by mutex_
  std::thread thread_;
};

}  // namespace

void scheduleAt(std::chrono::steady_clock::time_point deadline, std::function<void()> callback) {
  TimerThread::shared().schedule(deadline, std::move(callback));
}

}  // namespace zrk::detail
