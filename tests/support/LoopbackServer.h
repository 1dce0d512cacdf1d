// A real HTTP server on 127.0.0.x for tests: it records every request as it
// arrived and answers with whatever the test scripts.
#ifndef ZRK_TESTS_LOOPBACKSERVER_H
#define ZRK_TESTS_LOOPBACKSERVER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace zrk::test {

struct RecordedRequest {
  std::string method;
  std::string target;  // the request target exactly as sent, query included
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;  // in arrival order
  std::string body;
  int remotePort = 0;  // tells one connection from another

  // Every value of the header (names compared without case).
  std::vector<std::string> values(const std::string& name) const;
  // The only value of the header, or "<absent>" / "<repeated>".
  std::string header(const std::string& name) const;
  bool has(const std::string& name) const { return !values(name).empty(); }
};

struct ScriptedResponse {
  int status = 200;
  std::string body = "{}";
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;
  // Holds the answer back until release() or this long, whichever is first.
  std::chrono::milliseconds stall{0};
};

class LoopbackServer {
 public:
  using Script = std::function<ScriptedResponse(const RecordedRequest&)>;

  // Listens on host (a loopback address) at a port picked by the system.
  // Without keepAlive every answer closes its connection, so that stopping
  // the server never waits for an idle client.
  explicit LoopbackServer(const std::string& host = "127.0.0.1", bool keepAlive = false);
  ~LoopbackServer();

  // "http://127.0.0.1:PORT"
  std::string url() const;
  int port() const { return port_; }

  void script(Script script);
  // Answers every request with the same response.
  void answer(ScriptedResponse response);

  std::vector<RecordedRequest> requests() const;
  std::size_t count() const;
  // Waits (bounded) until at least n requests arrived.
  bool waitForRequests(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
  // Lets stalled answers go.
  void release();

 private:
  void handle(const httplib::Request& request, httplib::Response& response);

  std::unique_ptr<httplib::Server> server_;
  std::string host_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<RecordedRequest> requests_;  // guarded by mutex_
  Script script_;                          // guarded by mutex_
  bool released_ = false;                  // guarded by mutex_
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_LOOPBACKSERVER_H
