// The interactive side of a long scan: a progress bar on a terminal, and
// Ctrl-C as a request to stop rather than a kill.
#ifndef ZRK_TOOLS_TERMINAL_H
#define ZRK_TOOLS_TERMINAL_H

#include <signal.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace zrk::tool {

// One line on standard error, redrawn in place: done and total, matches so
// far, rate and time left. Inert unless standard error is a terminal, so
// logs and pipes never receive it.
class ProgressBar {
 public:
  ProgressBar();
  ~ProgressBar() { clear(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  bool active() const { return active_; }
  // Redraws, at most ten times a second unless forced.
  void show(std::size_t done, std::size_t total, std::size_t matched, double elapsedSeconds, bool force = false);
  // Erases the bar.
  void clear();
  // Erases the bar when standard output shares its terminal, so that a line
  // can be printed where it was.
  void makeRoomForOutput() {
    if (sharesTerminal_) clear();
  }

 private:
  bool active_;
  bool sharesTerminal_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point drawn_;
};

// The bar's text for a terminal of the given width; what show() draws.
std::string progressLine(std::size_t done, std::size_t total, std::size_t matched, double elapsedSeconds,
                         std::size_t columns);

// While it lives, the first SIGINT only makes fileDescriptor() readable and
// fired() true; the handler is then reset, so a second Ctrl-C ends the
// program at once. The previous handling comes back on destruction.
class InterruptFlag {
 public:
  InterruptFlag();
  ~InterruptFlag();
  InterruptFlag(const InterruptFlag&) = delete;
  InterruptFlag& operator=(const InterruptFlag&) = delete;

  int fileDescriptor() const;  // -1 when no pipe could be made
  bool fired();

 private:
  struct sigaction previous_ {};
  bool fired_ = false;
};

}  // namespace zrk::tool

#endif  // ZRK_TOOLS_TERMINAL_H
