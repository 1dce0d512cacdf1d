#include "zrk/ZRKApi.h"

#include "zrk/ZRKCategoryLoader.h"
#include "zrk/ZRKURLComponentsQuery.h"
#include "zrk/ZRKVersion.h"

namespace zrk {

std::string ZRKApi::sdkVersion() { return ZRK_VERSION_STRING; }

void ZRKCategoryLoader::loadCategories() {
  linkNSErrorCategory();
  linkNSDictionaryCategory();
  linkNSMutableURLRequestCategory();
  linkNSStringCategory();
  linkNSURLComponentsCategory();
  linkNSArrayCategory();
}

}  // namespace zrk
