#include "zrk/ZRKURLSession.h"
#include "platform/ZRKText.h"

#include <curl/curl.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace zrk {
namespace detail {

struct TaskState {
  TaskState(std::shared_ptr<ZRKURLSession> s, ZRKURLRequest request,
            ZRKURLSessionDataTask::CompletionHandler h, std::uint64_t id)
      : session(std::move(s)), original(std::move(request)), identifier(id), current(original),
        handler(std::move(h)) {}

  const std::shared_ptr<ZRKURLSession> session;
  const ZRKURLRequest original;
  const std::uint64_t identifier;

  std::mutex mutex;
  ZRKURLSessionDataTask::State state = ZRKURLSessionDataTask::State::suspended;  // guarded by mutex
  ZRKURLRequest current;                                  // guarded by mutex
  ZRKURLSessionDataTask::CompletionHandler handler;       // guarded by mutex; dropped once called

  // Touched only by the I/O thread.
  int redirects = 0;
  std::chrono::steady_clock::time_point startedAt;

  bool completed() {
    std::lock_guard lock(mutex);
    return state == ZRKURLSessionDataTask::State::completed;
  }

  void finish(std::optional<std::string> data, std::shared_ptr<const ZRKHTTPURLResponse> response,
              std::optional<ZRKError> error) {
    ZRKURLSessionDataTask::CompletionHandler h;
    {
      std::lock_guard lock(mutex);
      if (state == ZRKURLSessionDataTask::State::completed) return;
      state = ZRKURLSessionDataTask::State::completed;
      h = std::move(handler);
      handler = nullptr;
    }
    if (!h) return;
    session->delegateQueue().async(
        [h = std::move(h), data = std::move(data), response = std::move(response),
         error = std::move(error)]() mutable { h(std::move(data), std::move(response), std::move(error)); });
  }
};

namespace {

using detail::equalsIgnoringCase;

constexpr int kMaximumRedirects = 16;

ZRKError transportError(long code, const std::string& detail, const std::optional<ZRKURL>& url) {
  ZRKJson info = ZRKJson::object();
  info[ZRKLocalizedDescriptionKey] =
      detail.empty() ? std::string(curl_easy_strerror(static_cast<CURLcode>(code))) : detail;
  if (url) info[ZRKURLErrorFailingURLStringKey] = url->absoluteString();
  return ZRKError(ZRKURLErrorDomain, code, std::move(info));
}

bool hasForbiddenByte(std::string_view s) { return s.find_first_of(std::string_view("\r\n\0", 3)) != s.npos; }

// A name that curl would send as written: a token, no separators.
bool isHeaderName(std::string_view s) {
  if (s.empty()) return false;
  return std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return c > 0x20 && c < 0x7f && c != ':' && c != '(' && c != ')' && c != '<' && c != '>' && c != '@' &&
           c != ',' && c != ';' && c != '\\' && c != '"' && c != '/' && c != '[' && c != ']' && c != '?' &&
           c != '=' && c != '{' && c != '}';
  });
}

int effectivePort(const ZRKURL& url) {
  if (auto port = url.port()) return *port;
  return equalsIgnoringCase(url.scheme().value_or(""), "https") ? 443 : 80;
}

bool sameOrigin(const ZRKURL& a, const ZRKURL& b) {
  return equalsIgnoringCase(a.scheme().value_or(""), b.scheme().value_or("")) &&
         equalsIgnoringCase(a.host().value_or(""), b.host().value_or("")) && effectivePort(a) == effectivePort(b);
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

// One transfer on the wire: one hop of a task. Owned by the I/O thread.
struct Transfer {
  std::shared_ptr<ZRKURLSessionDataTask> task;
  std::shared_ptr<TaskState> state;
  ZRKURLRequest request;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;  // the request body; curl reads it in place
  std::size_t maximumResponseBytes = 0;
  bool tooLarge = false;
  // No bytes moved for `idle` fails the transfer. curl's own low-speed
  // check averages over a window of seconds, so bytes just sent keep a
  // stalled transfer alive well past its time-out; this one is exact.
  std::chrono::steady_clock::duration idle{};
  std::chrono::steady_clock::time_point lastProgress;
  curl_off_t lastMoved = -1;
  bool idleTimedOut = false;
  // The blank line that ends the final header block has arrived.
  bool headersComplete = false;

  std::string responseBody;
  std::string httpVersion;
  ZRKHTTPHeaderFields responseHeaders;
  std::string lastHeaderName;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headers) curl_slist_free_all(headers);
  }
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  if (t->maximumResponseBytes && t->responseBody.size() + n > t->maximumResponseBytes) {
    t->tooLarge = true;
    return 0;
  }
  t->responseBody.append(data, n);
  return n;
}

int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto* t = static_cast<Transfer*>(user);
  const auto now = std::chrono::steady_clock::now();
  if (downloaded + uploaded != t->lastMoved) {
    t->lastMoved = downloaded + uploaded;
    t->lastProgress = now;
    return 0;
  }
  if (t->idle.count() > 0 && now - t->lastProgress >= t->idle) {
    t->idleTimedOut = true;
    return 1;
  }
  return 0;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  const std::string_view line(data, n);
  if (line.substr(0, 5) == "HTTP/") {
    // A new status line: an interim 1xx answer's fields are not the final ones.
    t->responseHeaders = ZRKHTTPHeaderFields();
    t->lastHeaderName.clear();
    t->httpVersion = std::string(line.substr(0, line.find(' ')));
    t->headersComplete = false;
    return n;
  }
  if (line == "\r\n" || line == "\n") {
    t->headersComplete = true;
    return n;
  }
  if (line.front() == ' ' || line.front() == '\t') {
    // An obsolete folded line continues the previous field.
    if (!t->lastHeaderName.empty()) {
      auto value = t->responseHeaders.valueForHTTPHeaderField(t->lastHeaderName).value_or("");
      value += ' ';
      value += trim(line);
      t->responseHeaders.setValue(std::move(value), t->lastHeaderName);
    }
    return n;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return n;
  const std::string name(trim(line.substr(0, colon)));
  if (name.empty()) return n;
  t->responseHeaders.addValue(std::string(trim(line.substr(colon + 1))), name);
  t->lastHeaderName = name;
  return n;
}

class CurlLoop {
 public:
  static CurlLoop& shared() {
    // Leaked on purpose: transfers may be in flight while the process exits.
    static CurlLoop* const loop = new CurlLoop;
    return *loop;
  }

  void post(std::function<void()> command) {
    {
      std::lock_guard lock(mutex_);
      commands_.push_back(std::move(command));
    }
    curl_multi_wakeup(multi_);
  }

  // I/O thread only.
  void start(std::shared_ptr<ZRKURLSessionDataTask> task, std::shared_ptr<TaskState> state,
             ZRKURLRequest request);
  void remove(std::uint64_t identifier) {
    const auto it = transfers_.find(identifier);
    if (it == transfers_.end()) return;
    curl_multi_remove_handle(multi_, it->second->easy);
    transfers_.erase(it);
  }

 private:
  CurlLoop() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    thread_ = std::thread([this] { run(); });
    // At exit the TLS library frees its global state from its own exit
    // handler, registered by curl_global_init above. This one runs before it
    // (handlers run in reverse) and parks the I/O thread, so no transfer in
    // flight touches that state while, or after, it goes. Transfers still
    // in flight then end without a completion: the process is ending.
    std::atexit([] { shared().stop(); });
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
  }

  void run();
  void done(CURL* easy, CURLcode result);
  void redirect(std::unique_ptr<Transfer> t, std::shared_ptr<const ZRKHTTPURLResponse> response,
                const ZRKURL& location);

  CURLM* multi_ = nullptr;
  std::mutex mutex_;
  std::vector<std::function<void()>> commands_;  // guarded by mutex_
  bool stopping_ = false;                        // guarded by mutex_
  std::map<std::uint64_t, std::unique_ptr<Transfer>> transfers_;  // I/O thread only
  std::thread thread_;
};

void CurlLoop::run() {
  std::vector<std::function<void()>> commands;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      commands.swap(commands_);
    }
    for (auto& command : commands) command();
    commands.clear();

    int running = 0;
    curl_multi_perform(multi_, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg == CURLMSG_DONE) done(message->easy_handle, message->data.result);
    }
    curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
  }
}

void CurlLoop::start(std::shared_ptr<ZRKURLSessionDataTask> task, std::shared_ptr<TaskState> state,
                     ZRKURLRequest request) {
  if (state->completed()) return;
  {
    std::lock_guard lock(state->mutex);
    state->current = request;
  }
  const auto& configuration = *state->session->configuration();
  const std::optional<ZRKURL> url = request.URL();
  if (!url) {
    state->finish(std::nullopt, nullptr, transportError(ZRKURLErrorBadURL, "The URL is missing or invalid.", url));
    return;
  }
  const auto scheme = url->scheme().value_or("");
  if (!equalsIgnoringCase(scheme, "http") && !equalsIgnoringCase(scheme, "https")) {
    state->finish(std::nullopt, nullptr,
                  transportError(ZRKURLErrorUnsupportedURL, "Only http and https URLs are supported.", url));
    return;
  }

  auto t = std::make_unique<Transfer>();
  t->task = std::move(task);
  t->state = state;
  t->request = std::move(request);
  t->maximumResponseBytes = configuration.maximumResponseBytes;
  t->easy = curl_easy_init();
  CURL* e = t->easy;
  curl_easy_setopt(e, CURLOPT_PRIVATE, t.get());
  curl_easy_setopt(e, CURLOPT_URL, t->request.URL()->absoluteString().c_str());
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t->errorBuffer);
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, t.get());
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(e, CURLOPT_HEADERDATA, t.get());
  curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(e, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
  if (!configuration.userAgent.empty()) curl_easy_setopt(e, CURLOPT_USERAGENT, configuration.userAgent.c_str());
  if (!configuration.caInfoPath.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, configuration.caInfoPath.c_str());

  // No progress for this long fails the transfer; connecting has its own limit.
  const double idle = t->request.timeoutInterval() > 0 ? t->request.timeoutInterval()
                                                       : configuration.timeoutIntervalForRequest;
  if (idle > 0) {
    t->idle = std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(idle));
    t->lastProgress = std::chrono::steady_clock::now();
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, t.get());
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
  }
  long connectMs = static_cast<long>(configuration.connectTimeout * 1000);
  if (idle > 0) connectMs = std::min(connectMs > 0 ? connectMs : LONG_MAX, static_cast<long>(idle * 1000));
  if (connectMs > 0) curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, connectMs);
  if (configuration.timeoutIntervalForResource > 0) {
    const auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - state->startedAt).count();
    const double left = configuration.timeoutIntervalForResource - elapsed;
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, std::max(1L, static_cast<long>(left * 1000)));
  }

  const std::string& method = t->request.HTTPMethod();
  const bool hasBody = t->request.HTTPBody().has_value() && method != "GET" && method != "HEAD";
  if (hasBody) t->body = *t->request.HTTPBody();
  // Methods that carry a body announce an empty one, so that no server waits
  // for bytes that never come.
  const bool announcesLength = hasBody || method == "POST" || method == "PUT" || method == "PATCH";
  if (method == "GET") {
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  } else if (method == "HEAD") {
    curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  } else if (announcesLength) {
    curl_easy_setopt(e, CURLOPT_POSTFIELDS, t->body.data());
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t->body.size()));
    if (method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else {
    curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  // An empty "Expect:" stops curl's 100-continue round trip on large bodies.
  t->headers = curl_slist_append(t->headers, "Expect:");
  // curl labels every POST body as a form unless told otherwise; a request
  // without a body has no type to state.
  if (!hasBody && !t->request.valueForHTTPHeaderField("Content-Type")) {
    t->headers = curl_slist_append(t->headers, "Content-Type:");
  }
  for (const auto& [name, value] : t->request.allHTTPHeaderFields().fields()) {
    if (!isHeaderName(name) || hasForbiddenByte(value)) continue;
    // The body's length is the transport's to state; a stale copy would
    // desynchronise the connection.
    if (equalsIgnoringCase(name, "Content-Length") || equalsIgnoringCase(name, "Transfer-Encoding")) continue;
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    t->headers = curl_slist_append(t->headers, line.c_str());
  }
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers);

  curl_multi_add_handle(multi_, e);
  transfers_[state->identifier] = std::move(t);
}

void CurlLoop::done(CURL* easy, CURLcode result) {
  Transfer* raw = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &raw);
  curl_multi_remove_handle(multi_, easy);
  auto it = transfers_.find(raw->state->identifier);
  if (it == transfers_.end()) return;
  std::unique_ptr<Transfer> t = std::move(it->second);
  transfers_.erase(it);
  TaskState& state = *t->state;

  if (result == CURLE_OK && !t->headersComplete) {
    // The connection ended inside the header block: no answer arrived.
    state.finish(std::nullopt, nullptr,
                 transportError(ZRKURLErrorBadServerResponse, "The server's answer ended within its header.",
                                t->request.URL()));
    return;
  }
  if (result != CURLE_OK) {
    long code = static_cast<long>(result);
    std::string detail = t->errorBuffer;
    if (t->tooLarge) {
      code = ZRKURLErrorResponseTooLarge;
      detail = "The response body is larger than the session accepts.";
    } else if (t->idleTimedOut) {
      code = ZRKURLErrorTimedOut;
      detail = "No data moved within the request's time-out.";
    }
    state.finish(std::nullopt, nullptr, transportError(code, detail, t->request.URL()));
    return;
  }
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  auto response = std::make_shared<const ZRKHTTPURLResponse>(t->request.URL(), status, t->httpVersion,
                                                             t->responseHeaders);
  if (status == 301 || status == 302 || status == 303 || status == 307 || status == 308) {
    if (const auto location = t->responseHeaders.valueForHTTPHeaderField("Location")) {
      if (auto next = t->request.URL()->URLByResolvingReference(*location)) {
        redirect(std::move(t), std::move(response), *next);
        return;
      }
    }
  }
  state.finish(std::move(t->responseBody), std::move(response), std::nullopt);
}

void CurlLoop::redirect(std::unique_ptr<Transfer> t, std::shared_ptr<const ZRKHTTPURLResponse> response,
                        const ZRKURL& location) {
  auto state = t->state;
  if (state->redirects >= kMaximumRedirects) {
    state->finish(std::nullopt, nullptr,
                  transportError(ZRKURLErrorTooManyRedirects, "Too many redirects.", t->request.URL()));
    return;
  }
  ZRKURLRequest proposal = t->request;
  proposal.setURL(location);
  const long status = response->statusCode();
  const std::string& method = proposal.HTTPMethod();
  const bool toGet = (status == 303 && method != "HEAD" && method != "GET") ||
                     ((status == 301 || status == 302) && method == "POST");
  if (toGet) {
    proposal.setHTTPMethod("GET");
    proposal.setHTTPBody(std::nullopt);
    proposal.setValue(std::nullopt, "Content-Type");
    proposal.setValue(std::nullopt, "Content-Length");
  }
  if (!sameOrigin(*t->request.URL(), location)) {
    proposal.setValue(std::nullopt, "Authorization");
    proposal.setValue(std::nullopt, "Cookie");
  }

  auto decided = [this, task = t->task, state, response,
                  body = std::make_shared<std::string>(std::move(t->responseBody))](
                     std::optional<ZRKURLRequest> next) mutable {
    post([this, task = std::move(task), state, response = std::move(response), body,
          next = std::move(next)]() mutable {
      if (next) {
        ++state->redirects;
        start(std::move(task), state, std::move(*next));
      } else {
        state->finish(std::move(*body), std::move(response), std::nullopt);
      }
    });
  };

  auto delegate = state->session->delegate();
  if (!delegate) {
    decided(std::move(proposal));
    return;
  }
  state->session->delegateQueue().async([delegate = std::move(delegate), task = t->task, state, response,
                                 proposal = std::move(proposal), decided = std::move(decided)]() mutable {
    // The delegate must answer once; a second answer is ignored.
    auto once = std::make_shared<std::atomic<bool>>(false);
    auto handler = [once, decided = std::move(decided)](std::optional<ZRKURLRequest> next) mutable {
      if (!once->exchange(true)) decided(std::move(next));
    };
    delegate->willPerformHTTPRedirection(*state->session, *task, *response, std::move(proposal),
                                         std::move(handler));
  });
}

}  // namespace
}  // namespace detail

void ZRKURLSessionDelegate::willPerformHTTPRedirection(ZRKURLSession&, ZRKURLSessionDataTask&,
                                                       const ZRKHTTPURLResponse&, ZRKURLRequest request,
                                                       std::function<void(std::optional<ZRKURLRequest>)> handler) {
  handler(std::move(request));
}

ZRKURLSessionDataTask::ZRKURLSessionDataTask(std::shared_ptr<detail::TaskState> state) : state_(std::move(state)) {}

ZRKURLSessionDataTask::~ZRKURLSessionDataTask() = default;

void ZRKURLSessionDataTask::resume() {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->state != State::suspended) return;
    state_->state = State::running;
  }
  auto& loop = detail::CurlLoop::shared();
  loop.post([&loop, task = shared_from_this(), state = state_, request = state_->original]() mutable {
    state->startedAt = std::chrono::steady_clock::now();
    loop.start(std::move(task), state, std::move(request));
  });
}

void ZRKURLSessionDataTask::cancel() {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->state == State::completed) return;
  }
  state_->finish(std::nullopt, nullptr,
                 detail::transportError(ZRKURLErrorCancelled, "The request was cancelled.", currentRequest().URL()));
  auto& loop = detail::CurlLoop::shared();
  loop.post([&loop, id = state_->identifier] { loop.remove(id); });
}

ZRKURLSessionDataTask::State ZRKURLSessionDataTask::state() const {
  std::lock_guard lock(state_->mutex);
  return state_->state;
}

std::uint64_t ZRKURLSessionDataTask::taskIdentifier() const { return state_->identifier; }

const ZRKURLRequest& ZRKURLSessionDataTask::originalRequest() const { return state_->original; }

ZRKURLRequest ZRKURLSessionDataTask::currentRequest() const {
  std::lock_guard lock(state_->mutex);
  return state_->current;
}

ZRKURLSession::ZRKURLSession(std::shared_ptr<ZRKURLSessionConfiguration> configuration,
                             std::weak_ptr<ZRKURLSessionDelegate> delegate, ZRKDispatchQueue* delegateQueue)
    : configuration_(configuration ? std::move(configuration) : ZRKURLSessionConfiguration::defaultSessionConfiguration()),
      delegate_(std::move(delegate)),
      delegateQueue_(delegateQueue ? delegateQueue : &ZRKGlobalQueue::globalQueue()) {}

std::shared_ptr<ZRKURLSession> ZRKURLSession::sessionWithConfiguration(
    std::shared_ptr<ZRKURLSessionConfiguration> configuration, std::weak_ptr<ZRKURLSessionDelegate> delegate,
    ZRKDispatchQueue* delegateQueue) {
  return std::shared_ptr<ZRKURLSession>(
      new ZRKURLSession(std::move(configuration), std::move(delegate), delegateQueue));
}

std::shared_ptr<ZRKURLSessionDataTask> ZRKURLSession::dataTaskWithRequest(
    ZRKURLRequest request, ZRKURLSessionDataTask::CompletionHandler handler) {
  static std::atomic<std::uint64_t> nextIdentifier{1};
  auto state = std::make_shared<detail::TaskState>(shared_from_this(), std::move(request), std::move(handler),
                                                   nextIdentifier.fetch_add(1));
  return std::shared_ptr<ZRKURLSessionDataTask>(new ZRKURLSessionDataTask(std::move(state)));
}

}  // namespace zrk
