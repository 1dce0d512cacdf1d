// The instruction sets the resampler was built for. Dispatch only ever runs
// the best one the CPU has, so tests use this to check every other one
// against the portable code.
#ifndef ZRK_PLATFORM_ZRKRESAMPLERTARGETS_H
#define ZRK_PLATFORM_ZRKRESAMPLERTARGETS_H

#include <cstdint>
#include <vector>

namespace zrk::detail {

struct ResamplerTarget {
  std::int64_t id = 0;
  const char* name = "";
};

// Those this CPU can run, best first.
std::vector<ResamplerTarget> resamplerTargets();

// Makes resample() use only the given target (process-wide, not thread-safe);
// 0 restores normal dispatch.
void restrictResamplerTo(std::int64_t target);

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKRESAMPLERTARGETS_H
