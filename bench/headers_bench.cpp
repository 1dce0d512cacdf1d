// The header fields of an answer, combined as they arrive: many distinct
// names must cost time linear in their number (the fitted complexity is
// printed as "BigO"), as one repeated name does. And the fields a request
// carries: what building them and copying the request costs.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "zrk/ZRKApiClient.h"
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

void BM_DefaultHeaders(benchmark::State& state) {
  const auto client = zrk::ZRKApiClient::sharedClient();
  for (auto _ : state) benchmark::DoNotOptimize(client->defaultHeaders());
}

void BM_ConfiguredRequest(benchmark::State& state) {
  const auto client = zrk::ZRKApiClient::sharedClient();
  const auto url = client->apiURL();
  for (auto _ : state) benchmark::DoNotOptimize(client->configuredRequestForURL(url));
}

void BM_RequestCopy(benchmark::State& state) {
  const auto client = zrk::ZRKApiClient::sharedClient();
  const zrk::ZRKURLRequest request = client->configuredRequestForURL(client->apiURL());
  for (auto _ : state) {
    zrk::ZRKURLRequest copy = request;
    benchmark::DoNotOptimize(copy);
  }
}

BENCHMARK(BM_DefaultHeaders);
BENCHMARK(BM_ConfiguredRequest);
BENCHMARK(BM_RequestCopy);

}  // namespace
