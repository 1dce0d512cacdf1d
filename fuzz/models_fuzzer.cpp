// Answers through the request layer's parser into every model and into the
// library's errors. Built twice, as models_fuzzer and api_error_fuzzer, each
// with its own seed corpus.
//
// Input: the body of an answer, as the session would deliver it.
#include <algorithm>
#include <cmath>

#include "FuzzCheck.h"
#include "request/ZRKJsonBody.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::fuzz {

const ZRKJson* at(const ZRKJson* object, const std::string& key) {
  return object && object->contains(key) ? &(*object)[key] : nullptr;
}

// The value under the key once nulls are gone, as the models see it.
const ZRKJson* present(const ZRKJson* body, const std::string& key) {
  return at(body, key) && !at(body, key)->is_null() ? at(body, key) : nullptr;
}

bool isWholeNumberText(const std::optional<std::string>& text) {
  const std::size_t start = text && text->starts_with('-') ? 1 : 0;
  return text && text->size() > start && text->find_first_not_of("0123456789", start) == std::string::npos;
}

bool containsNull(const ZRKJson& value) {
  return value.is_null() || (value.is_structured() && std::any_of(value.begin(), value.end(), containsNull));
}

std::size_t objectElements(const ZRKJson* array) {
  const auto isObject = [](const ZRKJson& element) { return element.is_object(); };
  return array && array->is_array() ? std::count_if(array->begin(), array->end(), isObject) : 0;
}

// A model that never decodes, so the request layer falls back to the body's error.
struct Refusing : ZRKApiResponseDecodable {
  std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson*) const override { return {}; }
  std::optional<ZRKJson> allResponseFields() const override { return std::nullopt; }
};

void checkShape(const ZRKError& error) {
  ZRK_FUZZ_CHECK(error.domain == ZRKDomain && error.userInfo.is_object());
  const ZRKJson* description = at(&error.userInfo, ZRKLocalizedDescriptionKey);
  ZRK_FUZZ_CHECK(description && description->is_string() && isUTF8({description->get<std::string>()}));
  ZRK_FUZZ_CHECK(error.localizedDescription() == *description);
  ZRK_FUZZ_CHECK(at(&error.userInfo, ZRKErrorMessageKey) && at(&error.userInfo, ZRKErrorMessageKey)->is_string());
  // The whole user info must stay writable as JSON (a host may log it).
  (void)error.userInfo.dump();
}

void checkErrors(const std::string& text, const ZRKJson* body) {
  const std::optional<ZRKError> error = zrk_errorFromAPIResponse(body);
  if (error) {
    // Only a readable code makes an error, and it is kept as text too.
    const ZRKJson* code = at(body, "code");
    ZRK_FUZZ_CHECK(code && (code->is_number() || code->is_boolean() || code->is_string()) && error->code != -1);
    checkShape(*error);
    ZRK_FUZZ_CHECK(error->userInfo.value(ZRKErrorCodeKey, ZRKJson()) == std::to_string(error->code));
    if (const ZRKJson* message = at(body, "message"); message && message->is_string()) {
      ZRK_FUZZ_CHECK(error->userInfo[ZRKErrorMessageKey] == *message);
    }
    const ZRKJson* detail = at(body, "detail");
    const bool detailIsObject = detail && detail->is_object();
    ZRK_FUZZ_CHECK(error->userInfo.contains(ZRKErrorDetailKey) == detailIsObject);
    if (detailIsObject) ZRK_FUZZ_CHECK(error->userInfo[ZRKErrorDetailKey] == *detail);
  }
  // The request layer reports the body's own error when it has one, the
  // generic one otherwise.
  const Outcome outcome = parsed(text, {std::make_shared<Refusing>()});
  ZRK_FUZZ_CHECK(outcome.error);
  checkShape(*outcome.error);
  ZRK_FUZZ_CHECK(*outcome.error == error.value_or(zrk_genericFailedToParseResponseError()));
  if (!error) ZRK_FUZZ_CHECK(outcome.error->code == ZRKErrorCodeFailedToParseResponse);
}

// The body through the request layer into a Model, which it must give
// exactly when `expected`.
template <typename Model>
std::shared_ptr<const Model> decode(const std::string& text, bool expected) {
  const auto model = std::dynamic_pointer_cast<const Model>(parsed(text, {std::make_shared<Model>()}).object);
  ZRK_FUZZ_CHECK((model != nullptr) == expected);
  return model;
}

void checkModels(const std::string& text, const ZRKJson* body) {
  // A body with a code is an error for every model but the collections and the token.
  const bool noError = body && !present(body, "code");
  if (const auto scan = decode<ZRKScanAPIResponse>(text, noError)) {
    if (scan->ocrData()) ZRK_FUZZ_CHECK(scan->ocrData()->is_array() && !containsNull(*scan->ocrData()));
    // A copy keeps everything but the trigger's name.
    const auto copy = scan->copy();
    ZRK_FUZZ_CHECK(copy->scanId() == scan->scanId() && copy->triggerId() == scan->triggerId());
    ZRK_FUZZ_CHECK(copy->ocrData() == scan->ocrData() && !copy->triggerName());
  }
  (void)decode<ZRKUserAPIResponse>(text, noError);
  const ZRKJson* result = present(body, "result");
  if (const auto page = decode<ZRKCollectionsAPIResponse>(text, result && result->is_array())) {
    ZRK_FUZZ_CHECK(page->collections() && page->collections()->size() == objectElements(result));
  }
  if (const auto page = decode<ZRKScanHistoryAPIResponse>(text, noError)) {
    ZRK_FUZZ_CHECK(page->result() && page->result()->size() == objectElements(result));
    for (const auto& e : *page->result()) {
      ZRK_FUZZ_CHECK(e && !e->triggerId() && isWholeNumberText(e->lat()) && isWholeNumberText(e->lng()));
    }
  }
  const ZRKJson* token = present(body, "token");
  if (const auto auth = decode<ZRKApiAuthToken>(text, token && token->is_string())) {
    ZRK_FUZZ_CHECK(auth->tokenString() && auth->allResponseFields() && !containsNull(*auth->allResponseFields()));
    // Whole seconds only, whatever the body held.
    ZRK_FUZZ_CHECK(std::trunc(auth->expire()) == auth->expire() && std::trunc(auth->expireIn()) == auth->expireIn());
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = asString(data, size);
  const std::optional<ZRKJson> json = detail::parseJSONObjectBody(text);
  checkErrors(text, json ? &*json : nullptr);
  checkModels(text, json ? &*json : nullptr);
  return 0;
}

}  // namespace zrk::fuzz
