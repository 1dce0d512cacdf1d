// Defensive reads from decoded JSON arrays.
//
// Index access that reports absent instead of failing, and null removal for
// arrays taken from the service's responses. A receiver that is not a JSON
// array behaves like an empty array. Pointers returned point into the
// receiver and live as long as it does.
//
// Threads: all functions are pure and may be called from any thread.
// Errors: none; no function here throws.
#ifndef ZRK_ZRKARRAYACCESSORS_H
#define ZRK_ZRKARRAYACCESSORS_H

#include "zrk/ZRKExport.h"

#include "zrk/ZRKJson.h"

namespace zrk {

// The element at index when 0 <= index < size, else nullptr.
ZRK_API const ZRKJson* zrk_boundSafeObjectAtIndex(const ZRKJson& array, ZRKInteger index);

// A copy without nulls at any depth: null elements are dropped (later ones
// move up, order is kept) and nested objects and arrays lose theirs too.
ZRK_API ZRKJson zrk_arrayByRemovingNulls(const ZRKJson& array);

// Does nothing; referenced so that static linking keeps this unit.
ZRK_API void linkNSArrayCategory();

}  // namespace zrk

#endif  // ZRK_ZRKARRAYACCESSORS_H
