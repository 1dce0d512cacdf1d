// The emulated service: the routes under "/app/v1/", the files it links to
// ("/files/..."), the inspection and admin routes ("/__emulator/...") and
// the web console ("/", "/console/...").
//
// Routes run on the HTTP server's worker threads, several at once; the
// service's own state is the Storage, the request log and the live catalog
// (each locked inside) and the drills (atomics).
#ifndef ZRK_EMULATOR_SERVICE_H
#define ZRK_EMULATOR_SERVICE_H

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "EmulatorOptions.h"
#include "LiveCatalog.h"
#include "RequestLog.h"
#include "Storage.h"
#include "Tokens.h"

namespace zrk::emulator {

// Request bodies above this are refused with 413, and so are fetched images.
inline constexpr std::size_t kMaxBodyBytes = 16u << 20;

class Service {
 public:
  // options.consoleToken, when set, guards the console and /__emulator/.
  Service(const EmulatorOptions& options, Storage& storage, Tokens& tokens, LiveCatalog& catalog, RequestLog& log);

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
  // Asks for the console token when there is one.
  httplib::Server::Handler adminRoute(Route route);
  bool admitted(const httplib::Request& request) const;
  // What the request log keeps of one exchange.
  LoggedRequest logEntry(const httplib::Request& request, const httplib::Response& response) const;

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

  // The console and its admin routes (ServiceConsole.cpp).
  void consoleFile(const httplib::Request& request, httplib::Response& response);
  void overview(const httplib::Request& request, httplib::Response& response);
  void createCollection(const httplib::Request& request, httplib::Response& response);
  void deleteCollection(const httplib::Request& request, httplib::Response& response);
  void addTrigger(const httplib::Request& request, httplib::Response& response);
  void deleteTrigger(const httplib::Request& request, httplib::Response& response);
  void tryPhoto(const httplib::Request& request, httplib::Response& response);
  void recentScans(const httplib::Request& request, httplib::Response& response);
  void drills(const httplib::Request& request, httplib::Response& response);

  // The image a URL scan names; nothing after answering with the error.
  std::optional<std::string> fetchScanImage(const std::string& url, httplib::Response& response);
  nlohmann::json userJson(const UserRecord& user, const std::optional<std::string>& token) const;

  const EmulatorOptions& options_;
  Storage& storage_;
  Tokens& tokens_;
  LiveCatalog& catalog_;
  RequestLog& log_;
  std::atomic<int> ownPort_{0};
  std::atomic<int> latencyMs_;
  std::atomic<double> failRate_;
};

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_SERVICE_H
