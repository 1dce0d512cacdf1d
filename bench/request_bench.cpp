// What a request costs on top of libcurl: the same GET, with the same header
// fields, sent by raw libcurl (multi interface), by ZRKApiRequest and by the
// full endpoint operation (collections, token cached), against one loopback
// server.
//
//   zrkapi_request_bench [--repetitions N] [--json FILE]
//
// The server is a small epoll loop in a child process that answers every
// request with one fixed body over keep-alive connections; the clients run
// in child processes of their own, so that no measurement inherits another's
// heap. Pinned, the server runs on CPU 0 and the client on CPU 1; unpinned
// ("-free"), both may run on either core, as an application's would.
// Figures are medians of the repetitions:
//   sequential   microseconds per request, one request at a time
//   parallel     requests per second with 64 in flight
//   memory       resident bytes per request with 1,000 in flight, held by
//                the server until all 1,000 have arrived (peak RSS delta)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKApiClient.h"
#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKMainQueue.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSequentialRequests = 4000;
constexpr int kParallelRequests = 20000;
constexpr int kInFlight = 64;
constexpr int kHeld = 1000;
constexpr auto kDeadline = std::chrono::seconds(60);  // every loop below ends by then

// A collections answer of ordinary size.
constexpr std::string_view kBody =
    R"({"object":"collections","total":3,"result":[)"
    R"({"id":"c1","name":"Posters","imageUrl":"https://cdn.example/c1.jpg"},)"
    R"({"id":"c2","name":"Flyers","imageUrl":"https://cdn.example/c2.jpg"},)"
    R"({"id":"c3","name":"Packaging","imageUrl":"https://cdn.example/c3.jpg"}]})";

// Pins a process to one CPU, or (cpu < 0) lets it run on all of them.
void pinTo(int cpu, pid_t pid = 0) {
  cpu_set_t set;
  CPU_ZERO(&set);
  const int cpus = static_cast<int>(std::thread::hardware_concurrency());
  for (int c = 0; c < std::max(cpus, 1); ++c) {
    if (cpu < 0 || c == cpu) CPU_SET(c, &set);
  }
  sched_setaffinity(pid, sizeof set, &set);  // best effort: a 1-CPU machine keeps both on CPU 0
}

void raiseFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// ---------------------------------------------------------------- server

// Answers each complete request head (plus its Content-Length body) with
// kBody. Two control paths: "/hold?n=N" makes the next N requests wait until
// the N-th has arrived; "/last" answers with the head of the last request
// to /app/, so clients can replay the library's exact header fields.
class Server {
 public:
  explicit Server(int listener) : listener_(listener) {}

  [[noreturn]] void run() {
    const int ep = epoll_create1(0);
    add(ep, listener_);
    std::vector<epoll_event> events(256);
    for (;;) {
      const int n = epoll_wait(ep, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < n; ++i) {
        const int fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == listener_) {
          for (int c; (c = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
            const int one = 1;
            setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            add(ep, c);
            connections_[c];
          }
        } else {
          serve(fd);
        }
      }
    }
  }

 private:
  struct Connection {
    std::string in;
  };

  static void add(int ep, int fd) {
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e);
  }

  static std::string answer(std::string_view body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + std::string(body);
  }

  static void send(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n > 0) {
        done += static_cast<std::size_t>(n);
      } else if (n < 0 && errno == EAGAIN) {
        std::this_thread::yield();  // answers are tiny; the socket buffer drains at once
      } else {
        return;
      }
    }
  }

  void close(int fd) {
    ::close(fd);
    connections_.erase(fd);
  }

  void serve(int fd) {
    Connection& c = connections_[fd];
    char buffer[16384];
    for (;;) {
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n > 0) {
        c.in.append(buffer, static_cast<std::size_t>(n));
        continue;
      }
      if (n == 0 || errno != EAGAIN) return close(fd);
      break;
    }
    std::string out;
    for (;;) {
      const auto end = c.in.find("\r\n\r\n");
      if (end == std::string::npos) break;
      const std::string_view head(c.in.data(), end + 4);
      const std::size_t length = contentLength(head);
      if (c.in.size() < end + 4 + length) break;
      respond(fd, head, out);
      c.in.erase(0, end + 4 + length);
    }
    if (!out.empty()) send(fd, out);
  }

  static std::size_t contentLength(std::string_view head) {
    for (std::size_t at = head.find("\r\n"); at != std::string_view::npos; at = head.find("\r\n", at + 2)) {
      const std::string_view line = head.substr(at + 2, head.find("\r\n", at + 2) - at - 2);
      if (line.size() > 15 && strncasecmp(line.data(), "content-length:", 15) == 0) {
        return std::strtoul(std::string(line.substr(15)).c_str(), nullptr, 10);
      }
    }
    return 0;
  }

  void respond(int fd, std::string_view head, std::string& out) {
    const std::string_view target = head.substr(head.find(' ') + 1, head.find(' ', head.find(' ') + 1) - head.find(' ') - 1);
    if (target.substr(0, 8) == "/hold?n=") {
      holdFor_ = std::strtoul(std::string(target.substr(8)).c_str(), nullptr, 10);
      out += answer("{}");
      return;
    }
    if (target == "/last") {
      out += answer(last_);
      return;
    }
    if (target.substr(0, 5) == "/app/") last_ = std::string(head);
    if (holdFor_ == 0) {
      out += fixed_;
      return;
    }
    held_.push_back(fd);
    if (held_.size() < holdFor_) return;
    holdFor_ = 0;
    for (const int waiting : held_) {
      if (waiting != fd) send(waiting, fixed_);
    }
    held_.clear();
    out += fixed_;
  }

  int listener_;
  std::unordered_map<int, Connection> connections_;
  const std::string fixed_ = answer(kBody);
  std::string last_;
  std::size_t holdFor_ = 0;
  std::vector<int> held_;
};

// ---------------------------------------------------------------- clients

struct Result {
  double value = 0;  // the figure the mode measures
  bool ok = false;
};

long residentBytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field)) * 1024;
  }
  return 0;
}

void resetPeakResident() { std::ofstream("/proc/self/clear_refs") << "5"; }

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// One GET on a plain easy handle, for the control paths.
std::string fetch(const std::string& url) {
  CURL* easy = curl_easy_init();
  std::string body;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return body;
}

// Raw libcurl as a careful application would drive it: one multi handle
// (its connection pool), one easy handle per request carrying the header
// fields the library sent, the body collected into a string.
class RawClient {
 public:
  RawClient(std::string url, std::vector<std::string> fields) : url_(std::move(url)) {
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(kHeld + 16));
    for (const auto& field : fields) headers_ = curl_slist_append(headers_, field.c_str());
  }
  ~RawClient() {
    curl_multi_cleanup(multi_);
    curl_slist_free_all(headers_);
  }

  void start() {
    auto transfer = std::make_unique<Transfer>();
    CURL* e = transfer->easy = curl_easy_init();
    curl_easy_setopt(e, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &transfer->body);
    curl_easy_setopt(e, CURLOPT_PRIVATE, transfer.get());
    curl_multi_add_handle(multi_, e);
    transfers_[e] = std::move(transfer);
  }

  // Runs the transfers; each completed one calls onDone. Returns when none
  // is left or the deadline passes.
  template <class OnDone>
  bool run(OnDone onDone, Clock::time_point deadline) {
    while (!transfers_.empty()) {
      if (Clock::now() > deadline) return false;
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* e = message->easy_handle;
        const bool ok = message->data.result == CURLE_OK && !transfers_[e]->body.empty();
        curl_multi_remove_handle(multi_, e);
        curl_easy_cleanup(e);
        transfers_.erase(e);
        if (!ok) return false;
        onDone();
      }
      if (!transfers_.empty()) curl_multi_poll(multi_, nullptr, 0, 100, nullptr);
    }
    return true;
  }

 private:
  struct Transfer {
    CURL* easy = nullptr;
    std::string body;
  };
  std::string url_;
  CURLM* multi_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::map<CURL*, std::unique_ptr<Transfer>> transfers_;
};

// The header fields of the library's last request, as the server saw them,
// less Host (curl writes it from the URL).
std::vector<std::string> recordedFields(const std::string& base) {
  const std::string head = fetch(base + "/last");
  std::vector<std::string> fields;
  std::istringstream lines(head);
  std::string line;
  std::getline(lines, line);  // request line
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) break;
    if (strncasecmp(line.c_str(), "host:", 5) == 0) continue;
    fields.push_back(line);
  }
  return fields;
}

// Sends `total` requests with `inFlight` of them outstanding at a time
// through `issue`, which calls its argument when an answer arrives.
template <class Issue, class Pump>
bool keepInFlight(int total, int inFlight, Issue issue, Pump pump) {
  int started = 0, finished = 0;
  bool failed = false;
  std::function<void(bool)> done = [&](bool ok) {
    ++finished;
    failed = failed || !ok;
    if (started < total && !failed) {
      ++started;
      issue(done);
    }
  };
  for (; started < std::min(inFlight, total); ++started) issue(done);
  return pump([&] { return finished == total || failed; }) && !failed;
}

Result rawMode(const std::string& mode, const std::string& base) {
  const std::vector<std::string> fields = recordedFields(base);
  if (fields.empty()) return {};
  RawClient client(base + "/app/v1/collection", fields);
  const auto deadline = Clock::now() + kDeadline;
  if (mode == "sequential") {
    for (int i = 0; i < 200; ++i) {  // warm: connection, allocator
      client.start();
      if (!client.run([] {}, deadline)) return {};
    }
    const auto start = Clock::now();
    for (int i = 0; i < kSequentialRequests; ++i) {
      client.start();
      if (!client.run([] {}, deadline)) return {};
    }
    return {std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kSequentialRequests, true};
  }
  if (mode == "parallel") {
    for (int i = 0; i < kInFlight; ++i) client.start();  // warm: the 64 connections
    if (!client.run([] {}, deadline)) return {};
    int started = 0;
    const auto refill = [&] {
      if (started < kParallelRequests) {
        ++started;
        client.start();
      }
    };
    const auto start = Clock::now();
    for (int i = 0; i < kInFlight; ++i) refill();
    if (!client.run(refill, deadline)) return {};
    return {kParallelRequests / std::chrono::duration<double>(Clock::now() - start).count(), true};
  }
  // memory
  fetch(base + "/hold?n=" + std::to_string(kHeld));
  resetPeakResident();
  const long before = residentBytes("VmRSS:");
  for (int i = 0; i < kHeld; ++i) client.start();
  if (!client.run([] {}, deadline)) return {};
  return {static_cast<double>(residentBytes("VmHWM:") - before) / kHeld, true};
}

// Collections, as the endpoint decodes them; the ZRKApiRequest path uses the
// same deserializer so that both do the same parsing.
Result libraryMode(const std::string& kind, const std::string& mode, const std::string& base) {
  using namespace zrk;
  ZRKApiClient::setBaseUrl(base);
  auto token = std::make_shared<ZRKApiAuthToken>();
  token->setTokenString("bench-token");
  token->setExpire(4102444800);
  ZRKApiAuthToken::setToken(token);
  const auto client = ZRKApiClient::sharedClient();
  auto& mainQueue = ZRKMainQueue::mainQueue();

  const auto issue = [&](std::function<void(bool)> done) {
    if (kind == "endpoint") {
      client->retrieveCollectionsWithCompletion(
          [done = std::move(done)](std::optional<std::vector<std::shared_ptr<ZRKCollection>>> collections,
                                   std::optional<ZRKError> error) { done(collections && !error); });
    } else {
      ZRKApiRequest::getWithAPIClient(client, "app/v1/collection", ZRKJson::object(),
                                      std::make_shared<ZRKCollectionsAPIResponse>(),
                                      [done = std::move(done)](std::shared_ptr<ZRKApiResponseDecodable> object,
                                                               std::shared_ptr<const ZRKHTTPURLResponse>,
                                                               std::optional<ZRKError> error) {
                                        done(object && !error);
                                      });
    }
  };
  const auto pump = [&](const std::function<bool()>& finished) {
    return mainQueue.runUntil(finished, std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline));
  };

  if (mode == "sequential") {
    const auto one = [&] { return keepInFlight(1, 1, issue, pump); };
    for (int i = 0; i < 200; ++i) {
      if (!one()) return {};
    }
    const auto start = Clock::now();
    for (int i = 0; i < kSequentialRequests; ++i) {
      if (!one()) return {};
    }
    return {std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kSequentialRequests, true};
  }
  if (mode == "parallel") {
    if (!keepInFlight(kInFlight, kInFlight, issue, pump)) return {};
    const auto start = Clock::now();
    if (!keepInFlight(kParallelRequests, kInFlight, issue, pump)) return {};
    return {kParallelRequests / std::chrono::duration<double>(Clock::now() - start).count(), true};
  }
  // memory: one request first so that the session, its I/O thread and the
  // worker pool exist before the baseline
  if (!keepInFlight(1, 1, issue, pump)) return {};
  fetch(base + "/hold?n=" + std::to_string(kHeld));
  resetPeakResident();
  const long before = residentBytes("VmRSS:");
  if (!keepInFlight(kHeld, kHeld, issue, pump)) return {};
  return {static_cast<double>(residentBytes("VmHWM:") - before) / kHeld, true};
}

int child(const std::string& kind, const std::string& mode, const std::string& base, bool pinned) {
  pinTo(pinned ? 1 : -1);
  raiseFileLimit();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const Result r = kind == "raw" ? rawMode(mode, base) : libraryMode(kind, mode, base);
  if (!r.ok) return 1;
  std::printf("%.6f\n", r.value);
  return 0;
}

// Runs one measurement in a fresh process and reads its figure.
double measure(const std::string& self, const std::string& kind, const std::string& mode, const std::string& base,
               bool pinned = true) {
  int out[2];
  if (pipe(out) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> args = {self, "--child", kind, mode, base, pinned ? "pinned" : "free"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (spawned != 0) {
    ::close(out[0]);
    return -1;
  }
  std::string text;
  char buffer[256];
  for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  ::close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return std::atof(text.c_str());
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? -1 : v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::string(argv[1]) == "--child") {
    return child(argv[2], argv[3], argv[4], std::string(argv[5]) == "pinned");
  }

  int repetitions = 5;
  std::string jsonPath;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--repetitions") {
      repetitions = std::max(1, std::atoi(argv[i + 1]));
    } else if (flag == "--json") {
      jsonPath = argv[i + 1];
    }
  }
  raiseFileLimit();
  signal(SIGPIPE, SIG_IGN);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  const int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 4096) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("listen");
    return 1;
  }
  const std::string base = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));

  const pid_t server = fork();
  if (server == 0) {
    pinTo(0);
    Server(listener).run();
  }
  ::close(listener);

  const std::string self = "/proc/self/exe";
  char resolved[4096] = {};
  const ssize_t n = readlink(self.c_str(), resolved, sizeof resolved - 1);
  const std::string program = n > 0 ? std::string(resolved, static_cast<std::size_t>(n)) : argv[0];

  // The library's request first, so that the raw client can replay its fields.
  if (measure(program, "request", "sequential", base) < 0) {
    std::fprintf(stderr, "the library's request failed\n");
    kill(server, SIGKILL);
    return 1;
  }

  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::printf("The library's request, as the server saw it (replayed by raw libcurl, less Host):\n%s",
              fetch(base + "/last").c_str());

  struct Row {
    const char* mode;
    const char* unit;
    bool pinned;
  };
  const Row rows[] = {{"sequential", "us/request", true},
                      {"parallel", "requests/s", true},
                      {"memory", "bytes/request", true},
                      {"sequential", "us/request", false},
                      {"parallel", "requests/s", false}};
  const char* kinds[] = {"raw", "request", "endpoint"};
  std::map<std::string, std::map<std::string, double>> figures;
  bool failed = false;
  for (const Row& row : rows) {
    pinTo(row.pinned ? 0 : -1, server);
    for (const char* kind : kinds) {
      std::vector<double> values;
      for (int r = 0; r < repetitions; ++r) {
        const double v = measure(program, kind, row.mode, base, row.pinned);
        if (v < 0) {
          failed = true;
          std::fprintf(stderr, "%s %s failed\n", kind, row.mode);
          break;
        }
        values.push_back(v);
      }
      const std::string name = std::string(row.mode) + (row.pinned ? "" : "-free");
      figures[name][kind] = median(values);
      std::printf("%-15s %-9s %12.1f %s\n", name.c_str(), kind, figures[name][kind], row.unit);
      std::fflush(stdout);
    }
  }
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);

  if (!jsonPath.empty()) {
    std::ofstream json(jsonPath);
    json << "{";
    bool firstMode = true;
    for (const auto& [mode, byKind] : figures) {
      json << (firstMode ? "" : ", ") << "\"" << mode << "\": {";
      firstMode = false;
      bool firstKind = true;
      for (const auto& [kind, value] : byKind) {
        json << (firstKind ? "" : ", ") << "\"" << kind << "\": " << value;
        firstKind = false;
      }
      json << "}";
    }
    json << "}\n";
  }
  return failed ? 1 : 0;
}
