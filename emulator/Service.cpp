#include "Service.h"

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
      {std::regex("/__emulator/(health|requests)"), "GET"},
      {std::regex("/__emulator/reset"), "POST"},
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

Service::Service(const EmulatorOptions& options, Storage& storage, Tokens& tokens, const Catalog& catalog,
                 const Recognizer& recognizer, RequestLog& log)
    : options_(options), storage_(storage), tokens_(tokens), catalog_(catalog), recognizer_(recognizer), log_(log) {}

httplib::Server::Handler Service::serviceRoute(Route route) {
  return [this, route](const httplib::Request& request, httplib::Response& response) {
    if (options_.latencyMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options_.latencyMs));
    if (chance(options_.failRate)) {
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

void Service::install(httplib::Server& server) {
  server.set_payload_max_length(kMaxBodyBytes);
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
  server.Get("/__emulator/requests", plainRoute(&Service::requests));
  server.Post("/__emulator/reset", plainRoute(&Service::reset));
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
    if (request.path.starts_with("/__emulator/")) return;
    LoggedRequest entry;
    entry.time = nowSeconds();
    entry.method = request.method;
    entry.path = request.path;
    if (const auto mark = request.target.find('?'); mark != std::string::npos)
      entry.query = request.target.substr(mark + 1);
    for (const auto& [name, value] : request.headers) {
      // The server adds the connection's addresses as headers; they were not sent.
      if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
      entry.headers.emplace_back(name, value);
    }
    // A multipart body is parsed into parts and no longer held whole.
    entry.bodySize = request.body.size();
    if (request.has_header("Content-Length")) {
      try {
        entry.bodySize =
            std::max<std::uint64_t>(entry.bodySize, std::stoull(request.get_header_value("Content-Length")));
      } catch (const std::exception&) {
      }
    }
    entry.status = response.status;
    if (const auto timing = response.get_header_value("Server-Timing"); timing.starts_with("app;dur=")) {
      entry.durationMs = std::strtod(timing.c_str() + 8, nullptr);
    }
    log_.add(std::move(entry));
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
  const Trigger* trigger = catalog_.trigger(request.matches[1].str());
  if (!trigger) {
    sendError(response, 404, "No such trigger");
    return;
  }
  response.set_content(trigger->image, trigger->imageType.c_str());
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
  sendJson(response, 200,
           {{"status", "ok"},
            {"collections", catalog_.collections.size()},
            {"triggers", catalog_.triggers.size()},
            {"persistent", !options_.dataFile.empty()}});
}

void Service::requests(const httplib::Request&, httplib::Response& response) { sendJson(response, 200, log_.toJson()); }

void Service::reset(const httplib::Request&, httplib::Response& response) {
  storage_.reset();
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
