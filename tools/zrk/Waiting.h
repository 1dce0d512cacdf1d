// Waiting for the library's answer the way an application does: the main
// queue runs on the main thread, and the completions, which run there, settle
// the command's exit status.
#ifndef ZRK_TOOLS_WAITING_H
#define ZRK_TOOLS_WAITING_H

#include <chrono>
#include <memory>
#include <optional>

#include "ExitStatus.h"

namespace zrk::tool {

// The outcome of one command, shared with the completions that settle it.
// Main thread only, like the completions themselves.
class Outcome {
 public:
  static std::shared_ptr<Outcome> make() { return std::make_shared<Outcome>(); }

  // The first status wins; a completion that runs again later changes nothing.
  void settle(ExitStatus status) {
    if (!status_) status_ = status;
  }
  bool settled() const { return status_.has_value(); }

  // Runs the main queue until the outcome is settled or the time-out passes;
  // kNoAnswer in the second case.
  ExitStatus wait(std::chrono::milliseconds timeout);

 private:
  std::optional<ExitStatus> status_;
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_WAITING_H
