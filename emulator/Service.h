// The emulated service: the routes under "/app/v1/", the files it links to
// ("/files/...") and the inspection routes ("/__emulator/...").
//
// Routes run on the HTTP server's worker threads, several at once; the
// service's own state is the Storage (locked inside), the request log
// (locked inside), and the catalog and recognizer, which are read-only once
// the server runs.
#ifndef ZRK_EMULATOR_SERVICE_H
#define ZRK_EMULATOR_SERVICE_H

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "EmulatorOptions.h"
#include "RequestLog.h"
#include "Seed.h"
#include "Storage.h"
#include "Tokens.h"
#include "recognition/Recognizer.h"

namespace zrk::emulator {

// Request bodies above this are refused with 413, and so are fetched images.
inline constexpr std::size_t kMaxBodyBytes = 16u << 20;

class Service {
 public:
  Service(const EmulatorOptions& options, Storage& storage, Tokens& tokens, const Catalog& catalog,
          const Recognizer& recognizer, RequestLog& log);

  void install(httplib::Server& server);
  // The port the server got, for links to itself and for fetching from itself.
  void setOwnPort(int port) { ownPort_ = port; }

 private:
  // Who is calling: the app behind the bearer and the app's id of its user.
  struct Caller {
    std::string appKey;
    std::string appUser;
  };

  using Route = void (Service::*)(const httplib::Request&, httplib::Response&);
  httplib::Server::Handler serviceRoute(Route route);
  httplib::Server::Handler plainRoute(Route route);

  std::optional<Caller> requireApp(const httplib::Request& request, httplib::Response& response);
  std::optional<UserRecord> requireUser(const Caller& caller, const std::string& token, httplib::Response& response);
  // The body as a JSON object ({} when empty); nothing after answering 400 or 415.
  std::optional<nlohmann::json> jsonBody(const httplib::Request& request, httplib::Response& response);
  std::string baseUrl(const httplib::Request& request) const;

  void auth(const httplib::Request& request, httplib::Response& response);
  void scan(const httplib::Request& request, httplib::Response& response);
  void collections(const httplib::Request& request, httplib::Response& response);
  void history(const httplib::Request& request, httplib::Response& response);
  void registerUser(const httplib::Request& request, httplib::Response& response);
  void updateUser(const httplib::Request& request, httplib::Response& response);
  void retrieveUser(const httplib::Request& request, httplib::Response& response);
  void login(const httplib::Request& request, httplib::Response& response);
  void logout(const httplib::Request& request, httplib::Response& response);

  void triggerFile(const httplib::Request& request, httplib::Response& response);
  void scanFile(const httplib::Request& request, httplib::Response& response);
  void health(const httplib::Request& request, httplib::Response& response);
  void requests(const httplib::Request& request, httplib::Response& response);
  void reset(const httplib::Request& request, httplib::Response& response);
  void unrouted(const httplib::Request& request, httplib::Response& response);

  // The image a URL scan names; nothing after answering with the error.
  std::optional<std::string> fetchScanImage(const std::string& url, httplib::Response& response);
  nlohmann::json userJson(const UserRecord& user, const std::optional<std::string>& token) const;

  const EmulatorOptions& options_;
  Storage& storage_;
  Tokens& tokens_;
  const Catalog& catalog_;
  const Recognizer& recognizer_;
  RequestLog& log_;
  std::atomic<int> ownPort_{0};
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_SERVICE_H
