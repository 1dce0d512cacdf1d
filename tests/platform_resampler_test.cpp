#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "platform/ZRKResampler.h"
#include "platform/ZRKResamplerTargets.h"
#include "support/ReferenceImages.h"

namespace {

using zrk::detail::MutablePixelView;
using zrk::detail::PixelView;
using zrk::detail::resample;
using zrk::test::Image;
using zrk::test::referenceResample;
using zrk::test::textured;

Image resampled(const Image& src, int w, int h) {
  Image out(w, h, src.channels);
  EXPECT_TRUE(resample(src.view(), out.mutableView()));
  return out;
}

TEST(Resampler, FollowsTheDoublePrecisionFilter) {
  // A photo reduced about 2x, a reduction of 8x (the widest kernel), one by
  // a pixel (the phase drifts across the image), an enlargement, and images
  // one pixel thin.
  const int cases[][4] = {{2016, 1512, 1000, 750}, {800, 600, 100, 75}, {1001, 800, 1000, 799}, {10, 10, 37, 23},
                          {1, 300, 1, 37},         {300, 1, 37, 1},     {1, 1, 3, 2},          {5, 301, 2, 7}};
  for (const auto& c : cases) {
    const std::string name = std::to_string(c[0]) + "x" + std::to_string(c[1]) + " -> " + std::to_string(c[2]) +
                             "x" + std::to_string(c[3]);
    SCOPED_TRACE(name);
    const Image src = textured(c[0], c[1], 4, 7);
    const auto got = resampled(src, c[2], c[3]).split().first;
    const auto want = referenceResample(src, c[2], c[3]).split().first;
    double squares = 0;
    int largest = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
      squares += (got[i] - want[i]) * (got[i] - want[i]);
      largest = std::max(largest, std::abs(got[i] - want[i]));
    }
    const double psnr = squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * static_cast<double>(got.size()) / squares);
    RecordProperty(name, std::to_string(psnr));
    EXPECT_GE(psnr, 48.0);
    // PSNR averages a local fault away; rounding alone never costs more.
    EXPECT_LE(largest, 1);
  }
}

TEST(Resampler, EqualSizesCopyExactly) {
  const Image src = textured(33, 17, 4, 1);
  Image out(33, 17, 4, 5, 0xEE);
  ASSERT_TRUE(resample(src.view(), out.mutableView()));
  EXPECT_EQ(out.split().first, src.split().first);
  EXPECT_EQ(out.split().second, std::vector<int>(5 * 17, 0xEE));
  // A side that keeps its size goes through the filter as an exact copy.
  const Image column = textured(1, 40, 4, 2);
  const Image widened = resampled(column, 3, 40);
  for (int x = 0; x < 3; ++x) {
    for (int y = 0; y < 40; ++y) {
      for (int c = 0; c < 4; ++c) ASSERT_EQ(widened.at(x, y, c), column.at(0, y, c));
    }
  }
}

TEST(Resampler, KeepsFlatAreasExactlyFlat) {
  const int sizes[][4] = {{640, 480, 100, 75}, {7, 5, 64, 50}, {500, 3, 9, 40}, {1, 97, 1, 2}, {4032, 8, 1000, 2}};
  for (const auto& s : sizes) {
    for (int channels : {1, 3, 4}) {
      Image src(s[0], s[1], channels);
      for (std::size_t i = 0; i < src.pixels.size(); ++i) {
        src.pixels[i] = static_cast<std::uint8_t>(255 - 60 * (i % static_cast<std::size_t>(channels)));
      }
      const Image out = resampled(src, s[2], s[3]);
      for (int c = 0; c < channels; ++c) {
        EXPECT_EQ(out.split(c).first, std::vector<int>(static_cast<std::size_t>(s[2] * s[3]), src.at(0, 0, c)))
            << s[0] << "x" << s[1] << " -> " << s[2] << "x" << s[3] << ", channel " << c << " of " << channels;
      }
    }
  }
}

TEST(Resampler, RejectsInvalidViewsAndLeavesTheTargetAlone) {
  std::vector<std::uint8_t> pixels(64 * 64 * 4, 9);
  std::vector<std::uint8_t> target(32 * 32 * 4, 0xAB);
  const PixelView good{pixels.data(), 64, 64, 64 * 4, 4};
  const MutablePixelView out{target.data(), 32, 32, 32 * 4, 4};
  const std::vector<std::pair<PixelView, MutablePixelView>> invalid = {
      {{nullptr, 64, 64, 64 * 4, 4}, out},
      {{pixels.data(), 0, 64, 64 * 4, 4}, out},
      {{pixels.data(), 64, -1, 64 * 4, 4}, out},
      {{pixels.data(), 64, 64, 64 * 4, 2}, out},
      {{pixels.data(), 64, 64, 64 * 4 - 1, 4}, out},
      {good, {target.data(), 32, 32, 32 * 4, 3}},
      {good, {target.data(), 32, 32, 0, 4}},
      // A target inside the source would be overwritten before it is read.
      {{target.data(), 16, 16, 32 * 4, 4}, {target.data() + 8 * 32 * 4, 8, 8, 32 * 4, 4}}};
  for (const auto& [src, dst] : invalid) {
    EXPECT_FALSE(resample(src, dst));
    EXPECT_TRUE(std::all_of(target.begin(), target.end(), [](std::uint8_t b) { return b == 0xAB; }));
  }
  EXPECT_TRUE(resample(good, out));
}

// Also with padded rows, whose padding in the target stays as it was.
TEST(Resampler, OneAndThreeChannelsMatchFourChannels) {
  const Image rgba = textured(301, 203, 4, 3);
  Image rgb(rgba.width, rgba.height, 3, 13);
  Image gray(rgba.width, rgba.height, 1, 1);
  for (int y = 0; y < rgba.height; ++y) {
    for (int x = 0; x < rgba.width; ++x) {
      for (int c = 0; c < 3; ++c) rgb.at(x, y, c) = rgba.at(x, y, c);
      gray.at(x, y, 0) = rgba.at(x, y, 1);
    }
  }
  for (const auto& [w, h] : {std::pair{97, 61}, std::pair{640, 410}}) {
    const Image expected = resampled(rgba, w, h);
    Image rgbOut(w, h, 3, 7, 0x5A), grayOut(w, h, 1, 3, 0x5A);
    ASSERT_TRUE(resample(rgb.view(), rgbOut.mutableView()));
    ASSERT_TRUE(resample(gray.view(), grayOut.mutableView()));
    for (int c = 0; c < 3; ++c) EXPECT_EQ(rgbOut.split(c).first, expected.split(c).first) << w << "x" << h;
    EXPECT_EQ(grayOut.split().first, expected.split(1).first) << w << "x" << h;
    EXPECT_EQ(rgbOut.split().second, std::vector<int>(static_cast<std::size_t>(7 * h), 0x5A));
  }
}

// Dispatch only runs the best instruction set of this CPU; the others must
// give the same bytes, since all do the same integer arithmetic.
TEST(Resampler, EveryInstructionSetGivesTheSameBytes) {
  const auto targets = zrk::detail::resamplerTargets();
  ASSERT_FALSE(targets.empty());
  const Image rgba = textured(421, 317, 4, 5), rgb = textured(77, 51, 3, 6);
  std::vector<std::vector<std::uint8_t>> first;
  for (const auto& target : targets) {
    zrk::detail::restrictResamplerTo(target.id);
    const std::vector<std::vector<std::uint8_t>> results = {
        resampled(rgba, 100, 75).pixels, resampled(rgba, 419, 318).pixels, resampled(rgb, 150, 13).pixels};
    if (first.empty()) first = results;
    EXPECT_EQ(results, first) << target.name << " differs from " << targets[0].name;
  }
  zrk::detail::restrictResamplerTo(0);
}

}  // namespace
