// Benchmarks of the image path: what an upload costs before it leaves the
// machine. Run on one core (taskset) with a Release build.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <cstdio>
#include <fstream>
#include <string>

#include "platform/ZRKResampler.h"
#include "zrk/ZRKImage.h"

namespace {

// A phone photo's size and something like its content: gradients, noise and
// hard edges, so that no pass gets away with uniform data.
// The grain (noise amplitude) sets how much a JPEG of it weighs.
std::vector<std::uint8_t> photoLikeRGBA(int width, int height, int grain = 24) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
  std::mt19937 random(42);
  std::uniform_int_distribution<int> noise(-grain, grain);
  std::size_t i = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const bool checker = ((x / 97) + (y / 61)) % 2 == 0;
      const int base[4] = {x * 255 / width, y * 255 / height, checker ? 220 : 30, 255 - (x + y) % 256};
      for (int c = 0; c < 4; ++c) {
        const int v = base[c] + noise(random);
        pixels[i++] = static_cast<std::uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
      }
    }
  }
  return pixels;
}

void BM_Resample4032x3024To1000x750(benchmark::State& state) {
  constexpr int kSrcW = 4032, kSrcH = 3024, kDstW = 1000, kDstH = 750;
  const std::vector<std::uint8_t> source = photoLikeRGBA(kSrcW, kSrcH);
  std::vector<std::uint8_t> target(static_cast<std::size_t>(kDstW) * kDstH * 4);
  const zrk::detail::PixelView src{source.data(), kSrcW, kSrcH, kSrcW * 4, 4};
  const zrk::detail::MutablePixelView dst{target.data(), kDstW, kDstH, kDstW * 4, 4};
  for (auto _ : state) {
    if (!zrk::detail::resample(src, dst)) state.SkipWithError("resample rejected the views");
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(source.size()));
}
BENCHMARK(BM_Resample4032x3024To1000x750)->Unit(benchmark::kMillisecond);

// A phone's 12-megapixel photo on disk (quality 90, 4:2:0, as cameras write
// them) to the bytes a scan uploads: read, decode (at a reduced size where
// the DCT allows), resample, encode. Decoding a JPEG costs in proportion to
// its compressed size, so the argument is the grain: 6 gives a file of about
// 2 MB, like a typical phone photo; 24 about 5 MB, like a grainy low-light one.
void BM_ScanUploadFrom12MegapixelJpegFile(benchmark::State& state) {
  const int grain = static_cast<int>(state.range(0));
  const auto photo = zrk::ZRKImage::imageWithRGBAPixels(photoLikeRGBA(4032, 3024, grain), 4032, 3024);
  const auto jpeg = zrk::ZRKImageJPEGRepresentation(*photo, 0.9);
  if (!jpeg) return state.SkipWithError("could not encode the photo");
  const std::string path = "/tmp/zrkapi_bench_photo_" + std::to_string(grain) + ".jpg";
  std::ofstream(path, std::ios::binary) << *jpeg;
  std::size_t uploaded = 0;
  for (auto _ : state) {
    const auto image = zrk::ZRKImage::imageWithContentsOfFile(path);
    const auto upload = image ? zrk::ZRKScanUploadJPEG(*image) : std::nullopt;
    if (!upload) return state.SkipWithError("no upload");
    uploaded = upload->size();
    benchmark::DoNotOptimize(upload->data());
  }
  std::remove(path.c_str());
  state.counters["file_bytes"] = static_cast<double>(jpeg->size());
  state.counters["upload_bytes"] = static_cast<double>(uploaded);
}
BENCHMARK(BM_ScanUploadFrom12MegapixelJpegFile)->Arg(6)->Arg(24)->Unit(benchmark::kMillisecond);

// A decoded 4032x3024 RGBA buffer, as a camera pipeline hands it over, to
// the bytes a scan uploads: resample and encode.
void BM_ScanUploadFrom4032x3024Pixels(benchmark::State& state) {
  const auto image = zrk::ZRKImage::imageWithRGBAPixels(photoLikeRGBA(4032, 3024), 4032, 3024);
  std::size_t uploaded = 0;
  for (auto _ : state) {
    const auto upload = zrk::ZRKScanUploadJPEG(*image);
    if (!upload) return state.SkipWithError("no upload");
    uploaded = upload->size();
    benchmark::DoNotOptimize(upload->data());
  }
  state.counters["upload_bytes"] = static_cast<double>(uploaded);
}
BENCHMARK(BM_ScanUploadFrom4032x3024Pixels)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
