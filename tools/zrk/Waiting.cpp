#include "Waiting.h"

#include "zrk/ZRKMainQueue.h"

namespace zrk::tool {

ExitStatus Outcome::wait(std::chrono::milliseconds timeout) {
  ZRKMainQueue::mainQueue().runUntil([this] { return settled(); }, timeout);
  return status_.value_or(kNoAnswer);
}

}  // namespace zrk::tool
