// The fixed-point resampler against the filter as defined, in double
// precision. The whole upload path is measured against the ideal by the
// image benchmark (bench/compare_image.py), which reports its decibels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "platform/ZRKResampler.h"
#include "platform/ZRKResamplerTargets.h"

namespace zrk {
namespace {

// 8-bit interleaved pixels, rows padded as asked.
struct Image {
  int width, height, channels, stride;
  std::vector<std::uint8_t> pixels;

  Image(int w, int h, int c, int padding = 0, std::uint8_t fill = 0)
      : width(w), height(h), channels(c), stride(w * c + padding), pixels(static_cast<std::size_t>(stride * h), fill) {}
  std::uint8_t& at(int x, int y, int c) { return pixels[static_cast<std::size_t>(y * stride + x * channels + c)]; }
  std::uint8_t at(int x, int y, int c) const { return pixels[static_cast<std::size_t>(y * stride + x * channels + c)]; }
  detail::PixelView view() const { return {pixels.data(), width, height, stride, channels}; }
  detail::MutablePixelView mutableView() { return {pixels.data(), width, height, stride, channels}; }
};

// Noise over gradients, with hard-edged blocks and thin lines: what makes a
// careless filter ring, alias or shift.
Image textured(int w, int h, int channels, unsigned seed, int padding = 0) {
  Image image(w, h, channels, padding, 0x5A);
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> noise(-40, 40);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < channels; ++c) {
        const bool block = (x * 7 / w + y * 5 / h) % 2 == 0, line = x % 23 == 0 || (x + 2 * y) % 41 == 0;
        const int v = (c == 0 ? x * 255 / w : c == 1 ? y * 255 / h : (x + y) * 255 / (w + h)) / 2 + (block ? 100 : 0);
        image.at(x, y, c) = static_cast<std::uint8_t>(std::clamp((line ? 255 - v : v) + noise(random), 0, 255));
      }
  return image;
}

// Separable Lanczos-3, the kernel widened by the reduction factor, edges
// clamped, with exact kernel values in double precision.
Image referenceResample(const Image& src, int w, int h) {
  const auto taps = [](int in, int out) {  // (input, weight) pairs of each output
    std::vector<std::vector<std::pair<int, double>>> all(static_cast<std::size_t>(out));
    const double scale = static_cast<double>(in) / out, widen = std::max(scale, 1.0), pi = std::numbers::pi;
    for (auto& list : all) {
      const double center = (static_cast<double>(&list - all.data()) + 0.5) * scale - 0.5;
      double total = 0;
      for (int j = static_cast<int>(std::floor(center - 3 * widen)); j <= center + 3 * widen; ++j) {
        const double x = pi * (j - center) / widen;
        const double v = x == 0 ? 1 : std::abs(x) >= 3 * pi ? 0 : 3 * std::sin(x) * std::sin(x / 3) / (x * x);
        total += list.emplace_back(std::clamp(j, 0, in - 1), v).second;
      }
      for (auto& tap : list) tap.second /= total;
    }
    return all;
  };
  const auto across = taps(src.width, w), down = taps(src.height, h);
  const std::size_t c = src.channels, row = w * c;
  std::vector<double> mid(src.height * row);
  for (int y = 0; y < src.height; ++y)
    for (std::size_t i = 0; i < row; ++i)
      for (const auto& [j, v] : across[i / c]) mid[y * row + i] += v * src.at(j, y, static_cast<int>(i % c));
  Image out(w, h, static_cast<int>(c));
  for (int y = 0; y < h; ++y)
    for (std::size_t i = 0; i < row; ++i) {
      double sum = 0;
      for (const auto& [j, v] : down[y]) sum += v * mid[j * row + i];
      out.pixels[y * row + i] = static_cast<std::uint8_t>(std::clamp(std::lround(sum), 0L, 255L));
    }
  return out;
}

// Over every channel value; padding left out.
struct Difference {
  double sum = 0, count = 0, largest = 0;
  Difference& add(const Image& got, const Image& want) {
    for (int y = 0; y < got.height; ++y)
      for (int x = 0; x < got.width; ++x)
        for (int c = 0; c < got.channels; ++c) {
          const double d = got.at(x, y, c) - want.at(x, y, c);
          sum += d, count += 1, largest = std::max(largest, std::abs(d));
        }
    return *this;
  }
};

// Into a padded target, whose padding must stay as it was, with each
// instruction set of this CPU: dispatch only runs the best one, and all do
// the same integer arithmetic, so all must give the same bytes.
Image resampled(const Image& src, int w, int h) {
  std::vector<Image> outs;
  for (const auto& target : detail::resamplerTargets()) {
    detail::restrictResamplerTo(target.id);
    EXPECT_TRUE(detail::resample(src.view(), outs.emplace_back(w, h, src.channels, 5, 0xEE).mutableView()));
    EXPECT_TRUE(outs.back().pixels == outs.front().pixels) << target.name << " differs from the best";
  }
  detail::restrictResamplerTo(0);
  const Image& out = outs.at(0);
  int touched = 0;
  for (int i = 0; i < out.stride * h; ++i) touched += i % out.stride >= w * out.channels && out.pixels[i] != 0xEE;
  EXPECT_EQ(touched, 0);
  return out;
}

TEST(Resampler, FollowsTheDoublePrecisionFilterAndKeepsFlatAreasFlat) {
  // Reductions of about 2x and of 8x (the widest kernel), one by a pixel
  // (the phase drifts across the image), an enlargement, images one pixel
  // thin, a copy; odd sizes and padded rows everywhere.
  const int cases[][5] = {{403, 301, 200, 149, 4}, {400, 304, 50, 38, 3}, {301, 150, 300, 149, 1},
                          {10, 10, 37, 23, 4},     {1, 300, 1, 37, 3},    {300, 1, 37, 1, 4},
                          {1, 1, 3, 2, 1},         {5, 301, 2, 7, 4},     {33, 17, 33, 17, 3}};
  Difference all;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c[0] << "x" << c[1] << " -> " << c[2] << "x" << c[3] << " x" << c[4]);
    const Image src = textured(c[0], c[1], c[4], 7, 3);
    const Image got = resampled(src, c[2], c[3]), want = referenceResample(src, c[2], c[3]);
    const Difference one = Difference().add(got, want);
    all.add(got, want);
    EXPECT_LE(one.largest, 1);  // rounding alone never costs more; so PSNR is at least 48 dB
    Image flat(c[0], c[1], c[4], 0, 255 - 60 * (c[4] - 1)), flatWant(c[2], c[3], c[4], 0, flat.pixels[0]);
    EXPECT_EQ(Difference().add(resampled(flat, c[2], c[3]), flatWant).largest, 0);  // weights sum to exactly one
  }
  EXPECT_LT(std::abs(all.sum / all.count), 0.05);  // rounding, not truncation
}

TEST(Resampler, RejectsInvalidViewsAndLeavesTheTargetAlone) {
  std::vector<std::uint8_t> pixels(64 * 64 * 4, 9), target(32 * 32 * 4, 0xAB);
  const detail::PixelView good{pixels.data(), 64, 64, 64 * 4, 4};
  const detail::MutablePixelView out{target.data(), 32, 32, 32 * 4, 4};
  const std::pair<detail::PixelView, detail::MutablePixelView> invalid[] = {
      {{nullptr, 64, 64, 64 * 4, 4}, out},           {{pixels.data(), 0, 64, 64 * 4, 4}, out},
      {{pixels.data(), 64, -1, 64 * 4, 4}, out},     {{pixels.data(), 64, 64, 64 * 4, 2}, out},
      {{pixels.data(), 64, 64, 64 * 4 - 1, 4}, out}, {good, {target.data(), 32, 32, 32 * 4, 3}},
      {good, {target.data(), 32, 32, 0, 4}},
      // A target inside the source would be overwritten before it is read.
      {{target.data(), 16, 16, 32 * 4, 4}, {target.data() + 8 * 32 * 4, 8, 8, 32 * 4, 4}}};
  for (const auto& [src, dst] : invalid) EXPECT_FALSE(detail::resample(src, dst));
  EXPECT_EQ(std::count(target.begin(), target.end(), 0xAB), 32 * 32 * 4);
  EXPECT_TRUE(detail::resample(good, out));
}

}  // namespace
}  // namespace zrk
