// Scanning, collections and scan history.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <span>

#include "HttpHelpers.h"
#include "ImageFetch.h"
#include "Passwords.h"
#include "Service.h"

namespace zrk::emulator {

namespace {

std::optional<double> coordinate(const httplib::Request& request, const char* name, const char* otherName,
                                 double limit) {
  const auto text = headerEither(request, name, otherName);
  if (!text || text->empty()) return std::nullopt;
  double value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size() || !std::isfinite(value) || std::abs(value) > limit) {
    return std::nullopt;
  }
  return value;
}

// Whole non-negative numbers only; fallback when absent.
std::optional<std::int64_t> queryInteger(const httplib::Request& request, const char* name, std::int64_t fallback) {
  if (!request.has_param(name)) return fallback;
  const std::string text = request.get_param_value(name);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::string> Service::fetchScanImage(const std::string& url, httplib::Response& response) {
  const ParsedUrl parsed = parseHttpUrl(url);
  // The emulator's own files are read directly: fetching them over HTTP
  // would tie up a second worker for each scan.
  if (parsed.scheme == "http" && isLoopbackHost(parsed.host) && parsed.port == ownPort_.load()) {
    const std::string path = parsed.target.substr(0, parsed.target.find('?'));
    for (const char* prefix : {"/files/triggers/", "/files/scans/"}) {
      if (!path.starts_with(prefix)) continue;
      const std::string id = path.substr(std::string_view(prefix).size());
      if (path.starts_with("/files/triggers/")) {
        auto image = catalog_.read([&](const Catalog& catalog) -> std::optional<std::string> {
          const Trigger* trigger = catalog.trigger(id);
          return trigger ? std::optional(trigger->image) : std::nullopt;
        });
        if (image) return image;
      } else if (auto image = storage_.scanImage(id)) {
        return std::move(image->first);
      }
      sendError(response, 422, "fetching fileUrl gave HTTP status 404", {{"fileUrl", url}});
      return std::nullopt;
    }
  }
  auto fetched = fetchImage(parsed, options_.allowRemoteFetch, kMaxBodyBytes);
  if (auto* failure = std::get_if<FetchFailure>(&fetched)) {
    sendError(response, failure->code, failure->message, {{"fileUrl", url}});
    return std::nullopt;
  }
  return std::move(std::get<FetchedImage>(fetched).bytes);
}

void Service::scan(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  std::optional<std::string> collectionId;
  if (request.matches.size() > 1 && request.matches[1].matched) collectionId = request.matches[1].str();

  std::string image;
  std::optional<std::string> fileUrlText;
  if (request.is_multipart_form_data()) {
    if (!request.has_file("file")) {
      sendError(response, 400, "A multipart scan wants the image in a part named \"file\"");
      return;
    }
    image = request.get_file_value("file").content;
  } else {
    const auto body = jsonBody(request, response);
    if (!body) return;
    const auto fileUrl = body->find("fileUrl");
    if (fileUrl == body->end() || !fileUrl->is_string()) {
      sendError(response, 400, "A scan wants a multipart image or a JSON body with \"fileUrl\"");
      return;
    }
    if (const auto inBody = body->find("collectionId"); inBody != body->end()) {
      if (!inBody->is_string() || (collectionId && *collectionId != inBody->get<std::string>())) {
        sendError(response, 400, "\"collectionId\" in the body differs from the collection in the path");
        return;
      }
      collectionId = inBody->get<std::string>();
    }
    fileUrlText = fileUrl->get<std::string>();
  }
  if (collectionId &&
      !catalog_.read([&](const Catalog& catalog) { return catalog.collection(*collectionId) != nullptr; })) {
    sendError(response, 404, "No such collection", {{"collectionId", *collectionId}});
    return;
  }
  if (fileUrlText) {
    auto fetched = fetchScanImage(*fileUrlText, response);
    if (!fetched) return;
    image = std::move(*fetched);
  }
  const auto imageType = imageTypeOf(image);
  if (!imageType) {
    sendError(response, 400, "The image is neither a JPEG nor a PNG", {{"bytes", image.size()}});
    return;
  }

  const auto found = catalog_.match(bytesOf(image), collectionId);
  const Trigger* trigger = found ? &found->trigger : nullptr;
  ScanRecord record;
  record.id = randomHex(16);
  record.appKey = caller->appKey;
  record.appUser = caller->appUser;
  record.timestamp = static_cast<std::int64_t>(nowSeconds());
  record.matched = trigger != nullptr;
  record.lat = coordinate(request, "ZRK-User-Lat", "Pelmor-User-Lat", 90);
  record.lng = coordinate(request, "ZRK-User-Lng", "Pelmor-User-Lng", 180);
  if (trigger) {
    record.triggerId = trigger->id;
    record.collectionId = trigger->collectionId;
    record.payloadUrl = trigger->payloadUrl;
  }
  storage_.insertScan(record, image, *imageType);
  requestScan.emplace(record.id, record.triggerId);

  nlohmann::json answer = {{"object", "scan"}, {"id", record.id}, {"timestamp", record.timestamp}, {"score", 0}};
  if (trigger) {
    answer["score"] = static_cast<int>(std::lround(std::clamp(found->match.score, 0.0, 100.0)));
    answer["triggerId"] = trigger->id;
    answer["triggerName"] = trigger->name;
    answer["triggerType"] = trigger->type;
    answer["payloadUrl"] = trigger->payloadUrl;
    answer["payloadData"] = trigger->payloadData;
    answer["thumbnailUrl"] = baseUrl(request) + "/files/triggers/" + trigger->id;
    answer["ocr"] = trigger->ocr;
  }
  sendJson(response, 200, answer);
}

void Service::collections(const httplib::Request& request, httplib::Response& response) {
  if (!requireApp(request, response)) return;
  const std::string base = baseUrl(request);
  nlohmann::json result = catalog_.read([&](const Catalog& catalog) {
    nlohmann::json list = nlohmann::json::array();
    for (const Collection& collection : catalog.collections) {
      nlohmann::json item = {
          {"id", collection.id}, {"name", collection.name}, {"triggers", collection.triggerIds.size()}};
      if (!collection.triggerIds.empty()) item["imageUrl"] = base + "/files/triggers/" + collection.triggerIds.front();
      list.push_back(std::move(item));
    }
    return list;
  });
  const std::size_t total = result.size();
  sendJson(response, 200, {{"object", "list"}, {"result", std::move(result)}, {"total", total}});
}

void Service::history(const httplib::Request& request, httplib::Response& response) {
  const auto caller = requireApp(request, response);
  if (!caller) return;
  const auto count = queryInteger(request, "count", 20);
  const auto offset = queryInteger(request, "offset", 0);
  if (!count || *count < 1) {
    sendError(response, 400, "\"count\" must be a whole number from 1 up", {{"parameter", "count"}});
    return;
  }
  if (!offset || *offset < 0) {
    sendError(response, 400, "\"offset\" must be a whole number from 0 up", {{"parameter", "offset"}});
    return;
  }
  const std::string base = baseUrl(request);
  nlohmann::json result = nlohmann::json::array();
  for (const ScanRecord& scan :
       storage_.history(caller->appKey, caller->appUser, std::min<std::int64_t>(*count, 100), *offset)) {
    nlohmann::json item = {{"scanId", scan.id},
                           {"timestamp", scan.timestamp},
                           {"matched", scan.matched},
                           {"imageUrl", base + "/files/scans/" + scan.id}};
    if (scan.matched) {
      item["triggerId"] = scan.triggerId;
      item["campaignId"] = scan.collectionId;
      item["thumbnailUrl"] = base + "/files/triggers/" + scan.triggerId;
      if (!scan.payloadUrl.empty()) item["payloadUrl"] = scan.payloadUrl;
    } else {
      item["thumbnailUrl"] = item["imageUrl"];
    }
    if (scan.lat) item["lat"] = *scan.lat;
    if (scan.lng) item["lng"] = *scan.lng;
    result.push_back(std::move(item));
  }
  sendJson(response, 200,
           {{"object", "list"},
            {"result", std::move(result)},
            {"total", storage_.historyTotal(caller->appKey, caller->appUser)}});
}

}  // namespace zrk::emulator
