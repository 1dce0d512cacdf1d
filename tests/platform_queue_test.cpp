#include <gtest/gtest.h>

#include <poll.h>

#include <semaphore>
#include <thread>

#include "support/Recorder.h"
#include "zrk/ZRKDispatchFunctions.h"
#include "zrk/ZRKMainQueue.h"

namespace zrk {
namespace {

ZRKMainQueue& queue() { return ZRKMainQueue::mainQueue(); }

TEST(MainThreadDispatch, RunsAtOnceOnTheMainThreadAndPostsFromOthers) {
  test::Recorder<> here, there;
  zrkDispatchToMainThreadIfNecessary(here.completion());
  EXPECT_EQ(here.calls(), 1u);
  std::thread([&] {
    zrkDispatchToMainThreadIfNecessary(there.completion());
    EXPECT_EQ(there.calls(), 0u);  // posted, not run on the way
  }).join();
  EXPECT_TRUE(there.once());
}

TEST(MainQueue, RunsCallbacksInPostingOrderOnlyOnTheMainThreadAndSignalsTheDescriptor) {
  pollfd fd{queue().fileDescriptor(), POLLIN, 0};
  queue().drain();
  std::vector<int> order;
  std::thread([&] {
    for (int i = 0; i < 5; ++i) queue().async([&order, i] { order.push_back(i); });
    EXPECT_EQ(queue().drain(), 0u);
  }).join();
  EXPECT_EQ(::poll(&fd, 1, 0), 1);
  EXPECT_EQ(queue().drain(), 5u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(::poll(&fd, 1, 0), 0);
}

TEST(MainQueue, ExecutorHearsOfPostedAndAlreadyWaitingCallbacks) {
  std::vector<std::function<void()>> hostLoop;  // no lock: the one other poster is joined before it is read
  test::Recorder<> early, late;
  queue().async(early.completion());
  queue().setExecutor([&](std::function<void()> wake) { hostLoop.push_back(std::move(wake)); });
  std::thread([&] { queue().async(late.completion()); }).join();
  queue().setExecutor(nullptr);
  ASSERT_EQ(hostLoop.size(), 1u);  // one drain serves both: the second found the queue waiting
  hostLoop.front()();  // the host runs it on its main thread
  EXPECT_EQ(early.calls() + late.calls(), 2u);
}

TEST(MainQueue, RunStopsWhenAskedEachTimeAndRunUntilLooksBeforeWaiting) {
  for (int round = 0; round < 2; ++round) {
    test::Recorder<> ran;
    queue().async(ran.completion()), queue().async([] { queue().stop(); }), queue().run();
    EXPECT_EQ(ran.calls(), 1u) << round;
  }
  test::Recorder<> waiting;
  queue().async(waiting.completion());
  EXPECT_TRUE(queue().runUntil([] { return true; }, std::chrono::seconds(10)));
  EXPECT_EQ(waiting.calls(), 0u);
  EXPECT_EQ(queue().drain(), 1u);
}

TEST(GlobalQueue, RunsWorkOffTheMainThreadConcurrently) {
  // Only a second worker can let the first one through. Shared: a worker may still hold it after the test.
  const auto second = std::make_shared<std::binary_semaphore>(0);
  test::Recorder<bool> first;
  ZRKGlobalQueue::globalQueue().async(
      [second, done = first.completion()] { done(second->try_acquire_for(std::chrono::seconds(10))); });
  ZRKGlobalQueue::globalQueue().async([second] { second->release(); });
  ASSERT_TRUE(first.wait(std::chrono::seconds(20)));
  EXPECT_TRUE(first.arg<0>() && first.offMainThread());
}

}  // namespace
}  // namespace zrk
