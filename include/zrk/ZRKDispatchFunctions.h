// Moving work to the main thread.
#ifndef ZRK_ZRKDISPATCHFUNCTIONS_H
#define ZRK_ZRKDISPATCHFUNCTIONS_H

#include "zrk/ZRKExport.h"

#include <functional>

namespace zrk {

// On the main thread, runs the callback at once, before returning; on any
// other thread, posts it to the main queue (ZRKMainQueue.h) and returns.
ZRK_API void zrkDispatchToMainThreadIfNecessary(std::function<void()> callback);

}  // namespace zrk

#endif  // ZRK_ZRKDISPATCHFUNCTIONS_H
