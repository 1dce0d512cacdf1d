// The photo a scan uploads: at most 1000 pixels on the longer side, as a
// JPEG of quality 100.
#ifndef ZRK_ENDPOINTS_ZRKSCANUPLOAD_H
#define ZRK_ENDPOINTS_ZRKSCANUPLOAD_H

#include <optional>
#include <string>

#include "zrk/ZRKImage.h"

namespace zrk::detail {

// The JPEG bytes; nullopt when the image cannot be scaled or encoded.
std::optional<std::string> scanUploadJPEG(const ZRKImage& image);

}  // namespace zrk::detail

#endif  // ZRK_ENDPOINTS_ZRKSCANUPLOAD_H
