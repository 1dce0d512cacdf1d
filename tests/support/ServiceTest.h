// The shared client against a loopback stand-in of the service: the token
// step ("app/v1/auth") gets authAnswer, every other request endpointAnswer.
// Set them before the requests they answer, or with setAnswers while
// requests may be under way. The token cache, the user session and the
// shared client's base URL are reset before and after each test.
#ifndef ZRK_TESTS_SERVICETEST_H
#define ZRK_TESTS_SERVICETEST_H

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <vector>

#include "support/LoopbackServer.h"
#include "zrk/ZRKApiClient.h"

namespace zrk::test {

// A token valid until 2100.
std::shared_ptr<ZRKApiAuthToken> validToken(const std::string& text = "t");

class ServiceTest : public ::testing::Test {
 private:
  // Declared before the server, which may still read the answers while it stops.
  std::mutex answersMutex;

 protected:
  void SetUp() override;
  void TearDown() override;

  void setAnswers(ScriptedResponse auth, ScriptedResponse endpoint);
  // Every request but the token step's, in arrival order.
  std::vector<RecordedRequest> endpointRequests() const;

  ScriptedResponse authAnswer{.body = R"({"token":"t1","expire":4102444800})"};  // guarded by answersMutex
  ScriptedResponse endpointAnswer;                                              // guarded by answersMutex
  LoopbackServer server;
  std::shared_ptr<ZRKApiClient> client = ZRKApiClient::sharedClient();
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_SERVICETEST_H
