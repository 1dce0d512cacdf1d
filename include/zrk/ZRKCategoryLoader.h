// Keeps the library's free-function groups in a static link: an application
// that links the static library and finds one of them missing calls
// loadCategories() once. Nothing in the library calls it.
#ifndef ZRK_ZRKCATEGORYLOADER_H
#define ZRK_ZRKCATEGORYLOADER_H

#include "zrk/ZRKExport.h"

namespace zrk {

ZRK_API void linkNSErrorCategory();
ZRK_API void linkNSDictionaryCategory();
ZRK_API void linkNSMutableURLRequestCategory();
ZRK_API void linkNSStringCategory();
ZRK_API void linkNSArrayCategory();

class ZRK_API ZRKCategoryLoader {
 public:
  ZRKCategoryLoader() = delete;
  static void loadCategories();
};

}  // namespace zrk

#endif  // ZRK_ZRKCATEGORYLOADER_H
