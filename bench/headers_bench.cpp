// The header fields of an answer, combined as they arrive: many distinct
// names must cost time linear in their number (the fitted complexity is
// printed as "BigO"), as one repeated name does.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "zrk/ZRKURLRequest.h"

namespace {

std::vector<zrk::ZRKHTTPHeaderFields::Field> fields(std::int64_t count, bool distinct) {
  std::vector<zrk::ZRKHTTPHeaderFields::Field> out;
  for (std::int64_t i = 0; i < count; ++i) out.emplace_back(distinct ? "X-Field-" + std::to_string(i) : "X-Field", "v");
  return out;
}

void BM_HeaderFields(benchmark::State& state, bool distinct) {
  const auto lines = fields(state.range(0), distinct);
  for (auto _ : state) benchmark::DoNotOptimize(zrk::ZRKHTTPHeaderFields(lines));
  state.SetComplexityN(state.range(0));
}

BENCHMARK_CAPTURE(BM_HeaderFields, distinct, true)->RangeMultiplier(4)->Range(1 << 8, 1 << 14)->Complexity();
BENCHMARK_CAPTURE(BM_HeaderFields, repeated, false)->RangeMultiplier(4)->Range(1 << 8, 1 << 14)->Complexity();

}  // namespace
