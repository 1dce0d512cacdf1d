#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/MainQueueWait.h"
#include "zrk/ZRKDispatchFunctions.h"
#include "zrk/ZRKMainQueue.h"

namespace zrk {
namespace {

TEST(MainThreadDispatch, RunsAtOnceOnTheMainThread) {
  ASSERT_TRUE(ZRKMainQueue::isMainThread());
  bool ran = false;
  zrkDispatchToMainThreadIfNecessary([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(MainThreadDispatch, PostsFromOtherThreadsAndReturnsFirst) {
  std::atomic<bool> returned{false};
  std::atomic<bool> ranBeforeReturn{false};
  std::atomic<bool> ranOnMain{false};
  std::atomic<bool> ran{false};
  std::thread([&] {
    EXPECT_FALSE(ZRKMainQueue::isMainThread());
    zrkDispatchToMainThreadIfNecessary([&] {
      ranBeforeReturn = !returned.load();
      ranOnMain = ZRKMainQueue::isMainThread();
      ran = true;
    });
    returned = true;
  }).join();
  EXPECT_FALSE(ran);
  ASSERT_TRUE(test::runMainQueueUntil([&] { return ran.load(); }));
  EXPECT_FALSE(ranBeforeReturn);
  EXPECT_TRUE(ranOnMain);
}

TEST(MainQueue, RunsCallbacksInPostingOrderAndOnlyOnTheMainThread) {
  std::vector<int> order;
  auto& queue = ZRKMainQueue::mainQueue();
  for (int i = 0; i < 5; ++i) queue.async([&order, i] { order.push_back(i); });
  std::size_t drainedElsewhere = 1;
  std::thread([&] { drainedElsewhere = queue.drain(); }).join();
  EXPECT_EQ(drainedElsewhere, 0u);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(queue.drain(), 5u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(MainQueue, DescriptorPollsReadableWhileCallbacksWait) {
  auto& queue = ZRKMainQueue::mainQueue();
  queue.drain();
  pollfd fd{queue.fileDescriptor(), POLLIN, 0};
  ASSERT_GE(fd.fd, 0);
  EXPECT_EQ(::poll(&fd, 1, 0), 0);
  bool ran = false;
  std::thread([&] { queue.async([&] { ran = true; }); }).join();
  EXPECT_EQ(::poll(&fd, 1, 1000), 1);
  queue.drain();
  EXPECT_TRUE(ran);
  EXPECT_EQ(::poll(&fd, 1, 0), 0);
}

TEST(MainQueue, ExecutorHookReceivesWakeUps) {
  auto& queue = ZRKMainQueue::mainQueue();
  std::vector<std::function<void()>> hostLoop;
  std::mutex hostMutex;
  queue.setExecutor([&](std::function<void()> wake) {
    std::lock_guard lock(hostMutex);
    hostLoop.push_back(std::move(wake));
  });
  int ran = 0;
  std::thread([&] { queue.async([&] { ++ran; }); }).join();
  queue.setExecutor(nullptr);
  std::vector<std::function<void()>> pending;
  {
    std::lock_guard lock(hostMutex);
    pending.swap(hostLoop);
  }
  ASSERT_EQ(pending.size(), 1u);
  pending.front()();  // the host runs it on its main thread
  EXPECT_EQ(ran, 1);
}

TEST(MainQueue, RunReturnsAfterStop) {
  auto& queue = ZRKMainQueue::mainQueue();
  int ran = 0;
  queue.async([&] { ++ran; });
  queue.async([&] { queue.stop(); });
  queue.run();
  EXPECT_EQ(ran, 1);
}

TEST(GlobalQueue, RunsWorkOffTheMainThreadConcurrently) {
  struct Shared {
    std::atomic<int> offMain{0};
    std::atomic<int> inside{0};
    std::atomic<int> peak{0};
    std::atomic<int> finished{0};
  };
  // Shared ownership: the workers may still hold it when the test returns.
  auto shared = std::make_shared<Shared>();
  for (int i = 0; i < 2; ++i) {
    ZRKGlobalQueue::globalQueue().async([shared] {
      const int now = ++shared->inside;
      int seen = shared->peak.load();
      while (now > seen && !shared->peak.compare_exchange_weak(seen, now)) {
      }
      // Both callbacks must be inside at once for the wait to end early.
      for (int spin = 0; spin < 2000 && shared->peak.load() < 2; ++spin) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (!ZRKMainQueue::isMainThread()) ++shared->offMain;
      --shared->inside;
      ++shared->finished;
    });
  }
  for (int spin = 0; spin < 5000 && shared->finished.load() < 2; ++spin) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(shared->offMain.load(), 2);
  EXPECT_EQ(shared->peak.load(), 2);
}

}  // namespace
}  // namespace zrk
