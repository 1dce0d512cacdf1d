// How close the upload path comes to the ideal: decoding a phone-sized JPEG
// at a reduced size and resampling the rest, against a Lanczos-3 resize of
// the full-resolution decode in double precision. (On synthetic white noise
// the reduced decode scores far lower, about 40 dB: the DCT's halving treats
// detail near the new Nyquist limit differently from Lanczos. Photographs
// hold little energy there.)
#include <gtest/gtest.h>

#include <cmath>

#include "support/ReferenceImages.h"
#include "zrk/ZRKImage.h"

namespace zrk {
namespace {

// BT.601 luma of every pixel.
std::vector<double> luma(const std::uint8_t* rgba, std::size_t pixels) {
  std::vector<double> y(pixels);
  for (std::size_t i = 0; i < pixels; ++i) {
    y[i] = 0.299 * rgba[4 * i] + 0.587 * rgba[4 * i + 1] + 0.114 * rgba[4 * i + 2];
  }
  return y;
}

double psnr(const std::vector<double>& a, const std::vector<double>& b) {
  double squared = 0;
  for (std::size_t i = 0; i < a.size(); ++i) squared += (a[i] - b[i]) * (a[i] - b[i]);
  const double mse = squared / static_cast<double>(a.size());
  return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

TEST(ImagePipelineQuality, TwelveMegapixelPhotoStaysWithinFortyEightDecibels) {
  // A measurement of the filters, not of memory or thread safety: the other
  // image tests cover those under the sanitizers at a fraction of the size.
  if (kInstrumented) GTEST_SKIP() << "too slow instrumented";
  const test::Image source = test::photoLike(4032, 3024, 12);
  const auto original = ZRKImage::imageWithRGBAPixels(source.pixels, 4032, 3024);
  const auto jpeg = ZRKImageJPEGRepresentation(*original, 0.92);
  ASSERT_TRUE(jpeg);

  const auto photo = ZRKImage::imageWithData(*jpeg);
  const auto upload = zrk_imageScaledToFitSize(*photo, {1000, 750});
  ASSERT_TRUE(upload);
  ASSERT_EQ(upload->pixelWidth(), 1000);

  const auto decoded = ZRKImage::imageWithData(*jpeg)->RGBAPixels();
  ASSERT_TRUE(decoded);
  test::Image full(4032, 3024, 4);
  full.pixels = *decoded;
  const test::Image reference = test::referenceResample(full, 1000, 750);

  const double quality = psnr(luma(upload->RGBAPixels()->data(), 1000 * 750), luma(reference.pixels.data(), 1000 * 750));
  RecordProperty("luma_psnr_db", std::to_string(quality));
  EXPECT_GE(quality, 48.0);
}

}  // namespace
}  // namespace zrk
