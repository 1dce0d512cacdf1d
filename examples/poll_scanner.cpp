// A scan from a program that owns its event loop and waits with poll():
// the main queue's descriptor joins the other descriptors, and drain() runs
// the library's callbacks when it turns readable.
#include <poll.h>
#include <unistd.h>

#include <chrono>
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

  auto& queue = zrk::ZRKMainQueue::mainQueue();
  int status = -1;
  zrk::ZRKApi::sharedApiClient()->scanWithImage(photo, arguments->collection, [&](auto scan, auto error) {
    status = example::reportScan(scan, error);
  });

  // Standard input stands for the program's own descriptors: a line typed
  // there is echoed while the scan is under way.
  pollfd watched[] = {{queue.fileDescriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  const auto deadline = std::chrono::steady_clock::now() + arguments->timeout;
  while (status < 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      std::fprintf(stderr, "no answer within %lld s\n", static_cast<long long>(arguments->timeout.count()));
      return 1;
    }
    if (::poll(watched, 2, static_cast<int>(left.count())) < 0) continue;
    if (watched[0].revents & POLLIN) queue.drain();
    if (watched[1].revents & (POLLIN | POLLHUP)) {
      char line[256];
      const auto n = ::read(STDIN_FILENO, line, sizeof line);
      if (n > 0) std::printf("input: %.*s", static_cast<int>(n), line);
      if (n <= 0) watched[1].fd = -1;  // closed: stop watching it
    }
  }
  return status;
}
