#include "CliTest.h"

namespace zrk::test {

CliTest::CliTest() {
  answers_["POST /app/v1/auth"] = {.body = std::string(R"({"token":")") + kAppToken + R"(","expire":4102444800})"};
  // "{}" holds no list, which this listing would report as an error.
  answers_["GET /app/v1/collection"] = {.body = R"({"result":[]})"};
  server.script([this](const RecordedRequest& request) {
    std::lock_guard lock(mutex_);
    const auto found = answers_.find(request.method + " " + request.path);
    return found == answers_.end() ? ScriptedResponse{} : found->second;
  });
}

void CliTest::answer(const std::string& route, ScriptedResponse response) {
  std::lock_guard lock(mutex_);
  answers_[route] = std::move(response);
}

ZrkRun CliTest::zrk(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  std::vector<std::string> all{"--base-url", server.url(), "--key", kAppKey, "--secret", kAppSecret};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return runZrk(all, environment);
}

std::vector<RecordedRequest> CliTest::endpointRequests() const {
  std::vector<RecordedRequest> out;
  for (auto& request : server.requests()) {
    if (request.path != "/app/v1/auth") out.push_back(std::move(request));
  }
  return out;
}

std::string line(const RecordedRequest& request) {
  return request.method + " " + request.target + (request.body.empty() ? "" : " " + request.body);
}

}  // namespace zrk::test
