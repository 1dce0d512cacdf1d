#include "support/ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <optional>

namespace zrk::test {
namespace {

constexpr auto kSlice = std::chrono::milliseconds(20);

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::size_t announcedLength(const std::string& head) {
  const std::string text = lower(head);
  const auto at = text.find("\r\ncontent-length:");
  return at == std::string::npos ? 0 : std::strtoul(text.c_str() + at + 17, nullptr, 10);
}

void sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

Step readBody() { return {Step::Kind::readBody, {}, {}, 0}; }
Step send(std::string bytes) { return send(std::make_shared<const std::string>(std::move(bytes))); }
Step send(std::shared_ptr<const std::string> bytes) { return {Step::Kind::send, std::move(bytes), {}, 0}; }
Step pause(std::chrono::milliseconds duration) { return {Step::Kind::sleep, {}, duration, 0}; }
Step trickle(std::string bytes, std::size_t chunk, std::chrono::milliseconds interval) {
  return {Step::Kind::trickle, std::make_shared<const std::string>(std::move(bytes)), interval, chunk};
}
Step closeConnection() { return {Step::Kind::close, {}, {}, 0}; }
Step resetConnection() { return {Step::Kind::reset, {}, {}, 0}; }
Step holdOpen() { return {Step::Kind::holdOpen, {}, {}, 0}; }

std::string httpAnswer(const std::string& body, int status, const std::string& extraHeaders) {
  return "HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n" + extraHeaders + "\r\n" + body;
}

std::string RawRequest::method() const { return head.substr(0, head.find(' ')); }

std::string RawRequest::target() const {
  const auto start = head.find(' ') + 1;
  return head.substr(start, head.find(' ', start) - start);
}

std::string RawRequest::path() const {
  const std::string t = target();
  return t.substr(0, t.find('?'));
}

ScriptedServer::ScriptedServer(std::string host) : host_(std::move(host)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, host_.c_str(), &address.sin_addr);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 256) != 0) {
    std::abort();
  }
  socklen_t length = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  always({send(httpAnswer("{}"))});
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  acceptor_.join();
  std::list<std::thread> workers;
  {
    std::lock_guard lock(mutex_);
    workers.swap(workers_);
  }
  for (auto& worker : workers) worker.join();
  ::close(listener_);
}

void ScriptedServer::choose(Chooser chooser) {
  std::lock_guard lock(mutex_);
  chooser_ = std::move(chooser);
}

void ScriptedServer::always(Script script) {
  choose([script = std::move(script)](const RawRequest&) { return script; });
}

void ScriptedServer::setRecording(bool recording) {
  std::lock_guard lock(mutex_);
  recording_ = recording;
}

std::vector<RawRequest> ScriptedServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool ScriptedServer::waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
}

bool ScriptedServer::sleepFor(std::chrono::milliseconds duration) const {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (!stopping_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    std::this_thread::sleep_for(std::min(left, kSlice));
  }
  return false;
}

void ScriptedServer::acceptLoop() {
  // Finished workers are joined as new ones start, so a long stress run
  // keeps only the connections in flight.
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::list<Worker> running;
  const auto reap = [&running](bool all) {
    for (auto it = running.begin(); it != running.end();) {
      if (all || *it->done) {
        it->thread.join();
        it = running.erase(it);
      } else {
        ++it;
      }
    }
  };
  while (!stopping_) {
    reap(false);
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(kSlice.count())) <= 0) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    ++accepted_;
    auto done = std::make_shared<std::atomic<bool>>(false);
    running.push_back({std::thread([this, connection, done] {
                         serve(connection);
                         ++finished_;
                         *done = true;
                       }),
                       done});
  }
  reap(true);
}

void ScriptedServer::serve(int socket) {
  std::string bytes;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  const auto receive = [&]() -> bool {
    pollfd readable{socket, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(kSlice.count())) <= 0) return true;
    char buffer[65536];
    const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    bytes.append(buffer, static_cast<std::size_t>(n));
    return true;
  };
  std::size_t end;
  while ((end = bytes.find("\r\n\r\n")) == std::string::npos) {
    if (stopping_ || std::chrono::steady_clock::now() > deadline || !receive()) {
      ::close(socket);
      return;
    }
  }
  RawRequest request{bytes.substr(0, end + 4), {}};
  bytes.erase(0, end + 4);
  Script script;
  std::optional<std::size_t> index;
  {
    std::lock_guard lock(mutex_);
    if (recording_) {
      requests_.push_back(request);
      index = requests_.size() - 1;
    }
    script = chooser_(request);
  }
  arrived_.notify_all();

  bool open = true;
  for (const Step& step : script) {
    if (!open || stopping_) break;
    switch (step.kind) {
      case Step::Kind::readBody: {
        const std::size_t length = announcedLength(request.head);
        while (bytes.size() < length && !stopping_ && std::chrono::steady_clock::now() < deadline && receive()) {
        }
        std::lock_guard lock(mutex_);
        if (index) requests_[*index].body = bytes.substr(0, length);
        break;
      }
      case Step::Kind::send:
        sendAll(socket, *step.bytes);
        break;
      case Step::Kind::sleep:
        sleepFor(step.interval);
        break;
      case Step::Kind::trickle:
        for (std::size_t at = 0; at < step.bytes->size() && !stopping_; at += step.chunk) {
          sendAll(socket, std::string_view(*step.bytes).substr(at, step.chunk));
          if (at + step.chunk < step.bytes->size()) sleepFor(step.interval);
        }
        break;
      case Step::Kind::close:
        ::close(socket);
        open = false;
        break;
      case Step::Kind::reset: {
        const linger abort{1, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        ::close(socket);
        open = false;
        break;
      }
      case Step::Kind::holdOpen:
        while (!stopping_) {
          pollfd readable{socket, POLLIN, 0};
          if (::poll(&readable, 1, static_cast<int>(kSlice.count())) <= 0) continue;
          char buffer[65536];
          if (::recv(socket, buffer, sizeof buffer, 0) <= 0) break;
        }
        break;
    }
  }
  if (open) {
    // Half-close first so the client reads everything before it sees the end.
    ::shutdown(socket, SHUT_WR);
    ::close(socket);
  }
}

int closedPort() {
  const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(s);
  return ntohs(address.sin_port);
}

}  // namespace zrk::test
