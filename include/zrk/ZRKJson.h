// Decoded JSON and parameter dictionaries.
//
// The library reads and writes JSON as nlohmann::json. An object is a
// dictionary whose keys are kept sorted by byte value, which is the
// case-sensitive order the query encoder needs; is_boolean() tells a true
// boolean from the numbers 0 and 1; null is the JSON null, a value that is
// there. "Nothing" (no value at all) is an absent pointer or optional.
#ifndef ZRK_ZRKJSON_H
#define ZRK_ZRKJSON_H

#include <chrono>
#include <cstddef>

#include <nlohmann/json.hpp>

namespace zrk {

using ZRKJson = nlohmann::json;

// Integers of the machine's word size, as the service's models hold them.
using ZRKInteger = std::ptrdiff_t;
using ZRKUInteger = std::size_t;

// A point in time as seconds since 1970-01-01 00:00:00 UTC. Kept in double
// precision so that any number the service sends, however far in the future,
// stays representable.
using ZRKDate = std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<double>>;

}  // namespace zrk

#endif  // ZRK_ZRKJSON_H
