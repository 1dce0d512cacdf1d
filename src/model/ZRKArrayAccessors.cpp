#include "zrk/ZRKArrayAccessors.h"

#include <cstddef>

#include "zrk/ZRKDictionaryAccessors.h"
#include "model/ZRKNullRemoval.h"

namespace zrk {

const ZRKJson* zrk_boundSafeObjectAtIndex(const ZRKJson& array, ZRKInteger index) {
  if (!array.is_array() || index < 0) return nullptr;
  const auto position = static_cast<std::size_t>(index);
  return position < array.size() ? &array[position] : nullptr;
}

ZRKJson zrk_arrayByRemovingNulls(const ZRKJson& array) {
  if (!array.is_array()) return ZRKJson::array();
  return detail::CopyRemovingNulls(array);
}

void linkNSArrayCategory() {}

}  // namespace zrk
