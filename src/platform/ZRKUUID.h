// UUID text as the service sees it in boundaries: 36 upper-case hex digits and dashes.
#ifndef ZRK_PLATFORM_ZRKUUID_H
#define ZRK_PLATFORM_ZRKUUID_H

#include <cstdint>
#include <string>

namespace zrk::detail {

// The 128 bits as a UUID of the given version with the RFC 4122 variant.
std::string formatUUID(std::uint64_t high, std::uint64_t low, unsigned version);

// A fresh version-4 UUID from the system's random source; safe from any thread.
std::string randomUUIDString();

}  // namespace zrk::detail

#endif  // ZRK_PLATFORM_ZRKUUID_H
