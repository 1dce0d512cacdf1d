#include "support/RawRecorder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace zrk::test {
namespace {

// Bytes of the body announced by Content-Length in a header block, or 0.
std::size_t announcedLength(const std::string& head) {
  std::string lower;
  for (char c : head) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const auto at = lower.find("\r\ncontent-length:");
  if (at == std::string::npos) return 0;
  return std::strtoul(head.c_str() + at + 17, nullptr, 10);
}

}  // namespace

int listenOnLoopback(int& port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener, 16);
  socklen_t length = sizeof address;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return listener;
}

RawRecorder::RawRecorder(std::string response) : response_(std::move(response)) {
  listener_ = listenOnLoopback(port_);
  thread_ = std::thread([this] { serve(); });
}

RawRecorder::~RawRecorder() {
  stopping_ = true;
  thread_.join();
  ::close(listener_);
}

std::vector<std::string> RawRecorder::requests(std::size_t n, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
  return requests_;
}

void RawRecorder::serve() {
  while (!stopping_) {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 50) <= 0) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    std::string bytes;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
      const auto end = bytes.find("\r\n\r\n");
      if (end != std::string::npos && bytes.size() >= end + 4 + announcedLength(bytes.substr(0, end + 2))) break;
      if (std::chrono::steady_clock::now() > deadline) break;
      pollfd readable{connection, POLLIN, 0};
      if (::poll(&readable, 1, 50) <= 0) continue;
      char buffer[16384];
      const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      bytes.append(buffer, static_cast<std::size_t>(n));
    }
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(bytes);
    }
    arrived_.notify_all();
    [[maybe_unused]] const auto sent = ::send(connection, response_.data(), response_.size(), MSG_NOSIGNAL);
    ::close(connection);
  }
}

}  // namespace zrk::test
