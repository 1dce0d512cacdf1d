// A bare TCP listener on loopback that keeps the bytes of each request
// exactly as they arrived (no header parsing or trimming) and answers every
// request with one canned HTTP response, closing the connection after it.
#ifndef ZRK_TESTS_RAWRECORDER_H
#define ZRK_TESTS_RAWRECORDER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zrk::test {

// A listening TCP socket on 127.0.0.1 at a port the system picks; the port
// is written to `port`.
int listenOnLoopback(int& port);

class RawRecorder {
 public:
  explicit RawRecorder(std::string response = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                              "Content-Length: 2\r\nConnection: close\r\n\r\n{}");
  ~RawRecorder();

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // The raw requests received so far; waits (bounded) for at least n.
  std::vector<std::string> requests(std::size_t n = 1, std::chrono::milliseconds timeout = std::chrono::seconds(5));

 private:
  void serve();

  const std::string response_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> requests_;  // guarded by mutex_
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_RAWRECORDER_H
