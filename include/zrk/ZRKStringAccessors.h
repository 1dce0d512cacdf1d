// Bounds-safe string operations on UTF-8 text.
//
// Lengths and indices count UTF-16 code units, not bytes: a character outside
// the Basic Multilingual Plane (most emoji) counts 2. Results are always cut at
// character boundaries, so valid UTF-8 in gives valid UTF-8 out. Bytes that
// are not valid UTF-8 count one unit each and are passed through unchanged.
//
// Threads: all functions are pure and may be called from any thread.
// Errors: none; no function here throws.
#ifndef ZRK_ZRKSTRINGACCESSORS_H
#define ZRK_ZRKSTRINGACCESSORS_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"

namespace zrk {

// The first min(index, length) units; an index past the end gives the whole
// string. A character that the index would cut in half is left out.
ZRK_API std::string zrk_safeSubstringToIndex(std::string_view string, ZRKUInteger index);

// The text from index on; "" when index >= length. A character that the index
// would cut in half is left out.
ZRK_API std::string zrk_safeSubstringFromIndex(std::string_view string, ZRKUInteger index);

// The user-perceived characters (Unicode's extended grapheme clusters) in
// reverse order, so that none is split: a letter keeps its marks and vowel
// signs in every script, Hangul jamo stay one syllable, flags and ZWJ emoji
// sequences stay whole, and CR LF stays CR LF. A byte that is not UTF-8 is a
// character of its own.
ZRK_API std::string zrk_reversedString(std::string_view string);

// The string without suffix when it ends with it; otherwise (or with no
// suffix) the string unchanged.
ZRK_API std::string zrk_stringByRemovingSuffix(std::string_view string,
                                       std::optional<std::string_view> suffix);

// Does nothing; referenced so that static linking keeps this unit.
ZRK_API void linkNSStringCategory();

}  // namespace zrk

#endif  // ZRK_ZRKSTRINGACCESSORS_H
