#include "support/ScriptedServer.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <unistd.h>

#include <cstdlib>

namespace zrk::test {

constexpr int kSliceMs = 20;

ScriptedServer::ScriptedServer(std::string host, const std::string& tlsKeyAndCertificate) : host_(std::move(host)) {
  if (!tlsKeyAndCertificate.empty()) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    tls_ = context;
    if (SSL_CTX_use_certificate_chain_file(context, tlsKeyAndCertificate.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, tlsKeyAndCertificate.c_str(), SSL_FILETYPE_PEM) != 1) {
      std::abort();
    }
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {}, {}};
  ::inet_pton(AF_INET, host_.c_str(), &address.sin_addr);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) || ::listen(listener_, 256)) std::abort();
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  always({send(httpAnswer("{}"))});
  acceptor_ = std::thread([this] {
    while (!stopping_) {
      pollfd waiting{listener_, POLLIN, 0};
      const int fd = ::poll(&waiting, 1, kSliceMs) > 0 ? ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (fd < 0) continue;
      std::lock_guard lock(mutex_);
      ++accepted_;
      // Detached and counted: a long stress run keeps only the connections in flight.
      std::thread([this, fd] {
        serve(fd);
        std::lock_guard lock(mutex_);
        ++finished_;
        arrived_.notify_all();
      }).detach();
    }
  });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  acceptor_.join();
  std::unique_lock lock(mutex_);
  arrived_.wait(lock, [this] { return finished_ == accepted_; });
  ::close(listener_);
  SSL_CTX_free(static_cast<SSL_CTX*>(tls_));
}

bool ScriptedServer::waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
}

void ScriptedServer::serve(int fd) {
  // A client that goes away mid-write must not end the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  SSL* ssl = tls_ ? SSL_new(static_cast<SSL_CTX*>(tls_)) : nullptr;
  if (ssl) {
    // Blocking reads, bounded: a stalled handshake costs at most this long.
    const timeval limit{2, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    SSL_set_fd(ssl, fd);
  }
  bool open = !ssl || SSL_accept(ssl) == 1;  // a refused certificate ends it here
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::string bytes;
  // Waits a moment for bytes; false once the peer has gone (or, if bounded, time is up).
  const auto receive = [&](bool bounded) {
    if (stopping_ || (bounded && std::chrono::steady_clock::now() > deadline)) return false;
    pollfd readable{fd, POLLIN, 0};
    if ((!ssl || SSL_pending(ssl) == 0) && ::poll(&readable, 1, kSliceMs) <= 0) return true;
    char buffer[65536];
    const long n = ssl ? SSL_read(ssl, buffer, sizeof buffer) : ::recv(fd, buffer, sizeof buffer, 0);
    if (n > 0) bytes.append(buffer, static_cast<std::size_t>(n));
    return n > 0;
  };
  const auto sendAll = [&](std::string_view data) {
    for (long n = 1; !data.empty() && n > 0; data.remove_prefix(std::max(n, 0L))) {
      n = ssl ? SSL_write(ssl, data.data(), static_cast<int>(data.size()))
              : ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    }
  };
  const auto sleep = [this](std::chrono::milliseconds duration) {
    for (const auto end = std::chrono::steady_clock::now() + duration; std::chrono::steady_clock::now() < end;) {
      if (stopping_) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  };
  while (open && bytes.find("\r\n\r\n") == std::string::npos) open = receive(true);
  const std::size_t headEnd = bytes.find("\r\n\r\n") + 4;
  const RawRequest request{bytes.substr(0, open ? headEnd : 0), {}};
  Script script;
  std::size_t index = 0;  // one past the recorded request, 0 if not recorded
  if (open) {
    std::lock_guard lock(mutex_);
    if (recording_) requests_.push_back(request);
    index = recording_ ? requests_.size() : 0;
    script = chooser_(request);
    arrived_.notify_all();
  }
  for (auto step = script.begin(); open && !stopping_ && step != script.end(); ++step) {
    switch (step->kind) {
      case Step::Kind::readBody: {
        std::size_t length = 0;
        for (std::size_t at = bytes.find("\r\n"); at < headEnd; at = bytes.find("\r\n", at + 2)) {
          if (!::strncasecmp(&bytes[at + 2], "content-length:", 15)) length = std::strtoul(&bytes[at + 17], {}, 10);
        }
        while (bytes.size() < headEnd + length && receive(true)) {
        }
        std::lock_guard lock(mutex_);
        if (index) requests_[index - 1].body = bytes.substr(headEnd, length);
        break;
      }
      case Step::Kind::send:
        sendAll(*step->bytes);
        break;
      case Step::Kind::sleep:
        sleep(step->interval);
        break;
      case Step::Kind::trickle:
        for (std::size_t at = 0; at < step->bytes->size() && !stopping_; at += step->chunk) {
          if (at) sleep(step->interval);
          sendAll(std::string_view(*step->bytes).substr(at, step->chunk));
        }
        break;
      case Step::Kind::reset: {
        const linger abort{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        [[fallthrough]];
      }
      case Step::Kind::close:
        open = false;
        break;
      case Step::Kind::holdOpen:
        while (receive(false)) bytes.resize(headEnd);
        break;
    }
  }
  // Half-close first, so the client reads everything before it sees the end.
  if (open && ssl) SSL_shutdown(ssl);
  if (open) ::shutdown(fd, SHUT_WR);
  SSL_free(ssl);
  ::close(fd);
}

int closedPort() {
  const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  ::bind(s, reinterpret_cast<sockaddr*>(&address), length);
  ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(s);
  return ntohs(address.sin_port);
}

}  // namespace zrk::test
