// Response bodies through the request layer's parser into every model.
//
// Input: the body of an answer, as the session would deliver it.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzCheck.h"
#include "request/ZRKJsonBody.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::fuzz {
namespace {

bool isWholeNumberText(const std::optional<std::string>& text) {
  if (!text || text->empty()) return false;
  const std::size_t start = (*text)[0] == '-' ? 1 : 0;
  if (start == text->size()) return false;
  return text->find_first_not_of("0123456789", start) == std::string::npos;
}

// The value under the key once nulls are gone, as the models see it.
const ZRKJson* present(const ZRKJson* body, const char* key) {
  if (!body) return nullptr;
  const auto found = body->find(key);
  return found == body->end() || found->is_null() ? nullptr : &*found;
}

std::size_t objectElements(const ZRKJson* array) {
  std::size_t count = 0;
  if (array && array->is_array()) {
    for (const auto& element : *array) count += element.is_object();
  }
  return count;
}

// The request layer hands out exactly one of object and error, at once when
// called on the main thread.
std::shared_ptr<ZRKApiResponseDecodable> parseThroughRequestLayer(const std::string& body, ZRKDeserializer model) {
  int calls = 0;
  std::shared_ptr<ZRKApiResponseDecodable> decoded;
  ZRKApiRequest::parseResponse(nullptr, body, std::nullopt, {std::move(model)},
                               [&](auto object, auto, std::optional<ZRKError> error) {
                                 ++calls;
                                 ZRK_FUZZ_CHECK((object == nullptr) == error.has_value());
                                 if (error) ZRK_FUZZ_CHECK(isUTF8(error->localizedDescription()));
                                 decoded = std::move(object);
                               });
  ZRK_FUZZ_CHECK(calls == 1);
  return decoded;
}

void checkScan(const ZRKJson* body, const std::string& text) {
  const auto decoded = parseThroughRequestLayer(text, std::make_shared<ZRKScanAPIResponse>());
  ZRK_FUZZ_CHECK((decoded != nullptr) == (body && !present(body, "code")));
  if (!decoded) return;
  const auto* scan = dynamic_cast<const ZRKScanAPIResponse*>(decoded.get());
  ZRK_FUZZ_CHECK(scan);
  for (const auto* field : {&scan->scanId(), &scan->triggerId(), &scan->thumbnailUrl(), &scan->payloadUrl(),
                            &scan->payloadData(), &scan->triggerName()}) {
    ZRK_FUZZ_CHECK(isUTF8(*field));
  }
  if (scan->ocrData()) ZRK_FUZZ_CHECK(scan->ocrData()->is_array() && !containsNull(*scan->ocrData()));
  ZRK_FUZZ_CHECK(!scan->allResponseFields());
  const auto copy = scan->copy();
  ZRK_FUZZ_CHECK(copy->scanId() == scan->scanId() && copy->ocrData() == scan->ocrData() && !copy->triggerName());
}

void checkUser(const ZRKJson* body, const std::string& text) {
  const auto decoded = parseThroughRequestLayer(text, std::make_shared<ZRKUserAPIResponse>());
  ZRK_FUZZ_CHECK((decoded != nullptr) == (body && !present(body, "code")));
  if (!decoded) return;
  const auto* user = dynamic_cast<const ZRKUserAPIResponse*>(decoded.get());
  ZRK_FUZZ_CHECK(user);
  for (const auto* field :
       {&user->email(), &user->name(), &user->gender(), &user->birthdate(), &user->avatar(), &user->token()}) {
    ZRK_FUZZ_CHECK(isUTF8(*field));
  }
  ZRK_FUZZ_CHECK(isUTF8(user->description()));
}

void checkCollections(const ZRKJson* body, const std::string& text) {
  const auto decoded = parseThroughRequestLayer(text, std::make_shared<ZRKCollectionsAPIResponse>());
  const ZRKJson* result = present(body, "result");
  ZRK_FUZZ_CHECK((decoded != nullptr) == (result && result->is_array()));
  if (!decoded) return;
  const auto* page = dynamic_cast<const ZRKCollectionsAPIResponse*>(decoded.get());
  ZRK_FUZZ_CHECK(page && page->collections());
  ZRK_FUZZ_CHECK(page->collections()->size() == objectElements(result));
  for (const auto& collection : *page->collections()) {
    ZRK_FUZZ_CHECK(collection);
    ZRK_FUZZ_CHECK(isUTF8(collection->collectionId()) && isUTF8(collection->name()) && isUTF8(collection->imageUrl()));
    ZRK_FUZZ_CHECK(isUTF8(collection->description()));
  }
}

void checkHistory(const ZRKJson* body, const std::string& text) {
  const auto decoded = parseThroughRequestLayer(text, std::make_shared<ZRKScanHistoryAPIResponse>());
  ZRK_FUZZ_CHECK((decoded != nullptr) == (body && !present(body, "code")));
  if (!decoded) return;
  const auto* page = dynamic_cast<const ZRKScanHistoryAPIResponse*>(decoded.get());
  ZRK_FUZZ_CHECK(page && page->result());
  ZRK_FUZZ_CHECK(page->result()->size() == objectElements(present(body, "result")));
  for (const auto& entry : *page->result()) {
    ZRK_FUZZ_CHECK(entry && !entry->triggerId());
    ZRK_FUZZ_CHECK(isWholeNumberText(entry->lat()) && isWholeNumberText(entry->lng()));
    for (const auto* field : {&entry->scanId(), &entry->campaignId(), &entry->thumbnailUrl(), &entry->imageUrl(),
                              &entry->payloadUrl()}) {
      ZRK_FUZZ_CHECK(isUTF8(*field));
    }
  }
}

void checkToken(const ZRKJson* body, const std::string& text) {
  const auto decoded = parseThroughRequestLayer(text, std::make_shared<ZRKApiAuthToken>());
  const ZRKJson* token = present(body, "token");
  ZRK_FUZZ_CHECK((decoded != nullptr) == (token && token->is_string()));
  if (!decoded) return;
  const auto* auth = dynamic_cast<const ZRKApiAuthToken*>(decoded.get());
  ZRK_FUZZ_CHECK(auth && auth->tokenString() && isUTF8(*auth->tokenString()));
  ZRK_FUZZ_CHECK(auth->allResponseFields() && !containsNull(*auth->allResponseFields()));
  // Whole seconds only, whatever the body held.
  ZRK_FUZZ_CHECK(std::trunc(auth->expire()) == auth->expire() && std::trunc(auth->expireIn()) == auth->expireIn());
  ZRK_FUZZ_CHECK(isUTF8(auth->description()));
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::optional<ZRKJson> json = detail::parseJSONObjectBody(text);
  const ZRKJson* body = json ? &*json : nullptr;
  fuzz::checkScan(body, text);
  fuzz::checkUser(body, text);
  fuzz::checkCollections(body, text);
  fuzz::checkHistory(body, text);
  fuzz::checkToken(body, text);
  return 0;
}
