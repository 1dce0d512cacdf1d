// What the fuzz targets share: invariant checks (a failed one aborts, which
// libFuzzer reports as a crash and saves the input) and the request layer's
// completion rules.
#ifndef ZRK_FUZZ_FUZZCHECK_H
#define ZRK_FUZZ_FUZZCHECK_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKMainQueue.h"

#define ZRK_FUZZ_CHECK(condition)                                                        \
  ((condition) ? void() : (std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, \
                                        __LINE__, #condition),                             \
                           std::abort()))

namespace zrk::fuzz {

inline std::string asString(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The JSON writer's own UTF-8 validation, independent of the library's.
inline bool isUTF8(std::initializer_list<std::optional<std::string>> texts) {
  try {
    for (const auto& text : texts) (void)ZRKJson(text.value_or("")).dump();
    return true;
  } catch (const ZRKJson::exception&) {
    return false;
  }
}

// Every request-layer completion runs once, on the main thread, with
// exactly one of object and error, and the error reads as text.
struct Outcome {
  int calls = 0;
  std::shared_ptr<ZRKApiResponseDecodable> object;
  std::optional<ZRKError> error;

  ZRKApiRequestCompletion completion() {
    return [this](auto decoded, auto, std::optional<ZRKError> failure) {
      ++calls;
      ZRK_FUZZ_CHECK(ZRKMainQueue::isMainThread() && (decoded == nullptr) == failure.has_value());
      if (failure) ZRK_FUZZ_CHECK(isUTF8({failure->localizedDescription()}));
      object = std::move(decoded);
      error = std::move(failure);
    };
  }
};

// The request layer's verdict on a body; on the main thread it comes at once.
inline Outcome parsed(const std::string& body, const ZRKApiRequest::Deserializers& models) {
  Outcome outcome;
  ZRKApiRequest::parseResponse(nullptr, body, std::nullopt, models, outcome.completion());
  ZRK_FUZZ_CHECK(outcome.calls == 1);
  return outcome;
}

}  // namespace zrk::fuzz

#endif  // ZRK_FUZZ_FUZZCHECK_H
