// JPEG and PNG reading and JPEG writing for ZRKImage, over TurboJPEG and
// libspng. Every function takes untrusted bytes: none of them reads past the
// buffer, and declared sizes beyond the limits below are refused before
// anything is allocated. All functions are safe from any thread.
#ifndef ZRK_PLATFORM_ZRKIMAGECODEC_H
#define ZRK_PLATFORM_ZRKIMAGECODEC_H

#include "platform/ZRKPixelBuffer.h"
#include "zrk/ZRKImage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zrk::detail {

// A camera's largest photo fits with room to spare; a few bytes that declare
// more are refused rather than trusted with gigabytes.
inline constexpr int kMaxImageSide = 1 << 14;
inline constexpr std::uint64_t kMaxImagePixels = 100'000'000;

bool isWithinImageLimits(std::int64_t width, std::int64_t height);

struct RGBAImage {
  PixelBuffer pixels;  // width x height x 4, rows without padding
  int width = 0;
  int height = 0;
};

struct EncodedImageInfo {
  int width = 0;
  int height = 0;
  ZRKImageOrientation orientation = ZRKImageOrientation::up;
};

bool looksLikeJPEG(std::string_view data);
bool looksLikePNG(std::string_view data);

// The EXIF orientation tag (1-8) of the first APP1 "Exif" segment before
// the first scan; 1 when there is none or anything about it is malformed.
int jpegEXIFOrientation(std::string_view jpeg);
ZRKImageOrientation orientationFromEXIF(int exifOrientation);

// Size and orientation from the headers alone; nullopt when the header is
// broken or the size is beyond the limits.
std::optional<EncodedImageInfo> readJPEGInfo(std::string_view jpeg);
std::optional<EncodedImageInfo> readPNGInfo(std::string_view png);

struct JPEGScale {
  int num = 1;
  int denom = 1;
  friend bool operator==(const JPEGScale&, const JPEGScale&) = default;
};

// The strongest of the decoder's 1/2, 1/4 and 1/8 reductions that still
// leaves at least twice the target in both dimensions, so that the
// resampler, not the DCT, does the final filtering; 1/1 when none does.
JPEGScale jpegReductionFor(int width, int height, int targetWidth, int targetHeight);

// Decodes at the given reduction. A stream that ends early or carries
// corrupt entropy data decodes as far as it goes (the decoder only warns;
// the rest comes out grey), as photo viewers show it; fatal errors give
// nullopt. Adobe CMYK/YCCK is turned into RGB.
std::optional<RGBAImage> decodeJPEG(std::string_view jpeg, JPEGScale scale = {});

// Any PNG (all bit depths, palettes, interlacing, tRNS) as RGBA8; nullopt on
// any error, truncation included.
std::optional<RGBAImage> decodePNG(std::string_view png);

// Baseline JPEG, 4:2:0, alpha ignored; quality 1-100.
std::optional<std::string> encodeJPEG(const std::uint8_t* rgba, int width, int height, int quality);

// The pixels turned so that they display upright without an orientation;
// nullopt when the memory cannot be had.
std::optional<RGBAImage> orientedUpright(const std::uint8_t* rgba, int width, int height, ZRKImageOrientation orientation);

bool isSideways(ZRKImageOrientation orientation);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKIMAGECODEC_H
