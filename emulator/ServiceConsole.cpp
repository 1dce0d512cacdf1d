// The web console and the admin routes it stands on, which scripts may call
// as well: the catalog changed at run time, a photo tried without a scan,
// the recent scans, the drills; and what the request log keeps.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <span>

#include "HttpHelpers.h"
#include "Service.h"
#include "console/ConsoleFiles.h"

namespace zrk::emulator {

namespace {

const char* const kTokenCookie = "zrk-console-token";

std::string base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// Plain or as a data: URL; nothing when it is not base64.
std::optional<std::string> fromBase64(std::string text) {
  if (text.starts_with("data:")) text.erase(0, text.find(',') == std::string::npos ? text.size() : text.find(',') + 1);
  std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; });
  if (text.size() % 4 != 0 || text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    return std::nullopt;
  }
  std::string out(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding as zero bytes.
  const auto padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
  if (padding > 2) return std::nullopt;
  out.resize(static_cast<std::size_t>(length) - padding);
  return out;
}

std::optional<std::string> cookie(const std::string& header, const std::string& name) {
  for (std::size_t at = 0; at < header.size();) {
    const auto end = std::min(header.find(';', at), header.size());
    std::string pair = header.substr(at, end - at);
    pair.erase(0, pair.find_first_not_of(' '));
    if (pair.starts_with(name + "=")) return pair.substr(name.size() + 1);
    at = end + 1;
  }
  return std::nullopt;
}

// A text field of a multipart form or a JSON object; "" when absent.
struct Fields {
  const httplib::Request& request;
  const nlohmann::json* json;
  std::optional<std::string> text(const char* name) const {
    if (json) {
      const auto found = json->find(name);
      if (found == json->end() || found->is_null()) return "";
      if (!found->is_string()) return std::nullopt;
      return found->get<std::string>();
    }
    return request.has_file(name) ? request.get_file_value(name).content : "";
  }
};

}  // namespace

bool Service::admitted(const httplib::Request& request) const {
  const std::string& token = options_.consoleToken;
  if (token.empty()) return true;
  std::string offered = request.get_header_value("ZRK-Console-Token");
  if (offered.empty()) offered = request.get_param_value("token");
  if (offered.empty()) offered = cookie(request.get_header_value("Cookie"), kTokenCookie).value_or("");
  return offered.size() == token.size() && CRYPTO_memcmp(offered.data(), token.data(), token.size()) == 0;
}

LoggedRequest Service::logEntry(const httplib::Request& request, const httplib::Response& response) const {
  LoggedRequest entry;
  entry.time = nowSeconds();
  if (requestStarted) {
    entry.latencyMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - *requestStarted).count();
    requestStarted.reset();
  }
  if (const auto timing = response.get_header_value("Server-Timing"); timing.starts_with("app;dur=")) {
    entry.durationMs = std::strtod(timing.c_str() + 8, nullptr);
  }
  entry.method = request.method;
  entry.path = request.path;
  if (const auto mark = request.target.find('?'); mark != std::string::npos)
    entry.query = maskedQuery(request.target.substr(mark + 1));
  for (const auto& [name, value] : request.headers) {
    // The server adds the connection's addresses as headers; they were not sent.
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
    entry.headers.emplace_back(name, isSecretName(name) ? maskedValue(name, value) : value);
  }
  // A multipart body is parsed into parts and no longer held whole.
  entry.bodySize = std::max<std::uint64_t>(request.body.size(), contentLength(request).value_or(0));
  if (request.is_multipart_form_data()) {
    nlohmann::json parts = nlohmann::json::array();
    for (const auto& [name, part] : request.files) {
      nlohmann::json item = {{"name", name}, {"size", part.content.size()}};
      if (!part.filename.empty()) item["filename"] = part.filename;
      if (!part.content_type.empty()) item["contentType"] = part.content_type;
      if (part.filename.empty() && part.content.size() <= 200)
        item["value"] = isSecretName(name) ? "****" : part.content;
      parts.push_back(std::move(item));
    }
    entry.body = {{"parts", std::move(parts)}};
  } else if (!request.body.empty()) {
    const std::string type = request.get_header_value("Content-Type");
    entry.body = {{"contentType", type}};
    // Larger bodies are no request of this service; the log keeps their size.
    if (type.starts_with("application/json") && request.body.size() <= 16 * 1024) {
      auto json = nlohmann::json::parse(request.body, nullptr, false);
      if (!json.is_discarded()) entry.body["json"] = maskedJson(std::move(json));
    }
  }
  // A scan's photo is kept with the scan; the log points there.
  if (requestScan) {
    if (entry.body.is_null()) entry.body = nlohmann::json::object();
    entry.body["scanImage"] = "/files/scans/" + requestScan->first;
    if (!requestScan->second.empty()) entry.body["triggerId"] = requestScan->second;
    requestScan.reset();
  }
  entry.status = response.status;
  return entry;
}

void Service::consoleFile(const httplib::Request& request, httplib::Response& response) {
  const std::string name = request.path == "/" ? "index.html" : request.matches[1].str();
  const ConsoleFile* file = findConsoleFile(name);
  if (!file) {
    sendError(response, 404, "No such console file", {{"path", request.path}});
    return;
  }
  // Opening the console's address with ?token= leaves the token in a cookie
  // that the page's own requests and pictures carry.
  if (!options_.consoleToken.empty() && request.has_param("token")) {
    response.set_header("Set-Cookie", std::string(kTokenCookie) + "=" + options_.consoleToken +
                                          "; Path=/; HttpOnly; SameSite=Strict");
  }
  response.set_header("Cache-Control", "no-store");
  response.set_content(std::string(file->body), std::string(file->type).c_str());
}

void Service::overview(const httplib::Request&, httplib::Response& response) {
  nlohmann::json body = catalog_.read([](const Catalog& catalog) {
    nlohmann::json collections = nlohmann::json::array();
    for (const Collection& collection : catalog.collections) {
      nlohmann::json triggers = nlohmann::json::array();
      for (const std::string& id : collection.triggerIds) {
        const Trigger& trigger = *catalog.trigger(id);
        triggers.push_back({{"id", id},
                            {"name", trigger.name},
                            {"type", trigger.type},
                            {"payloadUrl", trigger.payloadUrl},
                            {"payloadData", trigger.payloadData},
                            {"imageUrl", "/files/triggers/" + id}});
      }
      collections.push_back({{"id", collection.id}, {"name", collection.name}, {"triggers", std::move(triggers)}});
    }
    return nlohmann::json{{"collections", std::move(collections)}};
  });
  nlohmann::json apps = nlohmann::json::array();
  for (const auto& [key, secret] : options_.apps) apps.push_back(key);
  const auto [users, scans] = storage_.counts();
  body.update({{"apps", std::move(apps)},
               {"users", users},
               {"scans", scans},
               {"persistent", !options_.dataFile.empty()},
               {"uploadLimit", kMaxBodyBytes},
               {"drills", {{"latencyMs", latencyMs_.load()}, {"failRate", failRate_.load()}}}});
  sendJson(response, 200, body);
}

void Service::createCollection(const httplib::Request& request, httplib::Response& response) {
  const auto body = jsonBody(request, response);
  if (!body) return;
  const Fields fields{request, &*body};
  const auto id = fields.text("id"), name = fields.text("name");
  if (!id || !name) {
    sendError(response, 400, "A collection wants \"id\" and \"name\" as strings");
    return;
  }
  if (const auto error = catalog_.createCollection(*id, *name)) {
    sendError(response, error->status, error->message);
    return;
  }
  sendJson(response, 201, {{"id", *id}});
}

void Service::deleteCollection(const httplib::Request& request, httplib::Response& response) {
  if (const auto error = catalog_.deleteCollection(request.matches[1].str())) {
    sendError(response, error->status, error->message);
    return;
  }
  sendJson(response, 200, {{"deleted", request.matches[1].str()}});
}

void Service::addTrigger(const httplib::Request& request, httplib::Response& response) {
  std::optional<nlohmann::json> json;
  if (!request.is_multipart_form_data()) {
    json = jsonBody(request, response);
    if (!json) return;
  }
  const Fields fields{request, json ? &*json : nullptr};
  Trigger trigger;
  trigger.collectionId = request.matches[1].str();
  const auto id = fields.text("id"), name = fields.text("name"), payloadUrl = fields.text("payloadUrl"),
             payloadData = fields.text("payloadData");
  if (!id || !name || !payloadUrl || !payloadData) {
    sendError(response, 400, "\"id\", \"name\", \"payloadUrl\" and \"payloadData\" must be strings");
    return;
  }
  trigger.id = *id;
  trigger.name = *name;
  trigger.payloadUrl = *payloadUrl;
  trigger.payloadData = *payloadData;
  if (json) {
    const auto image = json->find("image");
    const auto decoded = image != json->end() && image->is_string() ? fromBase64(*image) : std::nullopt;
    if (!decoded) {
      sendError(response, 400, "A trigger wants its JPEG or PNG image as base64 in \"image\"");
      return;
    }
    trigger.image = *decoded;
  } else {
    if (!request.has_file("file")) {
      sendError(response, 400, "A trigger wants its JPEG or PNG image in a part named \"file\"");
      return;
    }
    trigger.image = request.get_file_value("file").content;
  }
  if (const auto error = catalog_.addTrigger(std::move(trigger))) {
    sendError(response, error->status, error->message);
    return;
  }
  sendJson(response, 201, {{"id", *id}, {"imageUrl", "/files/triggers/" + *id}});
}

void Service::deleteTrigger(const httplib::Request& request, httplib::Response& response) {
  if (const auto error = catalog_.deleteTrigger(request.matches[1].str())) {
    sendError(response, error->status, error->message);
    return;
  }
  sendJson(response, 200, {{"deleted", request.matches[1].str()}});
}

void Service::tryPhoto(const httplib::Request& request, httplib::Response& response) {
  const std::string photo = request.is_multipart_form_data() ? request.get_file_value("file").content : request.body;
  if (!imageTypeOf(photo)) {
    sendError(response, 400, "The photo is neither a JPEG nor a PNG",
              {{"hint", "send it as the body, or as a multipart part named \"file\""}});
    return;
  }
  std::optional<std::string> collectionId;
  if (request.has_param("collection") && !request.get_param_value("collection").empty()) {
    collectionId = request.get_param_value("collection");
    if (!catalog_.read([&](const Catalog& catalog) { return catalog.collection(*collectionId) != nullptr; })) {
      sendError(response, 404, "No such collection", {{"collectionId", *collectionId}});
      return;
    }
  }
  const auto found = catalog_.match(bytesOf(photo), collectionId);
  const std::string picture =
      drawMatch(bytesOf(photo), found ? std::optional(found->match) : std::nullopt);
  if (picture.empty()) {
    sendError(response, 400, "The photo cannot be decoded");
    return;
  }
  nlohmann::json answer = {{"matched", found.has_value()}, {"picture", "data:image/jpeg;base64," + base64(picture)}};
  if (found) {
    const RecognitionMatch& match = found->match;
    nlohmann::json outline = nlohmann::json::array(), homography(match.homography);
    for (const RecognitionPoint& corner : match.outline) outline.push_back({corner.x, corner.y});
    answer.update({{"score", static_cast<int>(std::lround(std::clamp(match.score, 0.0, 100.0)))},
                   {"triggerId", found->trigger.id},
                   {"triggerName", found->trigger.name},
                   {"collectionId", found->trigger.collectionId},
                   {"payloadUrl", found->trigger.payloadUrl},
                   {"payloadData", found->trigger.payloadData},
                   {"thumbnailUrl", "/files/triggers/" + found->trigger.id},
                   {"outline", std::move(outline)},
                   {"homography", std::move(homography)},
                   {"inliers", match.inliers.size()}});
  }
  sendJson(response, 200, answer);
}

void Service::recentScans(const httplib::Request& request, httplib::Response& response) {
  std::int64_t count = 30;
  if (request.has_param("count")) {
    const std::string text = request.get_param_value("count");
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || count < 1) {
      sendError(response, 400, "\"count\" must be a whole number from 1 up", {{"parameter", "count"}});
      return;
    }
  }
  nlohmann::json scans = nlohmann::json::array();
  for (const ScanRecord& scan : storage_.recentScans(std::min<std::int64_t>(count, 200))) {
    nlohmann::json item = {{"scanId", scan.id},           {"timestamp", scan.timestamp}, {"appKey", scan.appKey},
                           {"appUser", scan.appUser},     {"matched", scan.matched},
                           {"imageUrl", "/files/scans/" + scan.id}};
    if (scan.matched) {
      item["triggerId"] = scan.triggerId;
      item["collectionId"] = scan.collectionId;
      item["thumbnailUrl"] = "/files/triggers/" + scan.triggerId;
    }
    scans.push_back(std::move(item));
  }
  sendJson(response, 200, {{"scans", std::move(scans)}});
}

void Service::drills(const httplib::Request& request, httplib::Response& response) {
  if (request.method == "POST") {
    const auto body = jsonBody(request, response);
    if (!body) return;
    const auto latency = body->find("latencyMs");
    const auto failRate = body->find("failRate");
    const bool latencyOk = latency == body->end() || (latency->is_number_integer() && *latency >= 0 && *latency <= 60000);
    const bool rateOk = failRate == body->end() || (failRate->is_number() && *failRate >= 0.0 && *failRate <= 1.0);
    if (!latencyOk || !rateOk) {
      sendError(response, 400, "\"latencyMs\" is a whole number from 0 to 60000 and \"failRate\" a number from 0 to 1");
      return;
    }
    if (latency != body->end()) latencyMs_ = latency->get<int>();
    if (failRate != body->end()) failRate_ = failRate->get<double>();
  }
  sendJson(response, 200, {{"latencyMs", latencyMs_.load()}, {"failRate", failRate_.load()}});
}

}  // namespace zrk::emulator
