#include "zrk/ZRKError.h"

namespace zrk {

std::string ZRKError::localizedDescription() const {
  if (userInfo.is_object()) {
    const auto it = userInfo.find(ZRKLocalizedDescriptionKey);
    if (it != userInfo.end() && it->is_string()) return it->get<std::string>();
  }
  return "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) + ".)";
}

std::ostream& operator<<(std::ostream& os, const ZRKError& error) {
  return os << error.domain << " " << error.code << ": " << error.localizedDescription();
}

}  // namespace zrk
