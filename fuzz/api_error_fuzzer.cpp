// Error bodies into the library's errors.
//
// Input: the body of an answer. It reaches zrk_errorFromAPIResponse parsed
// as the request layer parses it, and the request layer itself with no
// deserializer that accepts it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "request/ZRKJsonBody.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKApiRequest.h"

namespace zrk::fuzz {
namespace {

// A model that never decodes, so the request layer falls back to the body's error.
class Refusing : public ZRKApiResponseDecodable {
 public:
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson*) const override {
    return nullptr;
  }
  std::optional<ZRKJson> allResponseFields() const override { return std::nullopt; }
};

const std::string* stringAt(const ZRKJson& info, const std::string& key) {
  const auto found = info.find(key);
  return found != info.end() && found->is_string() ? &found->get_ref<const std::string&>() : nullptr;
}

void checkShape(const ZRKError& error) {
  ZRK_FUZZ_CHECK(error.domain == ZRKDomain);
  ZRK_FUZZ_CHECK(error.userInfo.is_object());
  const std::string* description = stringAt(error.userInfo, ZRKLocalizedDescriptionKey);
  ZRK_FUZZ_CHECK(description && isUTF8(*description));
  ZRK_FUZZ_CHECK(error.localizedDescription() == *description);
  ZRK_FUZZ_CHECK(stringAt(error.userInfo, ZRKErrorMessageKey));
  // The whole user info must stay writable as JSON (a host may log it).
  (void)error.userInfo.dump();
}

void checkBodyError(const ZRKJson* body) {
  const std::optional<ZRKError> error = zrk_errorFromAPIResponse(body);
  if (!body) {
    ZRK_FUZZ_CHECK(!error);
    return;
  }
  const auto code = body->find("code");
  const bool codeReadable = code != body->end() && (code->is_number() || code->is_boolean() || code->is_string());
  if (!codeReadable) ZRK_FUZZ_CHECK(!error);
  if (!error) return;

  checkShape(*error);
  ZRK_FUZZ_CHECK(error->code != -1);
  const std::string* codeText = stringAt(error->userInfo, ZRKErrorCodeKey);
  ZRK_FUZZ_CHECK(codeText && *codeText == std::to_string(error->code));

  const auto message = body->find("message");
  if (message != body->end() && message->is_string()) {
    ZRK_FUZZ_CHECK(*stringAt(error->userInfo, ZRKErrorMessageKey) == message->get_ref<const std::string&>());
  }
  const auto detail = body->find("detail");
  const bool detailIsObject = detail != body->end() && detail->is_object();
  const auto detailInError = error->userInfo.find(ZRKErrorDetailKey);
  ZRK_FUZZ_CHECK((detailInError != error->userInfo.end()) == detailIsObject);
  if (detailIsObject) ZRK_FUZZ_CHECK(*detailInError == *detail);
}

void checkRequestLayer(const std::string& text, const ZRKJson* body) {
  int calls = 0;
  std::optional<ZRKError> seen;
  ZRKApiRequest::parseResponse(nullptr, text, std::nullopt, {std::make_shared<Refusing>()},
                               [&](auto object, auto, std::optional<ZRKError> error) {
                                 ++calls;
                                 ZRK_FUZZ_CHECK(!object && error);
                                 seen = std::move(error);
                               });
  ZRK_FUZZ_CHECK(calls == 1 && seen);
  checkShape(*seen);
  // The body's own error when it has one, the generic one otherwise.
  const std::optional<ZRKError> fromBody = zrk_errorFromAPIResponse(body);
  ZRK_FUZZ_CHECK(*seen == fromBody.value_or(zrk_genericFailedToParseResponseError()));
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::optional<ZRKJson> json = detail::parseJSONObjectBody(text);
  const ZRKJson* body = json ? &*json : nullptr;
  fuzz::checkBodyError(body);
  fuzz::checkRequestLayer(text, body);
  return 0;
}
