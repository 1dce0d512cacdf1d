#include "zrk/ZRKApi.h"

#include "zrk/ZRKCategoryLoader.h"
#include "zrk/ZRKURLComponentsQuery.h"

namespace zrk {

std::string ZRKApi::sdkVersion() { return "1.0.0"; }

void ZRKCategoryLoader::loadCategories() {
  linkNSErrorCategory();
  linkNSDictionaryCategory();
  linkNSMutableURLRequestCategory();
  linkNSStringCategory();
  linkNSURLComponentsCategory();
  linkNSArrayCategory();
}

}  // namespace zrk
