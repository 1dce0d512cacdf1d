// Answer shapes shared by every route: JSON bodies and the service's error
// body {"code", "message", "detail"?}, whose code is the HTTP status.
#ifndef ZRK_EMULATOR_HTTPHELPERS_H
#define ZRK_EMULATOR_HTTPHELPERS_H

#include <httplib.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace zrk::emulator {

inline void sendJson(httplib::Response& response, int status, const nlohmann::json& body) {
  response.status = status;
  // Stored strings came from clients; invalid UTF-8 must not stop the answer.
  response.set_content(body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), "application/json");
}

inline void sendError(httplib::Response& response, int status, const std::string& message,
                      const nlohmann::json& detail = nullptr) {
  nlohmann::json body = {{"code", status}, {"message", message}};
  if (!detail.is_null()) body["detail"] = detail;
  sendJson(response, status, body);
}

// The first of the two header names that is present.
inline std::optional<std::string> headerEither(const httplib::Request& request, const char* name,
                                               const char* otherName) {
  if (request.has_header(name)) return request.get_header_value(name);
  if (request.has_header(otherName)) return request.get_header_value(otherName);
  return std::nullopt;
}

// The announced body length; nothing when absent or not a number.
inline std::optional<std::uint64_t> contentLength(const httplib::Request& request) {
  if (!request.has_header("Content-Length")) return std::nullopt;
  try {
    return std::stoull(request.get_header_value("Content-Length"));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// When the request being served started, on the thread that serves it:
// httplib reads, routes, answers and logs a request on one thread.
inline thread_local std::optional<std::chrono::steady_clock::time_point> requestStarted;
// The scan the current request made, for its log entry: (scan id, matched
// trigger id or ""). The answer itself may be compressed by then.
inline thread_local std::optional<std::pair<std::string, std::string>> requestScan;

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_HTTPHELPERS_H
