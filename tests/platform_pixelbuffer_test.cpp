// The image path's buffers are reused between preparations: whatever was
// freed before, two live buffers must never share a byte, and each must
// hold all it was asked for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/ZRKPixelBuffer.h"

namespace zrk::detail {
namespace {

// Writes every byte: a block too small, or unmapped in part, fails here.
void fill(PixelBuffer& buffer, std::uint8_t tag) { std::memset(buffer.data(), tag, buffer.size()); }

bool holds(const PixelBuffer& buffer, std::uint8_t tag) {
  return !buffer.empty() && std::all_of(buffer.data(), buffer.data() + buffer.size(), [tag](std::uint8_t b) { return b == tag; });
}

TEST(PixelBuffer, LiveBuffersNeverShareMemoryWhateverWasFreedBefore) {
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  // Small and large, more large ones than are kept, each round in another
  // order so that kept blocks meet larger and smaller requests.
  std::vector<std::size_t> sizes = {1,        4096,     kPixelBufferMappedMinimum - 1, kPixelBufferMappedMinimum,
                                    1 * kMiB, 2 * kMiB, 2 * kMiB + 1,                  3 * kMiB,
                                    5 * kMiB, 9 * kMiB, 13 * kMiB,                     700 * 1024};
  for (int round = 0; round < 3; ++round) {
    std::vector<PixelBuffer> live;
    for (std::size_t size : sizes) {
      live.push_back(PixelBuffer::allocate(size));
      ASSERT_EQ(live.back().size(), size);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(live.back().data()) % 64, 0u);
      fill(live.back(), static_cast<std::uint8_t>(live.size()));
    }
    // Moving hands the block over once; the emptied side gives nothing back.
    PixelBuffer moved = std::move(live[5]);
    live[4] = std::move(moved);
    live[5] = PixelBuffer::allocate(sizes[5]);
    fill(live[5], 6);
    PixelBuffer& self = live[6];
    live[6] = std::move(self);
    EXPECT_TRUE(moved.empty() && moved.data() == nullptr);
    for (std::size_t i = 0; i < live.size(); ++i) {
      EXPECT_TRUE(holds(live[i], static_cast<std::uint8_t>(i == 4 ? 6 : i + 1))) << "buffer " << i << " round " << round;
    }
    std::rotate(sizes.begin(), sizes.begin() + 5, sizes.end());
  }
  EXPECT_TRUE(PixelBuffer::allocate(0).empty());
  EXPECT_TRUE(PixelBuffer::allocate(SIZE_MAX).empty());
  EXPECT_TRUE(PixelBuffer::allocate(SIZE_MAX - (std::size_t{1} << 20)).empty());
}

TEST(PixelBuffer, ThreadsTakingAndReturningBlocksKeepTheirOwn) {
  std::vector<std::thread> threads;
  std::vector<int> intact(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &intact] {
      for (int i = 0; i < 30; ++i) {
        PixelBuffer a = PixelBuffer::allocate((std::size_t{1} + (i + t) % 3) << 20);
        PixelBuffer b = PixelBuffer::allocate(kPixelBufferMappedMinimum + static_cast<std::size_t>(i));
        fill(a, static_cast<std::uint8_t>(2 * t + 1));
        fill(b, static_cast<std::uint8_t>(2 * t + 2));
        intact[static_cast<std::size_t>(t)] += holds(a, static_cast<std::uint8_t>(2 * t + 1)) &&
                                               holds(b, static_cast<std::uint8_t>(2 * t + 2));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(intact, std::vector<int>(4, 30));
}

TEST(PixelBuffer, PrefaultingKeepsWhatTheBlockHolds) {
  std::vector<std::uint8_t> block(3 << 20);
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(i * 7 + i / 4096);
  const std::vector<std::uint8_t> before = block;
  prefaultForWriting(block.data() + 1, block.size() - 2);
  EXPECT_TRUE(block == before);
}

}  // namespace
}  // namespace zrk::detail
