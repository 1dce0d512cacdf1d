#include "zrk/ZRKMainQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace zrk {
namespace {

#if !defined(__linux__)
// Without a way to ask for the initial thread, the thread that runs static
// initialisation stands in for it.
const std::thread::id initialThread = std::this_thread::get_id();
#endif

}  // namespace

struct ZRKMainQueue::State {
  std::mutex mutex;
  std::condition_variable posted;
  std::deque<std::function<void()>> callbacks;  // guarded by mutex
  std::function<void(std::function<void()>)> executor;  // guarded by mutex
  bool stopRequested = false;  // guarded by mutex
  int eventFd = -1;

  void signalDescriptor() const {
#if defined(__linux__)
    if (eventFd >= 0) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const auto n = ::write(eventFd, &one, sizeof one);
    }
#endif
  }
  void resetDescriptor() const {
#if defined(__linux__)
    if (eventFd >= 0) {
      std::uint64_t count;
      [[maybe_unused]] const auto n = ::read(eventFd, &count, sizeof count);
    }
#endif
  }
};

ZRKMainQueue::ZRKMainQueue() : state_(new State) {
#if defined(__linux__)
  state_->eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
#endif
}

// The queue lives for the process; it is never destroyed.
ZRKMainQueue::~ZRKMainQueue() = default;

ZRKMainQueue& ZRKMainQueue::mainQueue() {
  // Leaked on purpose: completions may still be posted while static
  // destructors run.
  static ZRKMainQueue* const queue = new ZRKMainQueue;
  return *queue;
}

bool ZRKMainQueue::isMainThread() {
#if defined(__linux__)
  // Asked on every completion: two system calls per thread, not per call.
  thread_local const bool main = static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid();
  return main;
#else
  return std::this_thread::get_id() == initialThread;
#endif
}

void ZRKMainQueue::async(std::function<void()> callback) {
  if (!callback) return;
  std::function<void(std::function<void()>)> executor;
  {
    std::lock_guard lock(state_->mutex);
    const bool first = state_->callbacks.empty();
    state_->callbacks.push_back(std::move(callback));
    // Whoever runs the queue runs it until it is empty: only the callback
    // that finds it empty needs to wake the main thread.
    if (!first) return;
    executor = state_->executor;
  }
  state_->posted.notify_all();
  state_->signalDescriptor();
  if (executor) executor([this] { drain(); });
}

std::size_t ZRKMainQueue::drain() {
  if (!isMainThread()) return 0;
  state_->resetDescriptor();
  std::size_t ran = 0;
  for (;;) {
    std::function<void()> callback;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->callbacks.empty()) break;
      callback = std::move(state_->callbacks.front());
      state_->callbacks.pop_front();
    }
    callback();
    ++ran;
  }
  return ran;
}

void ZRKMainQueue::run() {
  if (!isMainThread()) return;
  for (;;) {
    {
      std::unique_lock lock(state_->mutex);
      state_->posted.wait(lock, [&] { return state_->stopRequested || !state_->callbacks.empty(); });
      if (state_->stopRequested) {
        state_->stopRequested = false;
        return;
      }
    }
    drain();
  }
}

void ZRKMainQueue::stop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopRequested = true;
  }
  state_->posted.notify_all();
}

bool ZRKMainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  if (!isMainThread()) return false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done && done()) return true;
    std::function<void()> callback;
    {
      std::unique_lock lock(state_->mutex);
      if (!state_->posted.wait_until(lock, deadline, [&] { return !state_->callbacks.empty(); })) {
        break;
      }
      callback = std::move(state_->callbacks.front());
      state_->callbacks.pop_front();
    }
    callback();
  }
  return done && done();
}

void ZRKMainQueue::runFor(std::chrono::milliseconds duration) { runUntil(nullptr, duration); }

int ZRKMainQueue::fileDescriptor() const { return state_->eventFd; }

void ZRKMainQueue::setExecutor(std::function<void(std::function<void()>)> executor) {
  bool waiting;
  {
    std::lock_guard lock(state_->mutex);
    state_->executor = executor;
    waiting = !state_->callbacks.empty();
  }
  if (executor && waiting) executor([this] { drain(); });
}

struct ZRKGlobalQueue::State {
  std::mutex mutex;
  std::condition_variable posted;
  std::deque<std::function<void()>> callbacks;  // guarded by mutex
};

ZRKGlobalQueue::ZRKGlobalQueue() : state_(new State) {
  const unsigned workers = std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
  for (unsigned i = 0; i < workers; ++i) {
    std::thread([state = state_] {
      for (;;) {
        std::function<void()> callback;
        {
          std::unique_lock lock(state->mutex);
          state->posted.wait(lock, [&] { return !state->callbacks.empty(); });
          callback = std::move(state->callbacks.front());
          state->callbacks.pop_front();
        }
        callback();
      }
    }).detach();
  }
}

ZRKGlobalQueue::~ZRKGlobalQueue() = default;

ZRKGlobalQueue& ZRKGlobalQueue::globalQueue() {
  // Leaked on purpose, like the workers, which run until the process ends.
  static ZRKGlobalQueue* const queue = new ZRKGlobalQueue;
  return *queue;
}

void ZRKGlobalQueue::async(std::function<void()> callback) {
  if (!callback) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->callbacks.push_back(std::move(callback));
  }
  state_->posted.notify_one();
}

}  // namespace zrk
