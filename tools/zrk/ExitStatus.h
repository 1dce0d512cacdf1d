// The exit statuses scripts rely on.
#ifndef ZRK_TOOLS_EXITSTATUS_H
#define ZRK_TOOLS_EXITSTATUS_H

namespace zrk::tool {

enum ExitStatus : int {
  kSuccess = 0,
  kServiceError = 1,  // the service or the transport reported an error
  kUsageError = 2,
  kNoAnswer = 3,  // nothing came back within the time-out
  kInterrupted = 130,  // Ctrl-C, as a shell reports a program SIGINT ended
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_EXITSTATUS_H
