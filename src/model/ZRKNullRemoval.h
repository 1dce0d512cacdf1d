#ifndef ZRK_MODEL_ZRKNULLREMOVAL_H
#define ZRK_MODEL_ZRKNULLREMOVAL_H

#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKJson.h"

namespace zrk::detail {

// Null removal for an object or an array (any other value is returned as is);
// shared by the dictionary and array variants.
ZRKJson CopyRemovingNulls(const ZRKJson& container);

// Whether a null stands anywhere in the value.
bool HasNull(const ZRKJson& value);

// A value as the models read it, without its nulls: the value itself when it
// holds none (most answers; no copy, which for a large answer is most of its
// cost), otherwise a copy without them, from which strings are moved out.
class WithoutNulls {
 public:
  explicit WithoutNulls(const ZRKJson& value)
      : copy_(HasNull(value) ? std::optional(CopyRemovingNulls(value)) : std::nullopt),
        value_(copy_ ? &*copy_ : &value) {}
  WithoutNulls(const WithoutNulls&) = delete;
  WithoutNulls& operator=(const WithoutNulls&) = delete;

  const ZRKJson& operator*() const { return *value_; }
  // The string under the key, as zrk_stringForKey reads it; read each key once.
  std::optional<std::string> takeString(std::string_view key);

 private:
  std::optional<ZRKJson> copy_;
  const ZRKJson* value_;
};

}  // namespace zrk::detail

#endif  // ZRK_MODEL_ZRKNULLREMOVAL_H
