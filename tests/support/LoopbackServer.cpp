#include "support/LoopbackServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>

namespace zrk::test {
namespace {

bool sameName(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

std::vector<std::string> RecordedRequest::values(const std::string& name) const {
  std::vector<std::string> found;
  for (const auto& [key, value] : headers) {
    if (sameName(key, name)) found.push_back(value);
  }
  return found;
}

std::string RecordedRequest::header(const std::string& name) const {
  const auto found = values(name);
  if (found.empty()) return "<absent>";
  if (found.size() > 1) return "<repeated>";
  return found.front();
}

LoopbackServer::LoopbackServer(const std::string& host, bool keepAlive)
    : server_(std::make_unique<httplib::Server>()), host_(host) {
  if (keepAlive) {
    server_->set_keep_alive_timeout(1);
  } else {
    server_->set_keep_alive_max_count(1);
  }
  script_ = [](const RecordedRequest&) { return ScriptedResponse{}; };
  const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    handle(request, response);
  };
  server_->Get(".*", handler);
  server_->Post(".*", handler);
  server_->Put(".*", handler);
  server_->Patch(".*", handler);
  server_->Delete(".*", handler);
  server_->Options(".*", handler);
  port_ = server_->bind_to_any_port(host_);
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
  release();
  server_->stop();
  thread_.join();
}

std::string LoopbackServer::url() const { return "http://" + host_ + ":" + std::to_string(port_); }

void LoopbackServer::script(Script script) {
  std::lock_guard lock(mutex_);
  script_ = std::move(script);
}

void LoopbackServer::answer(ScriptedResponse response) {
  script([response](const RecordedRequest&) { return response; });
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t LoopbackServer::count() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool LoopbackServer::waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
}

void LoopbackServer::release() {
  {
    std::lock_guard lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

void LoopbackServer::handle(const httplib::Request& request, httplib::Response& response) {
  RecordedRequest recorded;
  recorded.method = request.method;
  recorded.target = request.target;
  recorded.path = request.path;
  for (const auto& [name, value] : request.headers) {
    // httplib adds these itself; they were not on the wire.
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
    recorded.headers.emplace_back(name, value);
  }
  recorded.body = request.body;
  recorded.remotePort = request.remote_port;
  Script script;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(recorded);
    script = script_;
  }
  changed_.notify_all();
  const ScriptedResponse scripted = script(recorded);
  if (scripted.stall.count() > 0) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, scripted.stall, [&] { return released_; });
  }
  response.status = scripted.status;
  for (const auto& [name, value] : scripted.headers) response.set_header(name, value);
  response.set_content(scripted.body, scripted.contentType);
}

}  // namespace zrk::test
