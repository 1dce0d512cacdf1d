// The first preparation of a process against the ones after it: what an
// application's first scan costs, next to the warm figure that in-process
// benchmarks report. Run it as a fresh process each time
// (bench/imagepath_programs.py does, N times on one core).
//
//   zrkapi_imagepath_cold JPEG [WARM_RUNS]
//
// Prints {"first_ms": ..., "warm_ms": [...], "first_cpu_ms": ..., "warm_cpu_ms":
// [...]}: the first file-to-upload preparation, then WARM_RUNS (default 9)
// more in the same process, wall clock and the thread's CPU time (which
// time-sharing the core with other work does not inflate).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "zrk/ZRKImage.h"

namespace {

struct Timing {
  double wall = 0;
  double cpu = 0;
};

double cpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

Timing prepare(const std::string& path) {
  const double cpuStart = cpuMs();
  const auto start = std::chrono::steady_clock::now();
  const auto image = zrk::ZRKImage::imageWithContentsOfFile(path);
  const auto upload = image ? zrk::ZRKScanUploadJPEG(*image) : std::nullopt;
  const auto end = std::chrono::steady_clock::now();
  const double cpuEnd = cpuMs();
  if (!upload) {
    std::fprintf(stderr, "cannot prepare %s\n", path.c_str());
    std::exit(1);
  }
  return {std::chrono::duration<double, std::milli>(end - start).count(), cpuEnd - cpuStart};
}

void printList(const char* name, const std::vector<Timing>& runs, double Timing::*field) {
  std::printf(", \"%s\": [", name);
  for (std::size_t i = 0; i < runs.size(); ++i) std::printf("%s%.3f", i ? ", " : "", runs[i].*field);
  std::printf("]");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s JPEG [WARM_RUNS]\n", argv[0]);
    return 2;
  }
  const int warm = argc == 3 ? std::atoi(argv[2]) : 9;
  const Timing first = prepare(argv[1]);
  std::vector<Timing> warmRuns;
  for (int i = 0; i < warm; ++i) warmRuns.push_back(prepare(argv[1]));
  std::printf("{\"first_ms\": %.3f, \"first_cpu_ms\": %.3f", first.wall, first.cpu);
  printList("warm_ms", warmRuns, &Timing::wall);
  printList("warm_cpu_ms", warmRuns, &Timing::cpu);
  std::printf("}\n");
  return 0;
}
