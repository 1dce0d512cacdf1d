// zrk against a loopback stand-in of the service: each route ("POST
// /app/v1/auth") answers what the test scripts, by default a valid token
// for the token step, an empty list of collections and "{}" elsewhere.
#ifndef ZRK_TESTS_CLI_CLITEST_H
#define ZRK_TESTS_CLI_CLITEST_H

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ZrkProcess.h"
#include "support/LoopbackServer.h"

namespace zrk::test {

inline constexpr const char* kAppKey = "app-key-1";
inline constexpr const char* kAppSecret = "AppSecret-9f3k";
inline constexpr const char* kAppToken = "AppTok-55ab";
inline constexpr const char* kPassword = "Pw-7xq2";

class CliTest : public ::testing::Test {
 private:
  // Declared before the server, which may still read the answers while it stops.
  std::mutex mutex_;
  std::map<std::string, ScriptedResponse> answers_;  // guarded by mutex_

 protected:
  CliTest();

  void answer(const std::string& route, ScriptedResponse response);
  // zrk with the service's address, key and secret, then the arguments.
  ZrkRun zrk(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});
  // Every request but the token step's, in arrival order.
  std::vector<RecordedRequest> endpointRequests() const;

  LoopbackServer server;
};

// "METHOD target body", the body left out when empty.
std::string line(const RecordedRequest& request);

}  // namespace zrk::test

#endif  // ZRK_TESTS_CLI_CLITEST_H
