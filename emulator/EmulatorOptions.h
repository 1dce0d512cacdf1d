// The emulator's command line.
#ifndef ZRK_EMULATOR_EMULATOROPTIONS_H
#define ZRK_EMULATOR_EMULATOROPTIONS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zrk::emulator {

struct EmulatorOptions {
  std::string host = "127.0.0.1";
  int port = 0;                             // 0: the system picks one
  std::string dataFile;                     // "": an in-memory database
  std::string seedDir;                      // "": no collections
  std::map<std::string, std::string> apps;  // key -> secret
  int tokenTtlSeconds = 3600;
  int latencyMs = 0;
  double failRate = 0;
  bool allowRemoteFetch = false;
  // Asked of the console and /__emulator/ when not empty; made up at start
  // when the host is not loopback and none was given.
  std::string consoleToken;
};

// The options, or nothing when the program should exit with *exitCode
// (0 after --help, 2 after a usage error; the message is already printed).
std::optional<EmulatorOptions> parseEmulatorOptions(int argc, char** argv, int* exitCode);

// True for "localhost", 127.0.0.0/8 and ::1.
bool isLoopbackHost(const std::string& host);

}  // namespace zrk::emulator

#endif  // ZRK_EMULATOR_EMULATOROPTIONS_H
