// Test images and the resampling filter as defined, in double precision:
// the yardstick for the library's fixed-point resampler and image pipeline.
#ifndef ZRK_TESTS_REFERENCEIMAGES_H
#define ZRK_TESTS_REFERENCEIMAGES_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

#include "platform/ZRKResampler.h"

namespace zrk::test {

using detail::MutablePixelView;
using detail::PixelView;

struct Image {
  int width, height, channels;
  std::ptrdiff_t stride;
  std::vector<std::uint8_t> pixels;

  Image(int w, int h, int c, int padding = 0, std::uint8_t fill = 0)
      : width(w), height(h), channels(c), stride(w * c + padding), pixels(static_cast<std::size_t>(stride * h), fill) {}
  std::uint8_t& at(int x, int y, int c) { return pixels[static_cast<std::size_t>(y * stride + x * channels + c)]; }
  std::uint8_t at(int x, int y, int c) const { return pixels[static_cast<std::size_t>(y * stride + x * channels + c)]; }
  PixelView view() const { return {pixels.data(), width, height, stride, channels}; }
  MutablePixelView mutableView() { return {pixels.data(), width, height, stride, channels}; }
  // Channel c of every pixel (all channels for -1), then the padding bytes.
  std::pair<std::vector<int>, std::vector<int>> split(int c = -1) const {
    std::pair<std::vector<int>, std::vector<int>> parts;
    for (std::ptrdiff_t i = 0; i < stride * height; ++i) {
      const bool padding = i % stride >= width * channels;
      if (padding) parts.second.push_back(pixels[static_cast<std::size_t>(i)]);
      if (!padding && (c < 0 || i % stride % channels == c)) parts.first.push_back(pixels[static_cast<std::size_t>(i)]);
    }
    return parts;
  }
};

// Noise over gradients, with hard-edged blocks and thin lines: what makes a
// careless filter ring, alias or shift.
inline Image textured(int w, int h, int channels, unsigned seed) {
  Image image(w, h, channels);
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> noise(-40, 40);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const bool block = (x * 7 / w + y * 5 / h) % 2 == 0;
      const bool line = x % 23 == 0 || (x + 2 * y) % 41 == 0;
      for (int c = 0; c < channels; ++c) {
        int v = (c == 0 ? x * 255 / w : c == 1 ? y * 255 / h : (x + y) * 255 / (w + h)) / 2 + (block ? 100 : 0);
        image.at(x, y, c) = static_cast<std::uint8_t>(std::clamp((line ? 255 - v : v) + noise(random), 0, 255));
      }
    }
  }
  return image;
}

// Something like a photograph: texture at every scale with the energy of
// natural images (falling with frequency), a few hard-edged shapes and
// sensor grain. Opaque.
inline Image photoLike(int w, int h, unsigned seed) {
  Image image(w, h, 4);
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> unit(0, 1);
  std::normal_distribution<double> grain(0, 3);
  struct Wave {
    double fx, fy, phase, amplitude;
    int channel;
  };
  std::vector<Wave> waves;
  for (int k = 0; k < 36; ++k) {
    const double frequency = 0.002 * std::pow(1.14, k), angle = unit(random) * 2 * std::numbers::pi;
    waves.push_back({frequency * std::cos(angle), frequency * std::sin(angle), unit(random) * 2 * std::numbers::pi,
                     40.0 / std::sqrt(k + 1.0), k % 3});
  }
  struct Box {
    int x0, y0, x1, y1, shade;
  };
  std::vector<Box> boxes;
  for (int k = 0; k < 12; ++k) {
    const int x = static_cast<int>(unit(random) * w), y = static_cast<int>(unit(random) * h);
    boxes.push_back({x, y, x + w / 8, y + h / 10, static_cast<int>(unit(random) * 120) - 60});
  }
  // sin(a + b) = sin a cos b + cos a sin b, with a and b tabulated per
  // column and row: a 12-megapixel image in about a second.
  const std::size_t count = waves.size();
  const auto W = static_cast<std::size_t>(w), H = static_cast<std::size_t>(h);
  std::vector<double> columnSin(count * W), columnCos(count * W), rowSin(count * H), rowCos(count * H);
  for (std::size_t k = 0; k < count; ++k) {
    for (std::size_t x = 0; x < W; ++x) {
      const double a = 2 * std::numbers::pi * waves[k].fx * static_cast<double>(x) + waves[k].phase;
      columnSin[k * W + x] = waves[k].amplitude * std::sin(a);
      columnCos[k * W + x] = waves[k].amplitude * std::cos(a);
    }
    for (std::size_t y = 0; y < H; ++y) {
      const double b = 2 * std::numbers::pi * waves[k].fy * static_cast<double>(y);
      rowSin[k * H + y] = std::sin(b);
      rowCos[k * H + y] = std::cos(b);
    }
  }
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      double value[3] = {128, 128, 128};
      for (std::size_t k = 0; k < count; ++k) {
        value[waves[k].channel] += columnSin[k * W + static_cast<std::size_t>(x)] * rowCos[k * H + static_cast<std::size_t>(y)] +
                                   columnCos[k * W + static_cast<std::size_t>(x)] * rowSin[k * H + static_cast<std::size_t>(y)];
      }
      for (const Box& box : boxes) {
        if (x >= box.x0 && x < box.x1 && y >= box.y0 && y < box.y1) {
          for (double& v : value) v += box.shade;
        }
      }
      for (int c = 0; c < 3; ++c) image.at(x, y, c) = static_cast<std::uint8_t>(std::clamp(value[c] + grain(random), 0.0, 255.0));
      image.at(x, y, 3) = 255;
    }
  }
  return image;
}

// The filter as defined, in double precision with exact kernel values: for
// each output, (source index, weight) pairs.
inline std::vector<std::vector<std::pair<int, double>>> referenceWeights(int in, int out) {
  const double scale = static_cast<double>(in) / out, filterScale = std::max(scale, 1.0);
  std::vector<std::vector<std::pair<int, double>>> weights(static_cast<std::size_t>(out));
  for (int i = 0; i < out; ++i) {
    const double center = (i + 0.5) * scale - 0.5;
    double total = 0;
    for (int j = static_cast<int>(std::floor(center - 3 * filterScale)); j <= center + 3 * filterScale; ++j) {
      const double px = std::numbers::pi * (j - center) / filterScale;
      double w = px == 0 ? 1 : 3 * std::sin(px) * std::sin(px / 3) / (px * px);
      if (std::abs(px) >= 3 * std::numbers::pi) w = 0;
      weights[static_cast<std::size_t>(i)].emplace_back(std::clamp(j, 0, in - 1), w);
      total += w;
    }
    for (auto& tap : weights[static_cast<std::size_t>(i)]) tap.second /= total;
  }
  return weights;
}

inline Image referenceResample(const Image& src, int w, int h) {
  const auto horizontal = referenceWeights(src.width, w), vertical = referenceWeights(src.height, h);
  const int n = src.channels;
  std::vector<double> mid(static_cast<std::size_t>(src.height) * w * n);
  for (int y = 0; y < src.height; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int c = 0; c < n; ++c) {
        for (const auto& [j, weight] : horizontal[static_cast<std::size_t>(x)]) {
          mid[(static_cast<std::size_t>(y) * w + x) * n + c] += weight * src.at(j, y, c);
        }
      }
    }
  }
  Image out(w, h, n);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int c = 0; c < n; ++c) {
        double sum = 0;
        for (const auto& [j, weight] : vertical[static_cast<std::size_t>(y)]) {
          sum += weight * mid[(static_cast<std::size_t>(j) * w + x) * n + c];
        }
        out.at(x, y, c) = static_cast<std::uint8_t>(std::clamp(std::lround(sum), 0L, 255L));
      }
    }
  }
  return out;
}

}  // namespace zrk::test

#endif  // ZRK_TESTS_REFERENCEIMAGES_H
