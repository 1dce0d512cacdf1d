// A raw TCP server on a loopback address that misbehaves on purpose. Each
// connection reads one request head, asks the chooser for a script by that
// request, and plays the script step by step: read the body, send bytes,
// sleep, trickle, close, or reset (SO_LINGER 0). A script that ends without
// closing closes gracefully. Sleeps and stalls end early when the server
// stops, so a test never waits on a connection it has finished with.
#ifndef ZRK_TESTS_RELIABILITY_SCRIPTEDSERVER_H
#define ZRK_TESTS_RELIABILITY_SCRIPTEDSERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zrk::test {

struct Step {
  enum class Kind { readBody, send, sleep, trickle, close, reset, holdOpen };
  Kind kind;
  std::shared_ptr<const std::string> bytes;  // shared: scripts are copied, answers may be large
  std::chrono::milliseconds interval{0};
  std::size_t chunk = 0;
};

using Script = std::vector<Step>;

// Step builders.
Step readBody();
Step send(std::string bytes);
Step send(std::shared_ptr<const std::string> bytes);
Step pause(std::chrono::milliseconds duration);
Step trickle(std::string bytes, std::size_t chunk, std::chrono::milliseconds interval);
Step closeConnection();
Step resetConnection();
// Keeps the connection open, reading nothing more, until the client goes
// away or the server stops.
Step holdOpen();

// A complete HTTP/1.1 answer with Content-Length and "Connection: close".
std::string httpAnswer(const std::string& body, int status = 200, const std::string& extraHeaders = "");

struct RawRequest {
  std::string head;  // request line and header fields, exactly as sent
  std::string body;  // filled by a readBody step
  std::string method() const;
  std::string target() const;
  std::string path() const;  // the target without its query
};

class ScriptedServer {
 public:
  using Chooser = std::function<Script(const RawRequest&)>;

  explicit ScriptedServer(std::string host = "127.0.0.1");
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::string url() const { return "http://" + host_ + ":" + std::to_string(port_); }
  int port() const { return port_; }

  void choose(Chooser chooser);
  // Every request plays the same script.
  void always(Script script);

  // Off, requests are counted but not kept: a long run's memory then
  // measures the client alone.
  void setRecording(bool recording);

  // Requests whose heads arrived so far (bodies as far as read).
  std::vector<RawRequest> requests() const;
  std::size_t connections() const { return accepted_; }
  // Connections whose script has ended and whose socket is closed.
  std::size_t finished() const { return finished_; }
  bool waitForRequests(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

 private:
  void acceptLoop();
  void serve(int socket);
  bool sleepFor(std::chrono::milliseconds duration) const;

  const std::string host_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> accepted_{0};
  std::atomic<std::size_t> finished_{0};
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  Chooser chooser_;                    // guarded by mutex_
  std::vector<RawRequest> requests_;   // guarded by mutex_
  bool recording_ = true;              // guarded by mutex_
  std::list<std::thread> workers_;     // guarded by mutex_
  std::thread acceptor_;
};

// A loopback port that nothing listens on.
int closedPort();

}  // namespace zrk::test

#endif  // ZRK_TESTS_RELIABILITY_SCRIPTEDSERVER_H
