#include "support/ServiceTest.h"

#include "zrk/ZRKUserSession.h"

namespace zrk::test {

void ServiceTest::SetUp() {
  ZRKApiAuthToken::clear();
  ZRKUserSession::clearSession();
  ZRKApiClient::setBaseUrl(server.url());
  server.script([this](const RecordedRequest& request) {
    std::lock_guard lock(answersMutex);
    return request.path == "/app/v1/auth" ? authAnswer : endpointAnswer;
  });
}

void ServiceTest::TearDown() {
  ZRKApiAuthToken::clear();
  ZRKUserSession::clearSession();
  ZRKApiClient::setBaseUrl(ZRKDefaultBaseURL);
}

void ServiceTest::setAnswers(ScriptedResponse auth, ScriptedResponse endpoint) {
  std::lock_guard lock(answersMutex);
  authAnswer = std::move(auth);
  endpointAnswer = std::move(endpoint);
}

std::vector<RecordedRequest> ServiceTest::endpointRequests() const {
  std::vector<RecordedRequest> out;
  for (auto& request : server.requests()) {
    if (request.path != "/app/v1/auth") out.push_back(std::move(request));
  }
  return out;
}

std::shared_ptr<ZRKApiAuthToken> validToken(const std::string& text) {
  auto token = std::make_shared<ZRKApiAuthToken>();
  token->setTokenString(text);
  token->setExpire(4102444800);
  return token;
}

}  // namespace zrk::test
