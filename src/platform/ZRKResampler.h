// Resizing of 8-bit interleaved pixels with a Lanczos-3 filter.
#ifndef ZRK_PLATFORM_ZRKRESAMPLER_H
#define ZRK_PLATFORM_ZRKRESAMPLER_H

#include <cstddef>
#include <cstdint>

namespace zrk::detail {

struct PixelView {
  const std::uint8_t* data = nullptr;
  int width = 0;
  int height = 0;
  std::ptrdiff_t stride = 0;  // bytes from one row to the next
  int channels = 4;           // 1, 3 or 4, interleaved
};

struct MutablePixelView {
  std::uint8_t* data = nullptr;
  int width = 0;
  int height = 0;
  std::ptrdiff_t stride = 0;
  int channels = 4;
};

// Resamples src into dst (any sizes of at least 1x1, equal channel counts):
// separable Lanczos-3, the kernel widened by the reduction factor so that
// every source pixel is covered when reducing. Channels are filtered
// independently (alpha is not premultiplied). False, with dst untouched,
// when the views are invalid. Safe from any thread.
bool resample(const PixelView& src, const MutablePixelView& dst);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKRESAMPLER_H
