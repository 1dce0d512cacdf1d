#include "Output.h"

#include <cstdio>
#include <iostream>
#include <optional>

#include "zrk/ZRKApiError.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKScanAPIResponse.h"
#include "zrk/ZRKScanHistory.h"
#include "zrk/ZRKUserAPIResponse.h"

namespace zrk::tool {
namespace {

void putIfPresent(ZRKJson& json, const char* key, const std::optional<std::string>& value) {
  if (value) json[key] = *value;
}

std::string plain(const ZRKJson& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

// "  key: value" for each of the keys the JSON holds, in the order given.
std::string fieldLines(const ZRKJson& json, std::initializer_list<const char*> keys) {
  std::string text;
  for (const char* key : keys) {
    if (json.contains(key)) text += std::string("  ") + key + ": " + plain(json[key]) + "\n";
  }
  return text;
}

std::string column(const ZRKJson& json, const char* key) { return json.contains(key) ? plain(json[key]) : "-"; }

}  // namespace

ZRKJson toJson(const ZRKScanAPIResponse& scan) {
  ZRKJson json = {{"score", scan.score()},           {"timestamp", scan.timestamp()},
                  {"frame", scan.frame()},           {"triggerType", scan.triggerType()},
                  {"triggerFps", scan.triggerFps()}};
  putIfPresent(json, "scanId", scan.scanId());
  putIfPresent(json, "triggerId", scan.triggerId());
  putIfPresent(json, "triggerName", scan.triggerName());
  putIfPresent(json, "thumbnailUrl", scan.thumbnailUrl());
  putIfPresent(json, "payloadUrl", scan.payloadUrl());
  putIfPresent(json, "payloadData", scan.payloadData());
  if (scan.ocrData()) json["ocrData"] = *scan.ocrData();
  return json;
}

ZRKJson toJson(const ZRKCollection& collection) {
  ZRKJson json = ZRKJson::object();
  putIfPresent(json, "collectionId", collection.collectionId());
  putIfPresent(json, "name", collection.name());
  putIfPresent(json, "imageUrl", collection.imageUrl());
  return json;
}

ZRKJson toJson(const ZRKScanHistory& entry) {
  ZRKJson json = {{"matched", entry.matched()}, {"timestamp", entry.timestamp()}};
  putIfPresent(json, "scanId", entry.scanId());
  putIfPresent(json, "triggerId", entry.triggerId());
  putIfPresent(json, "campaignId", entry.campaignId());
  putIfPresent(json, "thumbnailUrl", entry.thumbnailUrl());
  putIfPresent(json, "imageUrl", entry.imageUrl());
  putIfPresent(json, "payloadUrl", entry.payloadUrl());
  putIfPresent(json, "lat", entry.lat());
  putIfPresent(json, "lng", entry.lng());
  return json;
}

ZRKJson toJson(const ZRKUserAPIResponse& account) {
  ZRKJson json = ZRKJson::object();
  putIfPresent(json, "email", account.email());
  putIfPresent(json, "name", account.name());
  putIfPresent(json, "gender", account.gender());
  putIfPresent(json, "birthdate", account.birthdate());
  putIfPresent(json, "avatar", account.avatar());
  putIfPresent(json, "token", account.token());
  return json;
}

Report report(const ZRKScanAPIResponse& scan) {
  Report out{toJson(scan), {}};
  const std::string trigger = scan.triggerName().value_or(scan.triggerId().value_or("an unnamed trigger"));
  out.text = "matched " + trigger + " with score " + std::to_string(scan.score()) + "\n" +
             fieldLines(out.json, {"scanId", "triggerId", "thumbnailUrl", "payloadUrl", "payloadData", "ocrData"});
  return out;
}

Report report(const std::vector<std::shared_ptr<ZRKCollection>>& collections) {
  Report out{ZRKJson::array(), {}};
  for (const auto& collection : collections) {
    const ZRKJson json = toJson(*collection);
    out.text += column(json, "collectionId") + "\t" + column(json, "name") + "\t" + column(json, "imageUrl") + "\n";
    out.json.push_back(json);
  }
  if (collections.empty()) out.text = "no collections\n";
  return out;
}

Report report(const std::vector<std::shared_ptr<ZRKScanHistory>>& history) {
  Report out{ZRKJson::array(), {}};
  for (const auto& entry : history) {
    const ZRKJson json = toJson(*entry);
    out.text += column(json, "scanId") + "\t" + (entry->matched() ? "matched" : "no match") + "\t" +
                column(json, "timestamp") + "\t" + column(json, "thumbnailUrl") + "\n";
    out.json.push_back(json);
  }
  if (history.empty()) out.text = "no scans\n";
  return out;
}

Report report(const ZRKUserAPIResponse* account, std::string_view headline) {
  Report out{account ? toJson(*account) : ZRKJson::object(), std::string(headline) + "\n"};
  out.text += fieldLines(out.json, {"email", "name", "gender", "birthdate", "avatar", "token"});
  return out;
}

std::string errorSummary(const ZRKError& error) {
  std::string text = error.domain + " error " + std::to_string(error.code) + ": " + error.localizedDescription();
  // The developer's text says more when the user's text is the generic one.
  const auto message = error.userInfo.find(ZRKErrorMessageKey);
  if (message != error.userInfo.end() && message->is_string() && *message != error.localizedDescription()) {
    text += " (" + message->get<std::string>() + ")";
  }
  return text;
}

void Console::print(const Report& report) const { write(report, 2); }

void Console::printLine(const Report& report) const { write(report, -1); }

void Console::write(const Report& report, int indent) const {
  secrets_.addAppToken();
  if (json_) {
    std::cout << secrets_.redact(report.json).dump(indent) << "\n";
  } else {
    std::cout << secrets_.redact(report.text);
  }
  std::cout.flush();
}

void Console::error(const ZRKError& error) const {
  secrets_.addAppToken();
  std::string text = "zrk: " + errorSummary(error);
  const auto detail = error.userInfo.find(ZRKErrorDetailKey);
  if (detail != error.userInfo.end()) text += "\n  detail: " + detail->dump();
  std::cerr << secrets_.redact(text) << "\n";
}

void Console::problem(std::string_view message) const {
  std::cerr << secrets_.redact("zrk: " + std::string(message)) << "\n";
}

}  // namespace zrk::tool
