// The least an application needs to scan a photo: set up the client, start
// the scan and let the main queue run until the completion has been called.
#include <cstdio>

#include "ScanArguments.h"
#include "zrk/ZRKImage.h"
#include "zrk/ZRKMainQueue.h"

int main(int argc, char** argv) {
  const auto arguments = example::parseScanArguments(argc, argv);
  if (!arguments) return 2;
  example::configureClient(*arguments);

  const auto photo = example::loadPhoto(*arguments);
  if (!photo) return 2;

  int status = -1;
  zrk::ZRKApi::sharedApiClient()->scanWithImage(photo, arguments->collection, [&](auto scan, auto error) {
    status = example::reportScan(scan, error);
  });
  // The completion runs here, on the main thread, while the queue runs.
  if (!zrk::ZRKMainQueue::mainQueue().runUntil([&] { return status >= 0; }, arguments->timeout)) {
    std::fprintf(stderr, "no answer within %lld s\n", static_cast<long long>(arguments->timeout.count()));
    return 1;
  }
  return status;
}
