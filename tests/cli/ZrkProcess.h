// Runs the built zrk program as a child process, the way a script does, and
// keeps what it printed.
#ifndef ZRK_TESTS_CLI_ZRKPROCESS_H
#define ZRK_TESTS_CLI_ZRKPROCESS_H

#include <chrono>
#include <string>
#include <vector>

namespace zrk::test {

struct ZrkRun {
  int status = -1;  // the exit status; 128 + the signal when one ended it
  std::string out;
  std::string err;
  std::chrono::milliseconds elapsed{0};
};

// Runs zrk with the arguments and with the environment of the test minus
// every ZRK_* variable, plus the given "NAME=value" entries. A child still
// running after the limit is killed, so a hang fails the test instead of
// blocking the suite.
ZrkRun runZrk(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {},
              std::chrono::milliseconds limit = std::chrono::seconds(60));

// A file in a fresh temporary directory that lives until the process ends.
std::string temporaryPath(const std::string& name);
void writeFile(const std::string& path, const std::string& bytes);
std::string readFile(const std::string& path);

}  // namespace zrk::test

#endif  // ZRK_TESTS_CLI_ZRKPROCESS_H
