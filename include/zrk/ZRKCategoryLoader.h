// Keeps the library's free-function groups in a static link: an application
// that links the static library and finds one of them missing calls
// loadCategories() once. Nothing in the library calls it.
#ifndef ZRK_ZRKCATEGORYLOADER_H
#define ZRK_ZRKCATEGORYLOADER_H

namespace zrk {

void linkNSErrorCategory();
void linkNSDictionaryCategory();
void linkNSMutableURLRequestCategory();
void linkNSStringCategory();
void linkNSArrayCategory();

class ZRKCategoryLoader {
 public:
  ZRKCategoryLoader() = delete;
  static void loadCategories();
};

}  // namespace zrk

#endif  // ZRK_ZRKCATEGORYLOADER_H
