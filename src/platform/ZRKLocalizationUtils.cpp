#include "zrk/ZRKLocalizationUtils.h"

namespace zrk {

std::string ZRKLocalizationUtils::localizedStringForKey(std::string_view key) { return std::string(key); }

}  // namespace zrk
