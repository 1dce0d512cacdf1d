// The queues on which the library runs code: the main queue and the global
// worker pool.
//
// The main thread is the process's initial thread. Completions of the
// library's requests are posted to the main queue and run only when the host
// application lets the queue run there, in one of three ways:
//   1. it calls run(), runUntil() or drain() on the main thread;
//   2. it watches fileDescriptor() in its own poll/epoll/select loop and
//      calls drain() when the descriptor becomes readable;
//   3. it installs an executor with setExecutor() that posts a callable to
//      its own loop (g_idle_add, QMetaObject::invokeMethod, asio::post, ...),
//      which then runs the callable on the main thread.
// Callbacks run in the order they were posted, one at a time, never on any
// other thread. Posting is safe from any thread. The queues live until the
// process ends.
#ifndef ZRK_ZRKMAINQUEUE_H
#define ZRK_ZRKMAINQUEUE_H

#include "zrk/ZRKExport.h"

#include <chrono>
#include <cstddef>
#include <functional>

namespace zrk {

// Something that runs callbacks asynchronously.
class ZRK_API ZRKDispatchQueue {
 public:
  virtual ~ZRKDispatchQueue() = default;
  // Runs the callback later, never before this call returns.
  virtual void async(std::function<void()> callback) = 0;
};

class ZRK_API ZRKMainQueue final : public ZRKDispatchQueue {
 public:
  // The one main queue of the process.
  static ZRKMainQueue& mainQueue();

  // True on the process's initial thread.
  static bool isMainThread();

  void async(std::function<void()> callback) override;

  // Runs the callbacks posted so far and those they post in turn, until the
  // queue is empty; returns how many ran. Does nothing off the main thread.
  std::size_t drain();

  // Runs callbacks as they arrive until stop() is called. Main thread only.
  void run();
  // Makes run() return after the callback it is running, if any. Any thread.
  void stop();

  // Runs callbacks as they arrive until done() returns true (checked after
  // every callback and at the start) or the time-out passes; returns done()'s
  // last answer. Main thread only; off it, returns false at once.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  // Runs callbacks as they arrive for the given time.
  void runFor(std::chrono::milliseconds duration);

  // A descriptor that polls readable while callbacks are waiting; drain()
  // resets it. -1 where the system offers no such descriptor.
  int fileDescriptor() const;

  // Hands the main thread's wake-ups to the host's own loop: the executor
  // receives a callable that must be run on the main thread, and that drains
  // the queue. It is called when a callback is posted to an empty queue, since
  // one drain runs every callback waiting. An empty function removes the
  // executor. Callbacks already waiting are announced to the new executor at
  // once.
  void setExecutor(std::function<void(std::function<void()>)> executor);

  ZRKMainQueue(const ZRKMainQueue&) = delete;
  ZRKMainQueue& operator=(const ZRKMainQueue&) = delete;

 private:
  ZRKMainQueue();
  ~ZRKMainQueue() override;
  struct State;
  State* state_;
};

// A small fixed pool of worker threads of default priority, for work that
// must not run on the caller's or the main thread.
class ZRK_API ZRKGlobalQueue final : public ZRKDispatchQueue {
 public:
  static ZRKGlobalQueue& globalQueue();
  void async(std::function<void()> callback) override;

  ZRKGlobalQueue(const ZRKGlobalQueue&) = delete;
  ZRKGlobalQueue& operator=(const ZRKGlobalQueue&) = delete;

 private:
  ZRKGlobalQueue();
  ~ZRKGlobalQueue() override;
  struct State;
  State* state_;
};

}  // namespace zrk

#endif  // ZRK_ZRKMAINQUEUE_H
