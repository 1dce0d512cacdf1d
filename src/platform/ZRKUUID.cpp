#include "platform/ZRKUUID.h"

#include <cstdio>
#include <random>

namespace zrk::detail {

std::string formatUUID(std::uint64_t high, std::uint64_t low, unsigned version) {
  high = (high & ~0xF000ULL) | (std::uint64_t{version & 0xF} << 12);
  low = (low & ~(3ULL << 62)) | (2ULL << 62);
  char text[37];
  std::snprintf(text, sizeof text, "%08llX-%04llX-%04llX-%04llX-%012llX",
                static_cast<unsigned long long>(high >> 32), static_cast<unsigned long long>((high >> 16) & 0xFFFF),
                static_cast<unsigned long long>(high & 0xFFFF), static_cast<unsigned long long>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

std::string randomUUIDString() {
  // A device per call: it holds no state worth sharing, and sharing one
  // between threads would need a lock.
  std::random_device random;
  const auto next64 = [&random] { return (std::uint64_t{random()} << 32) | random(); };
  const std::uint64_t high = next64();
  return formatUUID(high, next64(), 4);
}

}  // namespace zrk::detail
