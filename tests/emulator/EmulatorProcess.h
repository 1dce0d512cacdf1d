// Runs zrk-emulator as a child process for a test: started on a free
// loopback port, stopped with SIGTERM (SIGKILL if it will not go). Plain
// POSIX and the standard library, one header: copy it into your own tests.
//
//   zrk::test::EmulatorProcess emulator("/path/to/zrk-emulator", {"--seed", "seed"});
//   zrk::ZRKApi::initializeWithAppKey("demo-key", "demo-secret");
//   zrk::ZRKApiClient::setBaseUrl(emulator.url());
//   ...
//   EXPECT_EQ(emulator.stop(), 0);  // or let the destructor stop it
//
// Not thread-safe; use one object from one thread.
#ifndef ZRK_TESTS_EMULATORPROCESS_H
#define ZRK_TESTS_EMULATORPROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace zrk::test {

class EmulatorProcess {
 public:
  // Starts the program with the arguments and "--port 0", and waits (at most
  // startTimeout) for its "listening on" line. Throws std::runtime_error when
  // it cannot start or exits first; its standard error stays the caller's.
  EmulatorProcess(const std::string& program, std::vector<std::string> arguments,
                  std::chrono::milliseconds startTimeout = std::chrono::seconds(30)) {
    arguments.insert(arguments.end(), {"--port", "0"});
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    output_ = pipe[0];
    pid_ = spawn(program, arguments, pipe[1], -1);
    ::close(pipe[1]);
    if (pid_ <= 0) {
      closeOutput();
      throw std::runtime_error("cannot start " + program);
    }
    const std::string line = readLine(startTimeout);
    const std::string marker = "listening on ";
    const auto at = line.find(marker);
    if (at == std::string::npos) {
      stop();
      throw std::runtime_error("the emulator did not start: \"" + line + "\"");
    }
    url_ = line.substr(at + marker.size());
    port_ = std::stoi(url_.substr(url_.rfind(':') + 1));
  }

  ~EmulatorProcess() { stop(); }
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  // "http://127.0.0.1:PORT"
  const std::string& url() const { return url_; }
  int port() const { return port_; }
  pid_t pid() const { return pid_; }

  // Sends the signal, waits for the end (bounded; SIGKILL after the time-out)
  // and returns the exit status: the exit code, or 128 + the signal that
  // ended it. Later calls return the same status.
  int stop(int signal = SIGTERM, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    if (pid_ > 0) {
      ::kill(pid_, signal);
      status_ = waitFor(pid_, timeout);
      pid_ = 0;
    }
    closeOutput();
    return status_;
  }

  struct Outcome {
    int status;               // as stop() returns it
    std::string errorOutput;  // everything written to standard error
  };

  // Runs the program to its end (for arguments it should refuse), bounded
  // by the time-out, after which it is killed.
  static Outcome runToExit(const std::string& program, const std::vector<std::string>& arguments,
                           std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = spawn(program, arguments, -1, pipe[1]);
    ::close(pipe[1]);
    if (pid <= 0) {
      ::close(pipe[0]);
      throw std::runtime_error("cannot start " + program);
    }
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd entry{pipe[0], POLLIN, 0};
      if (::poll(&entry, 1, 100) <= 0) continue;
      const ssize_t n = ::read(pipe[0], buffer, sizeof buffer);
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipe[0]);
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return {waitFor(pid, std::max(left, std::chrono::milliseconds(100))), text};
  }

 private:
  // -1 leaves the stream as it is.
  static pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, int out, int err) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out >= 0) posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    if (err >= 0) posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
  }

  static int waitFor(pid_t pid, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
      const pid_t done = ::waitpid(pid, &status, WNOHANG);
      if (done == pid) break;
      if (done < 0 && errno != EINTR) return -1;
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string readLine(std::chrono::milliseconds timeout) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char c = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd entry{output_, POLLIN, 0};
      if (::poll(&entry, 1, 100) <= 0) continue;
      if (::read(output_, &c, 1) != 1 || c == '\n') break;
      line += c;
    }
    return line;
  }

  void closeOutput() {
    if (output_ >= 0) ::close(output_);
    output_ = -1;
  }

  pid_t pid_ = 0;
  int output_ = -1;
  int status_ = -1;
  std::string url_;
  int port_ = 0;
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_EMULATORPROCESS_H
