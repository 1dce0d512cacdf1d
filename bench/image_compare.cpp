// The in-process C++ pipelines of bench/compare_image.py: this library's
// upload path and libvips, each timed inside one process so that start-up
// and library loading stay out of the figures.
//
//   zrkapi_image_compare PIPELINE INPUT OUTPUT RUNS
//
// PIPELINE is one of
//   ours-jpeg   JPEG file -> upload JPEG through the scan upload path
//   vips-jpeg   JPEG file -> vips_thumbnail_buffer -> JPEG, quality 100, 4:2:0
//   ours-rgba   raw RGBA file (4032x3024) -> upload JPEG
//   vips-rgba   raw RGBA file -> vips_thumbnail_image of the RGB bands -> JPEG
// For the JPEG pipelines every run reads the file (from the page cache),
// as an application handed a path would. For the RGBA ones the pixels are
// in memory before the clock starts, as a camera hands them over. Prints one
// JSON object with the run times in milliseconds, wall clock and CPU time of
// the whole process (libvips computes on a worker thread even when told to
// use one); the last run's output goes to OUTPUT.
#include <vips/vips.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "zrk/ZRKImage.h"

namespace {

constexpr int kRGBAWidth = 4032, kRGBAHeight = 3024;
constexpr int kLongestSide = 1000;

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::optional<std::string> vipsSave(VipsImage* image) {
  void* buffer = nullptr;
  std::size_t length = 0;
  // Without the explicit mode libvips keeps full chroma from quality 90 up,
  // which would be a larger, slower file than the others write.
  if (vips_jpegsave_buffer(image, &buffer, &length, "Q", 100, "subsample_mode", VIPS_FOREIGN_SUBSAMPLE_ON,
                           nullptr) != 0) {
    return std::nullopt;
  }
  std::string out(static_cast<const char*>(buffer), length);
  g_free(buffer);
  return out;
}

std::optional<std::string> vipsFromJPEG(const std::string& path) {
  const std::string data = readFile(path);
  VipsImage* thumb = nullptr;
  if (vips_thumbnail_buffer(const_cast<char*>(data.data()), data.size(), &thumb, kLongestSide, "height",
                            kLongestSide, nullptr) != 0) {
    return std::nullopt;
  }
  auto out = vipsSave(thumb);
  g_object_unref(thumb);
  return out;
}

std::optional<std::string> vipsFromRGBA(const std::vector<std::uint8_t>& rgba) {
  VipsImage* image = vips_image_new_from_memory(rgba.data(), rgba.size(), kRGBAWidth, kRGBAHeight, 4,
                                                VIPS_FORMAT_UCHAR);
  if (!image) return std::nullopt;
  VipsImage* rgb = nullptr;
  VipsImage* thumb = nullptr;
  std::optional<std::string> out;
  if (vips_extract_band(image, &rgb, 0, "n", 3, nullptr) == 0 &&
      vips_thumbnail_image(rgb, &thumb, kLongestSide, "height", kLongestSide, nullptr) == 0) {
    out = vipsSave(thumb);
  }
  if (thumb) g_object_unref(thumb);
  if (rgb) g_object_unref(rgb);
  g_object_unref(image);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s ours-jpeg|vips-jpeg|ours-rgba|vips-rgba INPUT OUTPUT RUNS\n", argv[0]);
    return 2;
  }
  const std::string pipeline = argv[1], input = argv[2], output = argv[3];
  const int runs = std::max(1, std::atoi(argv[4]));

  if (VIPS_INIT(argv[0]) != 0) return 1;
  // One thread, and no operation cache: every run must do the whole work.
  vips_concurrency_set(1);
  vips_cache_set_max(0);

  std::vector<std::uint8_t> rgba;
  std::shared_ptr<zrk::ZRKImage> pixels;
  if (pipeline == "ours-rgba" || pipeline == "vips-rgba") {
    const std::string raw = readFile(input);
    if (raw.size() != std::size_t{kRGBAWidth} * kRGBAHeight * 4) {
      std::fprintf(stderr, "%s is not a %dx%d RGBA buffer\n", input.c_str(), kRGBAWidth, kRGBAHeight);
      return 1;
    }
    rgba.assign(raw.begin(), raw.end());
    if (pipeline == "ours-rgba") pixels = zrk::ZRKImage::imageWithRGBAPixels(rgba, kRGBAWidth, kRGBAHeight);
  }

  std::function<std::optional<std::string>()> run;
  if (pipeline == "ours-jpeg") {
    run = [&] {
      const auto image = zrk::ZRKImage::imageWithContentsOfFile(input);
      return image ? zrk::ZRKScanUploadJPEG(*image) : std::nullopt;
    };
  } else if (pipeline == "vips-jpeg") {
    run = [&] { return vipsFromJPEG(input); };
  } else if (pipeline == "ours-rgba") {
    // The image wraps the caller's pixels once, as an application makes it
    // once and scans it; the upload path is what is timed.
    run = [&] { return zrk::ZRKScanUploadJPEG(*pixels); };
  } else if (pipeline == "vips-rgba") {
    run = [&] { return vipsFromRGBA(rgba); };
  } else {
    std::fprintf(stderr, "unknown pipeline %s\n", pipeline.c_str());
    return 2;
  }

  const auto cpuNow = [] {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
  };
  std::vector<double> times, cpu;
  std::optional<std::string> last;
  // One untimed run first: page cache, lazy library set-up, CPU dispatch.
  if (!run()) {
    std::fprintf(stderr, "%s failed: %s\n", pipeline.c_str(), vips_error_buffer());
    return 1;
  }
  for (int i = 0; i < runs; ++i) {
    const double cpuStart = cpuNow();
    const auto start = std::chrono::steady_clock::now();
    last = run();
    const auto end = std::chrono::steady_clock::now();
    if (!last) return 1;
    times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    cpu.push_back(cpuNow() - cpuStart);
  }
  writeFile(output, *last);

  std::printf("{\"pipeline\": \"%s\", \"ms\": [", pipeline.c_str());
  for (std::size_t i = 0; i < times.size(); ++i) std::printf("%s%.3f", i ? ", " : "", times[i]);
  std::printf("], \"cpu_ms\": [");
  for (std::size_t i = 0; i < cpu.size(); ++i) std::printf("%s%.3f", i ? ", " : "", cpu[i]);
  std::printf("], \"bytes\": %zu}\n", last->size());
  vips_shutdown();
  return 0;
}
