#include "Service.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <random>
#include <regex>
#include <thread>

#include "HttpHelpers.h"

namespace zrk::emulator {

namespace {

struct KnownPath {
  std::regex pattern;
  const char* methods;  // for the "Allow" header of a 405
};

const std::vector<KnownPath>& knownPaths() {
  static const std::vector<KnownPath> paths = {
      {std::regex("/app/v1/auth"), "POST"},
      {std::regex("/app/v1/scan(/[^/]+)?"), "POST"},
      {std::regex("/app/v1/collection"), "GET"},
      {std::regex("/app/v1/history"), "GET"},
      {std::regex("/app/v1/user"), "GET, POST, PATCH"},
      {std::regex("/app/v1/user/auth"), "POST, DELETE"},
      {std::regex("/files/(triggers|scans)/[^/]+"), "GET"},
      {std::regex("/__emulator/(health|requests|overview|scans)"), "GET"},
      {std::regex("/__emulator/(reset|collections|try)"), "POST"},
      {std::regex("/__emulator/drills"), "GET, POST"},
      {std::regex("/__emulator/collections/[^/]+"), "DELETE"},
      {std::regex("/__emulator/collections/[^/]+/triggers"), "POST"},
      {std::regex("/__emulator/triggers/[^/]+"), "DELETE"},
      {std::regex("/|/console/[^/]+"), "GET"},
  };
  return paths;
}

std::string reasonPhrase(int status) {
  switch (status) {
    case 400:
      return "Bad request";
    case 404:
      return "Not found";
    case 405:
      return "Method not allowed";
    case 413:
      return "Request body too large";
    case 414:
      return "Request target too long";
    case 416:
      return "Range not satisfiable";
    case 431:
      return "Request headers too large";
    default:
      return "HTTP error " + std::to_string(status);
  }
}

bool chance(double probability) {
  if (probability <= 0) return false;
  thread_local std::mt19937_64 random{std::random_device{}()};
  return std::uniform_real_distribution<double>(0, 1)(random) < probability;
}

}  // namespace

Service::Service(const EmulatorOptions& options, Storage& storage, Tokens& tokens, LiveCatalog& catalog,
                 RequestLog& log)
    : options_(options),
      storage_(storage),
      tokens_(tokens),
      catalog_(catalog),
      log_(log),
      latencyMs_(options.latencyMs),
      failRate_(options.failRate) {}

httplib::Server::Handler Service::serviceRoute(Route route) {
  return [this, route](const httplib::Request& request, httplib::Response& response) {
    if (const int latency = latencyMs_.load(); latency > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(latency));
    if (chance(failRate_.load())) {
      sendError(response, 503, "Service unavailable (fault injected by --fail-rate)");
      return;
    }
    const auto started = std::chrono::steady_clock::now();
    (this->*route)(request, response);
    // The service's own share of a request's time (recognition, for a scan),
    // so that a client can tell it from its own and the network's.
    const std::chrono::duration<double, std::milli> worked = std::chrono::steady_clock::now() - started;
    response.set_header("Server-Timing", "app;dur=" + std::to_string(worked.count()));
  };
}

httplib::Server::Handler Service::plainRoute(Route route) {
  return [this, route](const httplib::Request& request, httplib::Response& response) {
    (this->*route)(request, response);
  };
}

httplib::Server::Handler Service::adminRoute(Route route) {
  return [this, route](const httplib::Request& request, httplib::Response& response) {
    if (!admitted(request)) {
      sendError(response, 401,
                "This emulator asks for its console token: open the console address it printed at start, or send "
                "the token as the ZRK-Console-Token header or the \"token\" query parameter");
      return;
    }
    (this->*route)(request, response);
  };
}

void Service::install(httplib::Server& server) {
  server.set_payload_max_length(kMaxBodyBytes);
  // Uploads to the console are refused by their announced length before a
  // byte of them is read; the connection closes, since the unread body
  // cannot be told from the next request. (The server itself would read a
  // too-large body to its end before refusing it.)
  server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
    requestStarted = std::chrono::steady_clock::now();
    requestScan.reset();
    const auto length = contentLength(request);
    if (!request.path.starts_with("/__emulator/") || !length || *length <= kMaxBodyBytes)
      return httplib::Server::HandlerResponse::Unhandled;
    response.set_header("Connection", "close");
    sendError(response, 413, "Request body too large", {{"limit", kMaxBodyBytes}, {"contentLength", *length}});
    return httplib::Server::HandlerResponse::Handled;
  });
  server.set_expect_100_continue_handler([](const httplib::Request& request, httplib::Response&) {
    const auto length = contentLength(request);
    return length && *length > kMaxBodyBytes ? 413 : 100;
  });
  // Short, so that stopping does not wait long for idle keep-alive clients.
  server.set_keep_alive_timeout(1);
  server.set_read_timeout(10, 0);
  server.set_write_timeout(10, 0);
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };

  server.Post("/app/v1/auth", serviceRoute(&Service::auth));
  server.Post(R"(/app/v1/scan(?:/([^/]+))?)", serviceRoute(&Service::scan));
  server.Get("/app/v1/collection", serviceRoute(&Service::collections));
  server.Get("/app/v1/history", serviceRoute(&Service::history));
  server.Post("/app/v1/user", serviceRoute(&Service::registerUser));
  server.Patch("/app/v1/user", serviceRoute(&Service::updateUser));
  server.Get("/app/v1/user", serviceRoute(&Service::retrieveUser));
  server.Post("/app/v1/user/auth", serviceRoute(&Service::login));
  server.Delete("/app/v1/user/auth", serviceRoute(&Service::logout));
  server.Get("/files/triggers/([^/]+)", plainRoute(&Service::triggerFile));
  server.Get("/files/scans/([^/]+)", plainRoute(&Service::scanFile));
  server.Get("/__emulator/health", plainRoute(&Service::health));
  server.Get("/__emulator/requests", adminRoute(&Service::requests));
  server.Post("/__emulator/reset", adminRoute(&Service::reset));
  server.Get("/", adminRoute(&Service::consoleFile));
  server.Get("/console/([^/]+)", adminRoute(&Service::consoleFile));
  server.Get("/__emulator/overview", adminRoute(&Service::overview));
  server.Post("/__emulator/collections", adminRoute(&Service::createCollection));
  server.Delete("/__emulator/collections/([^/]+)", adminRoute(&Service::deleteCollection));
  server.Post("/__emulator/collections/([^/]+)/triggers", adminRoute(&Service::addTrigger));
  server.Delete("/__emulator/triggers/([^/]+)", adminRoute(&Service::deleteTrigger));
  server.Post("/__emulator/try", adminRoute(&Service::tryPhoto));
  server.Get("/__emulator/scans", adminRoute(&Service::recentScans));
  server.Get("/__emulator/drills", adminRoute(&Service::drills));
  server.Post("/__emulator/drills", adminRoute(&Service::drills));
  const auto unrouted = plainRoute(&Service::unrouted);
  server.Get(".*", unrouted);
  server.Post(".*", unrouted);
  server.Put(".*", unrouted);
  server.Patch(".*", unrouted);
  server.Delete(".*", unrouted);
  server.Options(".*", unrouted);

  // Answers the server makes itself (413, 400 for a broken request) get the
  // service's error body too.
  server.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        const int status = response.status;
        sendError(response, status, reasonPhrase(status));
        return httplib::Server::HandlerResponse::Handled;
      }));
  server.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr error) {
    std::string what = "unknown error";
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& exception) {
      what = exception.what();
    } catch (...) {
    }
    sendError(response, 500, "Internal error of the emulator", {{"reason", what}});
  });
  server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    // The console's own requests would only bury the ones it is there to show.
    const bool console = request.path.starts_with("/__emulator/") || request.path == "/" ||
                         request.path.starts_with("/console/") ||
                         (request.path.starts_with("/files/") && request.get_param_value("via") == "console");
    if (console) return;
    log_.add(logEntry(request, response));
  });
}

std::optional<Service::Caller> Service::requireApp(const httplib::Request& request, httplib::Response& response) {
  const auto app = tokens_.appForBearer(request.get_header_value("Authorization"));
  if (!app) {
    sendError(response, 401, "Missing, unknown or expired app token",
              {{"hint", "authenticate at app/v1/auth and send \"Authorization: Bearer <base64 of the token>\""}});
    return std::nullopt;
  }
  return Caller{*app, headerEither(request, "ZRK-User-Id", "Pelmor-User-Id").value_or("")};
}

std::optional<UserRecord> Service::requireUser(const Caller& caller, const std::string& token,
                                               httplib::Response& response) {
  const auto id = tokens_.userForToken(token);
  auto user = id ? storage_.userById(*id) : std::nullopt;
  if (!user || user->appKey != caller.appKey) {
    sendError(response, 401, token.empty() ? "No user token: log in first" : "Unknown or revoked user token");
    return std::nullopt;
  }
  return user;
}

std::optional<nlohmann::json> Service::jsonBody(const httplib::Request& request, httplib::Response& response) {
  if (request.body.empty()) return nlohmann::json::object();
  const std::string type = request.get_header_value("Content-Type");
  if (!type.starts_with("application/json")) {
    sendError(response, 415, "The body must be JSON (Content-Type: application/json)", {{"contentType", type}});
    return std::nullopt;
  }
  nlohmann::json body = nlohmann::json::parse(request.body, nullptr, false);
  if (!body.is_object()) {
    sendError(response, 400, body.is_discarded() ? "The body is not valid JSON" : "The body must be a JSON object");
    return std::nullopt;
  }
  return body;
}

std::string Service::baseUrl(const httplib::Request& request) const {
  // Links go back the way the client came in, so they work through any
  // address the emulator listens on; a Host with odd characters is ignored.
  std::string host = request.get_header_value("Host");
  const bool usable = !host.empty() && host.size() < 256 &&
                      host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]") ==
                          std::string::npos;
  if (!usable) {
    host = options_.host.find(':') != std::string::npos ? "[" + options_.host + "]" : options_.host;
    host += ":" + std::to_string(ownPort_.load());
  }
  return "http://" + host;
}

void Service::auth(const httplib::Request& request, httplib::Response& response) {
  const auto body = jsonBody(request, response);
  if (!body) return;
  const auto key = body->find("key");
  const auto secret = body->find("secret");
  if (key == body->end() || secret == body->end() || !key->is_string() || !secret->is_string()) {
    sendError(response, 400, "Authentication wants \"key\" and \"secret\" as strings");
    return;
  }
  const auto issued = tokens_.issueAppToken(key->get<std::string>(), secret->get<std::string>());
  if (!issued) {
    sendError(response, 401, "Unknown app key or wrong secret");
    return;
  }
  sendJson(response, 200,
           {{"object", "token"}, {"token", issued->token}, {"expire", issued->expire}, {"expireIn", issued->expireIn}});
}

void Service::triggerFile(const httplib::Request& request, httplib::Response& response) {
  const auto image = catalog_.read([&](const Catalog& catalog) -> std::optional<std::pair<std::string, std::string>> {
    const Trigger* trigger = catalog.trigger(request.matches[1].str());
    if (!trigger) return std::nullopt;
    return std::make_pair(trigger->image, trigger->imageType);
  });
  if (!image) {
    sendError(response, 404, "No such trigger");
    return;
  }
  response.set_content(image->first, image->second.c_str());
}

void Service::scanFile(const httplib::Request& request, httplib::Response& response) {
  const auto image = storage_.scanImage(request.matches[1].str());
  if (!image) {
    sendError(response, 404, "No such scan");
    return;
  }
  response.set_content(image->first, image->second.c_str());
}

void Service::health(const httplib::Request&, httplib::Response& response) {
  const auto [collections, triggers] = catalog_.read([](const Catalog& catalog) {
    return std::make_pair(catalog.collections.size(), catalog.triggers.size());
  });
  sendJson(response, 200,
           {{"status", "ok"},
            {"collections", collections},
            {"triggers", triggers},
            {"persistent", !options_.dataFile.empty()}});
}

void Service::requests(const httplib::Request& request, httplib::Response& response) {
  std::uint64_t after = 0;
  if (request.has_param("after")) {
    const std::string text = request.get_param_value("after");
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), after);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
      sendError(response, 400, "\"after\" must be a whole number from 0 up", {{"parameter", "after"}});
      return;
    }
  }
  sendJson(response, 200, log_.toJson(after));
}

void Service::reset(const httplib::Request&, httplib::Response& response) {
  catalog_.reset();
  latencyMs_ = options_.latencyMs;
  failRate_ = options_.failRate;
  sendJson(response, 200, {{"status", "reset"}});
}

void Service::unrouted(const httplib::Request& request, httplib::Response& response) {
  for (const KnownPath& known : knownPaths()) {
    if (std::regex_match(request.path, known.pattern)) {
      response.set_header("Allow", known.methods);
      sendError(response, 405, request.method + " is not supported here", {{"allow", known.methods}});
      return;
    }
  }
  sendError(response, 404, "No such endpoint", {{"path", request.path}});
}

}  // namespace zrk::emulator
