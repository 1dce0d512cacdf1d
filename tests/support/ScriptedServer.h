// A raw HTTP server on a loopback address that misbehaves on purpose. Each
// connection reads one request head, asks the chooser for a script by that
// request, and plays it step by step: read the body, send bytes, sleep,
// trickle, close, or reset (SO_LINGER 0). A script that ends without
// closing closes gracefully. Given a PEM file with a key and its
// certificate, it speaks TLS; a client that refuses the certificate sends
// no request. Sleeps and holds end when the server stops, so a test never
// waits on a connection it has finished with.
#ifndef ZRK_TESTS_SCRIPTEDSERVER_H
#define ZRK_TESTS_SCRIPTEDSERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
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

inline Step send(std::shared_ptr<const std::string> bytes) { return {Step::Kind::send, std::move(bytes)}; }
inline Step send(std::string bytes) { return send(std::make_shared<const std::string>(std::move(bytes))); }
inline Step readBody() { return {Step::Kind::readBody}; }
inline Step pause(std::chrono::milliseconds duration) { return {Step::Kind::sleep, {}, duration}; }
inline Step trickle(std::string bytes, std::size_t chunk, std::chrono::milliseconds interval) {
  return {Step::Kind::trickle, std::make_shared<const std::string>(std::move(bytes)), interval, chunk};
}
inline Step closeConnection() { return {Step::Kind::close}; }
inline Step resetConnection() { return {Step::Kind::reset}; }
// Keeps the connection open, reading and dropping, until the client goes
// away or the server stops.
inline Step holdOpen() { return {Step::Kind::holdOpen}; }

// A complete HTTP/1.1 answer with Content-Length and "Connection: close".
inline std::string httpAnswer(const std::string& body, int status = 200, const std::string& extraHeaders = "") {
  return "HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n" + extraHeaders + "\r\n" + body;
}

struct RawRequest {
  std::string head;  // request line and header fields, exactly as sent
  std::string body;  // filled by a readBody step
  std::string method() const { return head.substr(0, head.find(' ')); }
  std::string target() const { return head.substr(head.find(' ') + 1, head.find(" HTTP/") - head.find(' ') - 1); }
  std::string path() const { return target().substr(0, target().find('?')); }  // without the query
};

class ScriptedServer {
 public:
  using Chooser = std::function<Script(const RawRequest&)>;

  explicit ScriptedServer(std::string host = "127.0.0.1", const std::string& tlsKeyAndCertificate = "");
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::string url() const { return (tls_ ? "https://" : "http://") + host_ + ":" + std::to_string(port_); }
  int port() const { return port_; }

  void choose(Chooser chooser) { std::lock_guard lock(mutex_); chooser_ = std::move(chooser); }
  // Every request plays the same script.
  void always(Script script) { choose([script](const RawRequest&) { return script; }); }
  // Off, requests are counted but not kept: a long run's memory then
  // measures the client alone.
  void setRecording(bool recording) { std::lock_guard lock(mutex_); recording_ = recording; }
  // Requests whose heads arrived so far (bodies as far as read).
  std::vector<RawRequest> requests() const { std::lock_guard lock(mutex_); return requests_; }
  std::size_t connections() const { return accepted_; }
  // Connections whose script has ended and whose socket is closed.
  std::size_t finished() const { return finished_; }
  bool waitForRequests(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

 private:
  void serve(int fd);

  const std::string host_;
  void* tls_ = nullptr;  // the OpenSSL context, if any
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;  // a request or the end of a connection
  std::atomic<std::size_t> accepted_{0};     // changed under mutex_
  std::atomic<std::size_t> finished_{0};     // changed under mutex_
  Chooser chooser_;                          // guarded by mutex_
  std::vector<RawRequest> requests_;         // guarded by mutex_
  bool recording_ = true;                    // guarded by mutex_
  std::thread acceptor_;
};

// A loopback port that nothing listens on.
int closedPort();

}  // namespace zrk::test

#endif  // ZRK_TESTS_SCRIPTEDSERVER_H
