#include "platform/ZRKPixelBuffer.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#if defined(__SANITIZE_ADDRESS__)
#define ZRK_PIXELBUFFER_HEAP_ONLY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZRK_PIXELBUFFER_HEAP_ONLY 1
#endif
#endif
#if !defined(__linux__)
#define ZRK_PIXELBUFFER_HEAP_ONLY 1
#endif

namespace zrk::detail {
namespace {

constexpr std::align_val_t kHeapAlignment{64};

#ifndef ZRK_PIXELBUFFER_HEAP_ONLY

constexpr std::size_t kHugePage = std::size_t{2} << 20;

// What one preparation frees: the file, the decoded and the scaled pixels,
// the encoder's output. Kept blocks are advised MADV_FREE, so under memory
// pressure the kernel takes their pages back without asking.
class MappedBlocks {
 public:
  static constexpr std::size_t kMaxBlocks = 8;
  static constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

  // A kept block of at least `length` bytes and at most twice that, or null.
  std::uint8_t* take(std::size_t length, std::size_t& mapped) {
    std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < count_; ++i) {
      if (blocks_[i].length >= length && blocks_[i].length / 2 <= length) {
        std::uint8_t* data = blocks_[i].data;
        mapped = blocks_[i].length;
        bytes_ -= mapped;
        blocks_[i] = blocks_[--count_];
        return data;
      }
    }
    return nullptr;
  }

  void give(std::uint8_t* data, std::size_t length) {
    if (length > kMaxBytes) {
      munmap(data, length);
      return;
    }
#ifdef MADV_FREE
    madvise(data, length, MADV_FREE);
#endif
    std::lock_guard lock(mutex_);
    // The oldest go first: the next preparation most likely repeats the last.
    while (count_ == kMaxBlocks || bytes_ + length > kMaxBytes) {
      munmap(blocks_[0].data, blocks_[0].length);
      bytes_ -= blocks_[0].length;
      for (std::size_t i = 1; i < count_; ++i) blocks_[i - 1] = blocks_[i];
      --count_;
    }
    blocks_[count_++] = {data, length};
    bytes_ += length;
  }

 private:
  struct Block {
    std::uint8_t* data = nullptr;
    std::size_t length = 0;
  };
  std::mutex mutex_;
  std::array<Block, kMaxBlocks> blocks_{};  // GUARDED_BY(mutex_), oldest first
  std::size_t count_ = 0;                    // GUARDED_BY(mutex_)
  std::size_t bytes_ = 0;                    // GUARDED_BY(mutex_)
};

// Never destroyed: a buffer may be freed by a static destructor after this
// one would have run.
MappedBlocks& mappedBlocks() {
  static MappedBlocks* const blocks = new MappedBlocks;
  return *blocks;
}

// `length` bytes (a multiple of the huge page) starting on a huge-page
// boundary, so that the kernel can back all of it with huge pages.
std::uint8_t* mapAligned(std::size_t length) {
  void* raw = mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const auto begin = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (begin + kHugePage - 1) & ~(std::uintptr_t{kHugePage} - 1);
  if (aligned > begin) munmap(raw, aligned - begin);
  const std::uintptr_t end = begin + length + kHugePage;
  if (end > aligned + length) munmap(reinterpret_cast<void*>(aligned + length), end - aligned - length);
  auto* data = reinterpret_cast<std::uint8_t*>(aligned);
#ifdef MADV_HUGEPAGE
  madvise(data, length, MADV_HUGEPAGE);  // refused where the system has none: then small pages
#endif
  return data;
}

#endif  // ZRK_PIXELBUFFER_HEAP_ONLY

}  // namespace

void prefaultForWriting(void* data, std::size_t size) noexcept {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  constexpr std::uintptr_t kPage = 4096;
  const auto begin = (reinterpret_cast<std::uintptr_t>(data) + kPage - 1) & ~(kPage - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(data) + size) & ~(kPage - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#else
  (void)data;
  (void)size;
#endif
}

PixelBuffer PixelBuffer::allocate(std::size_t size) noexcept {
  PixelBuffer buffer;
  // Far beyond any image the codecs accept; refused before any allocator
  // (or a sanitizer's) sees it.
  constexpr auto kLargest = static_cast<std::size_t>(std::min<std::uint64_t>(std::uint64_t{1} << 39, PTRDIFF_MAX));
  if (size == 0 || size > kLargest) return buffer;
#ifndef ZRK_PIXELBUFFER_HEAP_ONLY
  if (size >= kPixelBufferMappedMinimum) {
    const std::size_t length = (size + kHugePage - 1) / kHugePage * kHugePage;
    std::size_t mapped = 0;
    std::uint8_t* data = mappedBlocks().take(length, mapped);
    if (!data) {
      data = mapAligned(length);
      mapped = length;
    }
    if (!data) return buffer;
    buffer.data_ = data;
    buffer.size_ = size;
    buffer.mapped_ = mapped;
    return buffer;
  }
#endif
  buffer.data_ = static_cast<std::uint8_t*>(::operator new[](size, kHeapAlignment, std::nothrow));
  if (buffer.data_) buffer.size_ = size;
  return buffer;
}

PixelBuffer::PixelBuffer(PixelBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, 0)) {}

PixelBuffer& PixelBuffer::operator=(PixelBuffer&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapped_ = std::exchange(other.mapped_, 0);
  }
  return *this;
}

PixelBuffer::~PixelBuffer() { release(); }

void PixelBuffer::release() noexcept {
  if (!data_) return;
#ifndef ZRK_PIXELBUFFER_HEAP_ONLY
  if (mapped_ != 0) {
    mappedBlocks().give(data_, mapped_);
  } else {
    ::operator delete[](data_, kHeapAlignment);
  }
#else
  ::operator delete[](data_, kHeapAlignment);
#endif
  data_ = nullptr;
  size_ = 0;
  mapped_ = 0;
}

}  // namespace zrk::detail
