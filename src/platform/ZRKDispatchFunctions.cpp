#include "zrk/ZRKDispatchFunctions.h"

#include "zrk/ZRKMainQueue.h"

namespace zrk {

void zrkDispatchToMainThreadIfNecessary(std::function<void()> callback) {
  if (!callback) return;
  if (ZRKMainQueue::isMainThread()) {
    callback();
  } else {
    ZRKMainQueue::mainQueue().async(std::move(callback));
  }
}

}  // namespace zrk
