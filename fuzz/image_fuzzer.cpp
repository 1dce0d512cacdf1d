// JPEG and PNG loading, the resampler and the scan upload built on them.
//
// Input: the bytes of an image file. Run with -rss_limit_mb=2048 and a
// max_len: a few header bytes can declare a very large picture.
#include <algorithm>

#include "FuzzCheck.h"
#include "zrk/ZRKImage.h"

namespace zrk::fuzz {

// The library accepts up to 100 megapixels; decoding that much per input
// would leave the fuzzer a handful of runs a minute. Larger images still
// have their headers read, and their reduced decode up to the second limit.
constexpr std::int64_t kFullDecodePixels = 1 << 20;
constexpr std::int64_t kReducedDecodePixels = 1 << 24;

bool hasAllPixels(const ZRKImage& image) {
  const auto pixels = image.RGBAPixels();
  return pixels && pixels->size() == std::size_t{4} * image.pixelWidth() * image.pixelHeight();
}

// A reduction that a fresh JPEG serves straight from the decoder. The
// target is given as displayed; the stored pixels follow the orientation.
void checkScaled(const std::string& bytes, bool sideways) {
  const auto image = ZRKImage::imageWithData(bytes);
  const ZRKSize target{static_cast<double>(std::max(1, image->pixelWidth() / 9)),
                       static_cast<double>(std::max(1, image->pixelHeight() / 9))};
  const auto scaled = zrk_imageScaledToFitSize(*image, target);
  if (!scaled) return;
  ZRK_FUZZ_CHECK(scaled->imageOrientation() == image->imageOrientation() && scaled->scale() == 1);
  ZRK_FUZZ_CHECK(scaled->pixelWidth() == static_cast<int>(sideways ? target.height : target.width));
  ZRK_FUZZ_CHECK(scaled->pixelHeight() == static_cast<int>(sideways ? target.width : target.height));
  ZRK_FUZZ_CHECK(hasAllPixels(*scaled));
}

void checkUpload(const ZRKImage& image) {
  const bool decodes = image.RGBAPixels() != nullptr;
  if (decodes) ZRK_FUZZ_CHECK(hasAllPixels(image));
  // Whatever decodes can be uploaded, unless the reduction truncates its
  // shorter side to nothing (8201x7 becomes 1000x0.85): that scaling fails,
  // as it does on the platform, and the part goes without content.
  const ZRKSize points = image.size();
  const double longest = std::max(points.width, points.height);
  const bool vanishes = longest > 1000 && std::min(points.width, points.height) * 1000 / longest < 1;
  const std::optional<std::string> jpeg = ZRKScanUploadJPEG(image);
  ZRK_FUZZ_CHECK(jpeg.has_value() == (decodes && !vanishes));
  if (!jpeg) return;
  const auto uploaded = ZRKImage::imageWithData(*jpeg);
  ZRK_FUZZ_CHECK(uploaded && uploaded->imageOrientation() == ZRKImageOrientation::up);
  ZRK_FUZZ_CHECK(uploaded->pixelWidth() <= 1000 && uploaded->pixelHeight() <= 1000);
  // Upright: the displayed size of the original, reduced to fit.
  if (longest <= 1000) {
    ZRK_FUZZ_CHECK(uploaded->pixelWidth() == points.width && uploaded->pixelHeight() == points.height);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = asString(data, size);
  const auto image = ZRKImage::imageWithData(bytes);
  if (!image) return 0;
  const std::int64_t width = image->pixelWidth(), height = image->pixelHeight();
  ZRK_FUZZ_CHECK(width > 0 && height > 0 && width <= 16384 && height <= 16384 && width * height <= 100'000'000);
  const auto o = image->imageOrientation();
  const bool sideways = o == ZRKImageOrientation::left || o == ZRKImageOrientation::right ||
                        o == ZRKImageOrientation::leftMirrored || o == ZRKImageOrientation::rightMirrored;
  const ZRKSize points = image->size();
  ZRK_FUZZ_CHECK(points.width == (sideways ? height : width) && points.height == (sideways ? width : height));

  // Only a JPEG reaches the reduced decode; a PNG is decoded in full.
  const bool jpeg = size > 1 && data[0] == 0xFF && data[1] == 0xD8;
  if (width * height <= (jpeg ? kReducedDecodePixels : kFullDecodePixels)) {
    checkScaled(bytes, sideways);
  }
  if (width * height <= kFullDecodePixels) checkUpload(*image);
  return 0;
}

}  // namespace zrk::fuzz
