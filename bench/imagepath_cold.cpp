// The first preparation of a process against the ones after it: what an
// application's first scan costs, next to the warm figure that in-process
// benchmarks report. Run it as a fresh process each time
// (bench/imagepath_programs.py does, N times on one core).
//
//   zrkapi_imagepath_cold JPEG [WARM_RUNS]
//
// Prints {"first_ms": ..., "warm_ms": [...]}: the first file-to-upload
// preparation, then WARM_RUNS (default 9) more in the same process.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zrk/ZRKImage.h"

namespace {

double prepareMs(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  const auto image = zrk::ZRKImage::imageWithContentsOfFile(path);
  const auto upload = image ? zrk::ZRKScanUploadJPEG(*image) : std::nullopt;
  const auto end = std::chrono::steady_clock::now();
  if (!upload) {
    std::fprintf(stderr, "cannot prepare %s\n", path.c_str());
    std::exit(1);
  }
  return std::chrono::duration<double, std::milli>(end - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s JPEG [WARM_RUNS]\n", argv[0]);
    return 2;
  }
  const int warm = argc == 3 ? std::atoi(argv[2]) : 9;
  const double first = prepareMs(argv[1]);
  std::printf("{\"first_ms\": %.3f, \"warm_ms\": [", first);
  for (int i = 0; i < warm; ++i) std::printf("%s%.3f", i ? ", " : "", prepareMs(argv[1]));
  std::printf("]}\n");
  return 0;
}
