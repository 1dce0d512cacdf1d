#ifndef ZRK_MODEL_ZRKNULLREMOVAL_H
#define ZRK_MODEL_ZRKNULLREMOVAL_H

#include "zrk/ZRKJson.h"

namespace zrk::detail {

// Null removal for an object or an array (any other value is returned as is);
// shared by the dictionary and array variants.
ZRKJson CopyRemovingNulls(const ZRKJson& container);

}  // namespace zrk::detail

#endif  // ZRK_MODEL_ZRKNULLREMOVAL_H
