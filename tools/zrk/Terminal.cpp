#include "Terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zrk::tool {
namespace {

// The self-pipe the signal handler writes to; one per process, since the
// handler is.
int interruptPipe[2] = {-1, -1};

extern "C" void onInterrupt(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] const auto written = ::write(interruptPipe[1], &byte, 1);
  errno = saved;
}

std::string minutes(double seconds) {
  const long whole = std::lround(std::max(seconds, 0.0));
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

}  // namespace

std::string progressLine(std::size_t done, std::size_t total, std::size_t matched, double elapsedSeconds,
                         std::size_t columns) {
  const double rate = elapsedSeconds > 0 ? static_cast<double>(done) / elapsedSeconds : 0;
  char figures[160];
  std::snprintf(figures, sizeof figures, " %zu/%zu  %zu matched  %.1f/s  %s left", done, total, matched, rate,
                done > 0 && rate > 0 ? minutes(static_cast<double>(total - done) / rate).c_str() : "-:--");
  // The bar takes what the figures leave of the line, within reason.
  const std::size_t room = columns > std::strlen(figures) + 2 ? columns - std::strlen(figures) - 2 : 0;
  const std::size_t width = std::min<std::size_t>(room, 40);
  if (width < 10) return std::string(figures).substr(1, columns > 1 ? columns - 1 : 0);
  const std::size_t filled = total > 0 ? width * done / total : 0;
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]" + figures;
}

ProgressBar::ProgressBar() {
  const char* term = std::getenv("TERM");
  active_ = ::isatty(STDERR_FILENO) == 1 && !(term && std::strcmp(term, "dumb") == 0);
  sharesTerminal_ = ::isatty(STDOUT_FILENO) == 1;
}

void ProgressBar::show(std::size_t done, std::size_t total, std::size_t matched, double elapsedSeconds, bool force) {
  const auto now = std::chrono::steady_clock::now();
  if (!active_ || (!force && shown_ && now - drawn_ < std::chrono::milliseconds(100))) return;
  winsize size{};
  const std::size_t columns = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
  // One column short of the width, so that no terminal wraps the line.
  const std::string line = "\r" + progressLine(done, total, matched, elapsedSeconds, columns - 1) + "\033[K";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  shown_ = true;
  drawn_ = now;
}

void ProgressBar::clear() {
  if (!shown_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  shown_ = false;
}

InterruptFlag::InterruptFlag() {
  if (interruptPipe[0] < 0 && ::pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND | SA_RESTART;
  // Installed even over an ignored SIGINT (a shell's background job): the
  // signal then still means "stop", as a kill would have.
  ::sigaction(SIGINT, &action, &previous_);
}

InterruptFlag::~InterruptFlag() {
  if (interruptPipe[0] >= 0) ::sigaction(SIGINT, &previous_, nullptr);
}

int InterruptFlag::fileDescriptor() const { return interruptPipe[0]; }

bool InterruptFlag::fired() {
  char bytes[16];
  while (interruptPipe[0] >= 0 && ::read(interruptPipe[0], bytes, sizeof bytes) > 0) fired_ = true;
  return fired_;
}

}  // namespace zrk::tool
