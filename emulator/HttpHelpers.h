// Answer shapes shared by every route: JSON bodies and the service's error
// body {"code", "message", "detail"?}, whose code is the HTTP status.
#ifndef ZRK_EMULATOR_HTTPHELPERS_H
#define ZRK_EMULATOR_HTTPHELPERS_H

#include <httplib.h>

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

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_HTTPHELPERS_H
