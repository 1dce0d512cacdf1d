// Defensive reads from decoded JSON dictionaries.
//
// The service's responses are decoded into ZRKJson values whose shape the
// library cannot trust: a field may be missing, null, or of another JSON type
// than documented. These accessors look a key up in a dictionary and either
// convert the value under it with the lenient rules below or report
// absent (nullptr / std::nullopt) or the caller's default. A receiver that is
// not a JSON object behaves like an empty dictionary.
//
// Pointers returned point into the receiver and live as long as it does.
//
// Threads: all functions are pure and may be called from any thread.
// Errors: none; no function here throws.
#ifndef ZRK_ZRKDICTIONARYACCESSORS_H
#define ZRK_ZRKDICTIONARYACCESSORS_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"
#include "zrk/ZRKURL.h"

namespace zrk {

// The array / object under the key, not copied.
ZRK_API const ZRKJson* zrk_arrayForKey(const ZRKJson& dictionary, std::string_view key);
ZRK_API const ZRKJson* zrk_dictionaryForKey(const ZRKJson& dictionary, std::string_view key);

// A number or a boolean (JSON true/false count as numbers).
ZRK_API std::optional<ZRKJson> zrk_numberForKey(const ZRKJson& dictionary, std::string_view key);

// A string only: {"id": 5} gives nullopt, numbers are not turned into text.
ZRK_API std::optional<std::string> zrk_stringForKey(const ZRKJson& dictionary, std::string_view key);

// A string that parses as a URL; nullopt for any other value or text.
ZRK_API std::optional<ZRKURL> zrk_urlForKey(const ZRKJson& dictionary, std::string_view key);

// A number (truncated toward zero, saturated, true = 1) or a string read by
// zrk_integerValue ("x" gives 0, not the default). Any other value, or none,
// gives defaultValue.
ZRK_API ZRKInteger zrk_intForKey(const ZRKJson& dictionary, std::string_view key,
                         ZRKInteger defaultValue);

// A number (non-zero is true) or a string read by zrk_boolValue. Any other
// value, or none, gives defaultValue.
ZRK_API bool zrk_boolForKey(const ZRKJson& dictionary, std::string_view key, bool defaultValue);

// A number, or a string read by zrk_doubleValue, taken as seconds since
// 1970-01-01 00:00:00 UTC. Milliseconds are not scaled and an ISO 8601 string
// is not parsed: it gives its leading number ("2016-05-01T..." is 2016 s).
ZRK_API std::optional<ZRKDate> zrk_dateForKey(const ZRKJson& dictionary, std::string_view key);

// A copy in which every null, at any depth of nested objects and arrays, is
// gone: null values lose their key, null elements leave their array. A
// receiver that is not an object gives an empty object. Deep nesting is
// handled without recursion.
ZRK_API ZRKJson zrk_dictionaryByRemovingNulls(const ZRKJson& dictionary);

// A copy keeping only the entries whose value is a string; not recursive.
// A receiver that is not an object gives an empty object.
ZRK_API ZRKJson zrk_dictionaryByRemovingNonStrings(const ZRKJson& dictionary);

// Lenient text conversions, which read a leading number and ignore the
// rest, so that "12 items" still counts as 12. All skip leading Unicode white space first.
//
// Optional sign and decimal digits, saturating at the ZRKInteger range.
// "12abc" is 12, "abc" and "" are 0, "0x1F" is 0, "1e3" is 1.
ZRK_API ZRKInteger zrk_integerValue(std::string_view text);
// Optional sign, digits, fraction and exponent, decimal only (no "inf", "nan"
// or hex), independent of the C locale. No number gives 0.0; overflow gives
// an infinity, underflow zero.
ZRK_API double zrk_doubleValue(std::string_view text);
// True when, after an optional sign and zeros, the text begins with "y", "t"
// (either case) or a digit 1 to 9: "yes", "TRUE" and "1" are true, "no",
// "false", "0" and "" are false.
ZRK_API bool zrk_boolValue(std::string_view text);

// Does nothing; referenced so that static linking keeps this unit.
ZRK_API void linkNSDictionaryCategory();

}  // namespace zrk

#endif  // ZRK_ZRKDICTIONARYACCESSORS_H
