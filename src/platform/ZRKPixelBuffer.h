// Memory for decoded pixels and the other large buffers of the image path.
//
// The bytes are left uninitialised: every user writes the whole buffer
// before reading it, and zero-filling megabytes first would be wasted. Large
// blocks are mapped on huge-page boundaries and advised as huge pages where
// the system offers them: the first touch of a fresh 12 MB buffer costs one
// fault per 2 MiB instead of one per 4 KiB, which is most of what a
// process's first preparation costs beyond the later ones. A few freed large
// blocks are kept (marked as reclaimable by the kernel) for the next
// preparation. Safe from any thread; each buffer has one owner.
#ifndef ZRK_PLATFORM_ZRKPIXELBUFFER_H
#define ZRK_PLATFORM_ZRKPIXELBUFFER_H

#include <cstddef>
#include <cstdint>

namespace zrk::detail {

class PixelBuffer {
 public:
  PixelBuffer() noexcept = default;
  PixelBuffer(PixelBuffer&& other) noexcept;
  PixelBuffer& operator=(PixelBuffer&& other) noexcept;
  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;
  ~PixelBuffer();

  // Uninitialised bytes, aligned to 64; an empty buffer when the memory
  // cannot be had.
  static PixelBuffer allocate(std::size_t size) noexcept;

  std::uint8_t* data() noexcept { return data_; }
  const std::uint8_t* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  std::uint8_t& operator[](std::size_t i) noexcept { return data_[i]; }
  const std::uint8_t& operator[](std::size_t i) const noexcept { return data_[i]; }

 private:
  void release() noexcept;

  std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t mapped_ = 0;  // length of the mapping; 0 for a heap block
};

// Maps the whole pages of a freshly allocated block that is about to be
// written, in one call rather than one fault per page; the contents stay as
// they are. For large blocks allocated elsewhere, such as a std::string that
// a result has to be. Does nothing where the system cannot.
void prefaultForWriting(void* data, std::size_t size) noexcept;

// Blocks of at least this size are mapped; smaller ones come from the heap.
inline constexpr std::size_t kPixelBufferMappedMinimum = std::size_t{256} << 10;

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKPIXELBUFFER_H
