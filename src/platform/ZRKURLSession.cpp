#include "zrk/ZRKURLSession.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

#include "platform/ZRKText.h"
#include "platform/ZRKTimer.h"
#include "platform/ZRKTransportError.h"

namespace zrk {
namespace detail {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kMaximumRedirects = 16;

bool hasForbiddenByte(std::string_view s) { return s.find_first_of(std::string_view("\r\n\0", 3)) != s.npos; }

// A name that goes on the wire as written: a token, no separators.
bool isHeaderName(std::string_view s) {
  if (s.empty()) return false;
  return std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return c > 0x20 && c < 0x7f && std::string_view(":()<>@,;\\\"/[]?={}").find(static_cast<char>(c)) ==
                                       std::string_view::npos;
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

Clock::duration seconds(double s) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

// The request as the transport gets it: header fields that cannot go on the
// wire dropped (a CR, LF or NUL would split the header block; the body's
// length is the transport's to state), the session's "User-Agent" added, and
// no body on a GET or HEAD.
ZRKURLRequest wireRequest(const ZRKURLRequest& request, const ZRKURLSessionConfiguration& configuration) {
  ZRKURLRequest wire(request.URL());
  wire.setHTTPMethod(request.HTTPMethod());
  const std::string& method = request.HTTPMethod();
  if (method != "GET" && method != "HEAD") wire.setHTTPBody(request.HTTPBody());
  for (const auto& [name, value] : request.allHTTPHeaderFields().fields()) {
    if (!isHeaderName(name) || hasForbiddenByte(value)) continue;
    if (equalsIgnoringCase(name, "Content-Length") || equalsIgnoringCase(name, "Transfer-Encoding")) continue;
    wire.addValue(value, name);
  }
  if (!configuration.userAgent.empty() && !hasForbiddenByte(configuration.userAgent) &&
      !wire.valueForHTTPHeaderField("User-Agent")) {
    wire.setValue(configuration.userAgent, "User-Agent");
  }
  return wire;
}

}  // namespace

struct TaskState : std::enable_shared_from_this<TaskState> {
  TaskState(std::shared_ptr<ZRKURLSession> s, ZRKURLRequest request,
            ZRKURLSessionDataTask::CompletionHandler h, std::uint64_t id)
      : session(std::move(s)), original(std::move(request)), identifier(id),
        handler(std::move(h)) {}

  const std::shared_ptr<ZRKURLSession> session;
  const ZRKURLRequest original;
  const std::uint64_t identifier;

  std::mutex mutex;
  ZRKURLSessionDataTask::State state = ZRKURLSessionDataTask::State::suspended;  // guarded by mutex
  std::optional<ZRKURLRequest> current;                   // guarded by mutex; a redirect's, else the original
  ZRKURLSessionDataTask::CompletionHandler handler;       // guarded by mutex; dropped once called
  // The hop on the wire now; a number that changes with every hop, so that
  // late calls of an earlier hop's transport are told apart.
  std::shared_ptr<ZRKURLTransportExchange> exchange;      // guarded by mutex
  std::uint64_t hop = 0;                                  // guarded by mutex
  std::string body;                                       // guarded by mutex
  Clock::time_point lastProgress;                         // guarded by mutex
  Clock::duration idle{};                                 // guarded by mutex
  int redirects = 0;                                      // guarded by mutex
  // Held from resume to completion: a task in flight keeps its delegate (a
  // client nobody else holds) alive for its redirects, and lets it go after.
  std::shared_ptr<ZRKURLSessionDelegate> delegate;        // guarded by mutex
  TimerHandle resourceTimer, idleTimer;                   // guarded by mutex

  const ZRKURLRequest& currentLocked() const { return current ? *current : original; }

  bool completed() {
    std::lock_guard lock(mutex);
    return state == ZRKURLSessionDataTask::State::completed;
  }

  // Ends the task once; stops the hop on the wire if there is one.
  void finish(std::optional<std::string> data, std::shared_ptr<const ZRKHTTPURLResponse> response,
              std::optional<ZRKError> error) {
    ZRKURLSessionDataTask::CompletionHandler h;
    std::shared_ptr<ZRKURLTransportExchange> wire;
    std::shared_ptr<ZRKURLSessionDelegate> keep;
    TimerHandle timers[2];
    {
      std::lock_guard lock(mutex);
      if (state == ZRKURLSessionDataTask::State::completed) return;
      state = ZRKURLSessionDataTask::State::completed;
      timers[0] = std::exchange(resourceTimer, {});
      timers[1] = std::exchange(idleTimer, {});
      h = std::move(handler);
      handler = nullptr;
      wire = std::move(exchange);
      exchange = nullptr;
      keep = std::move(delegate);
      ++hop;
    }
    if (wire) wire->cancel();
    for (const auto& timer : timers) cancelTimer(timer);
    if (!h) return;
    // The delegate goes with the completion, so it outlives the call.
    session->delegateQueue().async([h = std::move(h), data = std::move(data), response = std::move(response),
                                    error = std::move(error), keep = std::move(keep)]() mutable {
      h(std::move(data), std::move(response), std::move(error));
    });
  }

  // `redirected`: the request is a redirect's, not the original.
  void start(std::shared_ptr<ZRKURLSessionDataTask> task, const ZRKURLRequest& request, bool redirected = true);
  void redirect(std::shared_ptr<ZRKURLSessionDataTask> task, const ZRKURLRequest& from,
                std::shared_ptr<const ZRKHTTPURLResponse> response, std::string body, const ZRKURL& location);
  void watchIdle(std::uint64_t forHop, Clock::time_point deadline);
  // Keeps a time-out while the task runs; a task that has ended drops it.
  void keepTimer(TimerHandle TaskState::*slot, TimerHandle timer, std::optional<std::uint64_t> forHop = {}) {
    {
      std::lock_guard lock(mutex);
      if (state != ZRKURLSessionDataTask::State::completed && (!forHop || *forHop == hop)) {
        std::swap(this->*slot, timer);
      }
    }
    cancelTimer(timer);
  }
};

namespace {

// The session's side of one hop.
class Hop final : public ZRKURLTransportClient {
 public:
  Hop(std::shared_ptr<ZRKURLSessionDataTask> task, std::shared_ptr<TaskState> state, std::optional<ZRKURL> url,
      std::uint64_t number)
      : task_(std::move(task)), state_(std::move(state)), url_(std::move(url)), number_(number) {}

  void didMoveBytes() override {
    std::lock_guard lock(state_->mutex);
    if (state_->hop == number_) state_->lastProgress = Clock::now();
  }

  void willReceiveBytes(std::size_t expected) override {
    std::lock_guard lock(state_->mutex);
    if (state_->hop != number_) return;
    // Never more than the cap allows, whatever the server claims; and only a
    // hint, so a system that refuses the address space just goes without.
    const std::size_t cap = state_->session->configuration()->maximumResponseBytes;
    try {
      state_->body.reserve(cap ? std::min(expected, cap) : std::min<std::size_t>(expected, std::size_t{1} << 30));
    } catch (const std::bad_alloc&) {
    }
  }

  bool didReceiveData(std::string_view bytes) override {
    {
      std::lock_guard lock(state_->mutex);
      if (state_->hop != number_) return false;
      state_->lastProgress = Clock::now();
      const std::size_t cap = state_->session->configuration()->maximumResponseBytes;
      if (!cap || state_->body.size() + bytes.size() <= cap) {
        state_->body.append(bytes);
        return true;
      }
    }
    state_->finish(std::nullopt, nullptr,
                   transportError(ZRKURLErrorResponseTooLarge, "The response body is larger than the session accepts.",
                                  url_));
    return false;
  }

  void didComplete(std::shared_ptr<const ZRKHTTPURLResponse> response, std::optional<ZRKError> error) override {
    std::string body;
    const long status = response ? response->statusCode() : 0;
    const bool redirected =
        !error && (status == 301 || status == 302 || status == 303 || status == 307 || status == 308);
    std::optional<ZRKURLRequest> from;  // the hop's request, for a redirect
    {
      std::lock_guard lock(state_->mutex);
      if (state_->hop != number_) return;
      // The hop is over: its late calls and its idle watch stop counting.
      ++state_->hop;
      state_->exchange = nullptr;
      body = std::move(state_->body);
      state_->body.clear();
      if (redirected) from = state_->currentLocked();
    }
    if (error || !response) {
      state_->finish(std::nullopt, nullptr,
                     error ? std::move(*error)
                           : transportError(ZRKURLErrorBadServerResponse, "The transport gave no answer.",
                                            url_));
      return;
    }
    if (redirected) {
      if (const auto location = response->valueForHTTPHeaderField("Location")) {
        if (auto next = url_->URLByResolvingReference(*location)) {
          state_->redirect(std::move(task_), *from, std::move(response), std::move(body), *next);
          return;
        }
      }
    }
    state_->finish(std::move(body), std::move(response), std::nullopt);
  }

 private:
  std::shared_ptr<ZRKURLSessionDataTask> task_;
  const std::shared_ptr<TaskState> state_;
  const std::optional<ZRKURL> url_;  // the hop's, as the caller sees it
  const std::uint64_t number_;
};

}  // namespace

void TaskState::start(std::shared_ptr<ZRKURLSessionDataTask> task, const ZRKURLRequest& request, bool redirected) {
  const auto& configuration = *session->configuration();
  const std::optional<ZRKURL> url = request.URL();
  {
    std::lock_guard lock(mutex);
    if (state == ZRKURLSessionDataTask::State::completed) return;
    if (redirected) current = request;  // else it is the original already
  }
  if (!url) {
    finish(std::nullopt, nullptr, transportError(ZRKURLErrorBadURL, "The URL is missing or invalid.", url));
    return;
  }
  const auto scheme = url->scheme().value_or("");
  if (!equalsIgnoringCase(scheme, "http") && !equalsIgnoringCase(scheme, "https")) {
    finish(std::nullopt, nullptr,
           transportError(ZRKURLErrorUnsupportedURL, "Only http and https URLs are supported.", url));
    return;
  }

  const double idleSeconds =
      request.timeoutInterval() > 0 ? request.timeoutInterval() : configuration.timeoutIntervalForRequest;
  ZRKURLRequest wire = wireRequest(request, configuration);
  wire.setTimeoutInterval(idleSeconds);
  std::uint64_t number;
  {
    std::lock_guard lock(mutex);
    if (state == ZRKURLSessionDataTask::State::completed) return;
    number = ++hop;
    body.clear();
    lastProgress = Clock::now();
    idle = idleSeconds > 0 ? seconds(idleSeconds) : Clock::duration::zero();
  }
  const auto transport = configuration.transport ? configuration.transport : ZRKURLTransport::defaultTransport();
  auto client = std::make_shared<Hop>(std::move(task), shared_from_this(), url, number);
  auto started = transport->start(wire, configuration, std::move(client));
  bool stale;
  {
    std::lock_guard lock(mutex);
    stale = hop != number;
    if (!stale) exchange = started;
  }
  if (stale && started) started->cancel();  // cancelled or answered while it started
  if (idleSeconds > 0) watchIdle(number, Clock::now() + seconds(idleSeconds));
}

void TaskState::watchIdle(std::uint64_t forHop, Clock::time_point deadline) {
  const TimerHandle timer = scheduleAt(deadline, [weak = weak_from_this(), forHop] {
    const auto self = weak.lock();
    if (!self) return;
    Clock::time_point next;
    std::optional<ZRKURL> url;
    {
      std::lock_guard lock(self->mutex);
      if (self->hop != forHop) return;
      next = self->lastProgress + self->idle;
      url = self->currentLocked().URL();
    }
    if (Clock::now() < next) {
      self->watchIdle(forHop, next);
      return;
    }
    self->finish(std::nullopt, nullptr,
                 transportError(ZRKURLErrorTimedOut, "No data moved within the request's time-out.", url));
  });
  keepTimer(&TaskState::idleTimer, timer, forHop);
}

void TaskState::redirect(std::shared_ptr<ZRKURLSessionDataTask> task, const ZRKURLRequest& from,
                         std::shared_ptr<const ZRKHTTPURLResponse> response, std::string body,
                         const ZRKURL& location) {
  bool tooMany;
  {
    std::lock_guard lock(mutex);
    tooMany = redirects >= kMaximumRedirects;
    if (!tooMany) ++redirects;
  }
  if (tooMany) {
    finish(std::nullopt, nullptr, transportError(ZRKURLErrorTooManyRedirects, "Too many redirects.", from.URL()));
    return;
  }
  ZRKURLRequest proposal = from;
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
  if (!sameOrigin(*from.URL(), location)) {
    proposal.setValue(std::nullopt, "Authorization");
    proposal.setValue(std::nullopt, "Cookie");
  }

  auto self = shared_from_this();
  auto decided = [self, task, response, body = std::make_shared<std::string>(std::move(body))](
                     std::optional<ZRKURLRequest> next) mutable {
    if (next) {
      self->start(std::move(task), std::move(*next));
    } else {
      self->finish(std::move(*body), std::move(response), std::nullopt);
    }
  };
  std::shared_ptr<ZRKURLSessionDelegate> delegate;
  {
    std::lock_guard lock(mutex);
    delegate = this->delegate;
  }
  if (!delegate) {
    decided(std::move(proposal));
    return;
  }
  session->delegateQueue().async([delegate = std::move(delegate), task = std::move(task), self, response,
                                  proposal = std::move(proposal), decided = std::move(decided)]() mutable {
    // The delegate must answer once; a second answer is ignored.
    auto once = std::make_shared<std::atomic<bool>>(false);
    auto handler = [once, decided = std::move(decided)](std::optional<ZRKURLRequest> next) mutable {
      if (!once->exchange(true)) decided(std::move(next));
    };
    delegate->willPerformHTTPRedirection(*self->session, *task, *response, std::move(proposal), std::move(handler));
  });
}

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
    state_->delegate = state_->session->delegate();
  }
  const double limit = state_->session->configuration()->timeoutIntervalForResource;
  if (limit > 0) {
    const auto timer = detail::scheduleAt(
        std::chrono::steady_clock::now() + detail::seconds(limit), [weak = std::weak_ptr(state_)] {
          if (const auto state = weak.lock()) {
            state->finish(std::nullopt, nullptr,
                          detail::transportError(ZRKURLErrorTimedOut, "The request took longer than the session allows.",
                                                 state->original.URL()));
          }
        });
    state_->keepTimer(&detail::TaskState::resourceTimer, timer);
  }
  state_->start(shared_from_this(), state_->original, false);
}

void ZRKURLSessionDataTask::cancel() {
  state_->finish(std::nullopt, nullptr,
                 detail::transportError(ZRKURLErrorCancelled, "The request was cancelled.", currentRequest().URL()));
}

ZRKURLSessionDataTask::State ZRKURLSessionDataTask::state() const {
  std::lock_guard lock(state_->mutex);
  return state_->state;
}

std::uint64_t ZRKURLSessionDataTask::taskIdentifier() const { return state_->identifier; }

const ZRKURLRequest& ZRKURLSessionDataTask::originalRequest() const { return state_->original; }

ZRKURLRequest ZRKURLSessionDataTask::currentRequest() const {
  std::lock_guard lock(state_->mutex);
  return state_->currentLocked();
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
