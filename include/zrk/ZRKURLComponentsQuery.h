// A URL's query read and written as a dictionary, and a loose comparison of
// two URLs, for host applications; the library itself uses neither.
//
// All functions are pure and may be called from any thread on values that
// no other thread changes. None of them reports an error.
#ifndef ZRK_ZRKURLCOMPONENTSQUERY_H
#define ZRK_ZRKURLCOMPONENTSQUERY_H

#include "zrk/ZRKExport.h"

#include "zrk/ZRKJson.h"
#include "zrk/ZRKURLComponents.h"

namespace zrk {

// The query items as an object from name to (decoded) string value. Items
// are taken in order: a later item replaces an earlier one of the same name,
// and an item without a value removes it ("a=1&a" gives {}). A URL without a
// query gives {}. Escapes that decode to bytes that are not UTF-8 ("%FF")
// stay such bytes, which ZRKJson::dump() refuses unless given an error
// handler.
ZRK_API ZRKJson zrk_queryItemsDictionary(const ZRKURLComponents& components);

// Replaces the whole query with one item per entry, in the object's (sorted)
// key order. Strings are the values as they are; numbers and booleans their
// text ("42", "0.5", "true"); arrays and objects their compact JSON text;
// null an item without a value ("name" alone, which the getter reads back as
// no entry). Anything but an object counts as an empty dictionary, and an
// empty dictionary leaves an empty query ("...?").
ZRK_API void setZrk_queryItemsDictionary(ZRKURLComponents& components, const ZRKJson& dictionary);

// Whether b is the URL that a describes: the same scheme, host and path
// (host and path percent-decoded, so "%41" matches "A", then compared
// exactly, case included; a missing scheme or host never matches, an empty
// path matches an empty path), and every query
// item of a found in b with the same decoded value. Port, user, password and
// fragment are ignored, b may have items that a lacks, their order does not
// matter, and an item of a without a value matches nothing: the relation is
// not symmetric.
ZRK_API bool zrk_matchesURLComponents(const ZRKURLComponents& a, const ZRKURLComponents& b);

// Does nothing; calling it keeps this unit in a static link (see
// ZRKCategoryLoader.h).
ZRK_API void linkNSURLComponentsCategory();

}  // namespace zrk

#endif  // ZRK_ZRKURLCOMPONENTSQUERY_H
