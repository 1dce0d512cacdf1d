// JPEG and PNG loading, the resampler and the scan upload built on them.
//
// Input: the bytes of an image file. Run with -rss_limit_mb=2048 and a
// max_len: a few header bytes can declare a very large picture.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "endpoints/ZRKScanUpload.h"
#include "zrk/ZRKImage.h"

namespace zrk::fuzz {
namespace {

// The library accepts up to 100 megapixels; decoding that much per input
// would leave the fuzzer a handful of runs a minute. Larger images still
// have their headers read, and their reduced decode up to the second limit.
constexpr std::int64_t kFullDecodePixels = 1 << 20;
constexpr std::int64_t kReducedDecodePixels = 1 << 24;

bool isSideways(ZRKImageOrientation o) {
  return o == ZRKImageOrientation::left || o == ZRKImageOrientation::right ||
         o == ZRKImageOrientation::leftMirrored || o == ZRKImageOrientation::rightMirrored;
}

void checkHeader(const ZRKImage& image) {
  ZRK_FUZZ_CHECK(image.pixelWidth() > 0 && image.pixelHeight() > 0);
  ZRK_FUZZ_CHECK(image.pixelWidth() <= 16384 && image.pixelHeight() <= 16384);
  ZRK_FUZZ_CHECK(std::int64_t{image.pixelWidth()} * image.pixelHeight() <= 100'000'000);
  const ZRKSize points = image.size();
  const bool sideways = isSideways(image.imageOrientation());
  ZRK_FUZZ_CHECK(points.width == (sideways ? image.pixelHeight() : image.pixelWidth()));
  ZRK_FUZZ_CHECK(points.height == (sideways ? image.pixelWidth() : image.pixelHeight()));
}

// A reduction that a fresh JPEG serves straight from the decoder.
void checkScaled(const std::string& bytes) {
  const auto image = ZRKImage::imageWithData(bytes);
  const ZRKSize target{static_cast<double>(std::max(1, image->pixelWidth() / 9)),
                       static_cast<double>(std::max(1, image->pixelHeight() / 9))};
  const auto scaled = zrk_imageScaledToFitSize(*image, target);
  if (!scaled) return;
  ZRK_FUZZ_CHECK(scaled->imageOrientation() == image->imageOrientation() && scaled->scale() == 1);
  // The target is given as displayed; the stored pixels follow the orientation.
  const bool sideways = isSideways(image->imageOrientation());
  ZRK_FUZZ_CHECK(scaled->pixelWidth() == static_cast<int>(sideways ? target.height : target.width));
  ZRK_FUZZ_CHECK(scaled->pixelHeight() == static_cast<int>(sideways ? target.width : target.height));
  const auto pixels = scaled->RGBAPixels();
  ZRK_FUZZ_CHECK(pixels && pixels->size() == std::size_t{4} * scaled->pixelWidth() * scaled->pixelHeight());
}

void checkUpload(const ZRKImage& image) {
  const auto pixels = image.RGBAPixels();
  if (pixels) ZRK_FUZZ_CHECK(pixels->size() == std::size_t{4} * image.pixelWidth() * image.pixelHeight());

  const std::optional<std::string> jpeg = detail::scanUploadJPEG(image);
  // Whatever decodes can be uploaded, unless the reduction truncates its
  // shorter side to nothing (8201x7 becomes 1000x0.85): that scaling fails,
  // as it does on the platform, and the part goes without content.
  const ZRKSize points = image.size();
  const double longest = std::max(points.width, points.height);
  const bool vanishes = longest > 1000 && std::min(points.width, points.height) * 1000 / longest < 1;
  ZRK_FUZZ_CHECK(jpeg.has_value() == (pixels != nullptr && !vanishes));
  if (!jpeg) return;
  const auto uploaded = ZRKImage::imageWithData(*jpeg);
  ZRK_FUZZ_CHECK(uploaded && uploaded->imageOrientation() == ZRKImageOrientation::up);
  ZRK_FUZZ_CHECK(uploaded->pixelWidth() <= 1000 && uploaded->pixelHeight() <= 1000);
  // Upright: the displayed size of the original, reduced to fit.
  if (points.width <= 1000 && points.height <= 1000) {
    ZRK_FUZZ_CHECK(uploaded->pixelWidth() == points.width && uploaded->pixelHeight() == points.height);
  }
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const auto image = ZRKImage::imageWithData(bytes);
  if (!image) return 0;
  fuzz::checkHeader(*image);
  const std::int64_t pixels = std::int64_t{image->pixelWidth()} * image->pixelHeight();
  // Only a JPEG reaches the reduced decode; a PNG is decoded in full.
  const bool jpeg = size > 1 && data[0] == 0xFF && data[1] == 0xD8;
  if (pixels <= (jpeg ? fuzz::kReducedDecodePixels : fuzz::kFullDecodePixels)) fuzz::checkScaled(bytes);
  if (pixels <= fuzz::kFullDecodePixels) fuzz::checkUpload(*image);
  return 0;
}
