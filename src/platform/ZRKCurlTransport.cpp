// The default transport: libcurl's multi interface on one I/O thread shared
// by every session. It moves one hop and reports it; the session above
// decides everything else.
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/ZRKText.h"
#include "platform/ZRKTransportError.h"
#include "zrk/ZRKURLSession.h"
#include "zrk/ZRKURLTransport.h"

namespace zrk {
namespace detail {

ZRKError transportError(long code, const std::string& message, const std::optional<ZRKURL>& url) {
  ZRKJson info = ZRKJson::object();
  info[ZRKLocalizedDescriptionKey] =
      message.empty() ? std::string(curl_easy_strerror(static_cast<CURLcode>(code))) : message;
  if (url) info[ZRKURLErrorFailingURLStringKey] = url->absoluteString();
  return ZRKError(ZRKURLErrorDomain, code, std::move(info));
}

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

// One exchange on the wire. Owned by the I/O thread.
struct Transfer {
  std::uint64_t identifier = 0;
  std::shared_ptr<ZRKURLTransportClient> client;
  std::optional<ZRKURL> url;  // for the errors it reports
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;  // the request body; curl reads it in place
  curl_off_t lastMoved = -1;
  bool stopped = false;  // the client asked to stop
  bool answered = false;  // a byte of an answer arrived
  bool resent = false;    // gone out again on a connection of its own
  // The blank line that ends the final header block has arrived.
  bool headersComplete = false;
  std::string httpVersion;
  // As they arrive; combined once at the end, so that many distinct names
  // cost linear time.
  std::vector<ZRKHTTPHeaderFields::Field> responseFields;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headers) curl_slist_free_all(headers);
  }
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  if (!t->client->didReceiveData(std::string_view(data, n))) {
    t->stopped = true;
    return 0;
  }
  return n;
}

int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto* t = static_cast<Transfer*>(user);
  if (downloaded + uploaded != t->lastMoved) {
    t->lastMoved = downloaded + uploaded;
    t->client->didMoveBytes();
  }
  return 0;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  const std::string_view line(data, n);
  t->answered = true;
  t->client->didMoveBytes();
  if (line.substr(0, 5) == "HTTP/") {
    // A new status line: an interim 1xx answer's fields are not the final ones.
    t->responseFields.clear();
    t->httpVersion = std::string(line.substr(0, line.find(' ')));
    t->headersComplete = false;
    return n;
  }
  if (line == "\r\n" || line == "\n") {
    t->headersComplete = true;
    curl_off_t length = -1;
    if (curl_easy_getinfo(t->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK && length > 0) {
      t->client->willReceiveBytes(static_cast<std::size_t>(length));
    }
    return n;
  }
  if (line.front() == ' ' || line.front() == '\t') {
    // An obsolete folded line continues the previous field.
    if (!t->responseFields.empty()) {
      auto& value = t->responseFields.back().second;
      value += ' ';
      value += trim(line);
    }
    return n;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return n;
  const std::string name(trim(line.substr(0, colon)));
  if (name.empty()) return n;
  t->responseFields.emplace_back(name, std::string(trim(line.substr(colon + 1))));
  return n;
}

class CurlLoop {
 public:
  static CurlLoop& shared() {
    // Leaked on purpose: transfers may be in flight while the process exits.
    static CurlLoop* const loop = new CurlLoop;
    return *loop;
  }

  // A transfer to add, or the identifier of one to remove.
  struct Command {
    std::shared_ptr<Transfer> start;
    std::uint64_t remove = 0;
  };

  void post(Command command) {
    bool first;
    {
      std::lock_guard lock(mutex_);
      first = commands_.empty();
      commands_.push_back(std::move(command));
    }
    // The I/O thread takes every queued command per wake-up: only the first
    // of a batch wakes it.
    if (first) curl_multi_wakeup(multi_);
  }

  // I/O thread only.
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

  CURLM* multi_ = nullptr;
  std::mutex mutex_;
  std::vector<Command> commands_;  // guarded by mutex_
  bool stopping_ = false;                        // guarded by mutex_
  std::unordered_map<std::uint64_t, std::shared_ptr<Transfer>> transfers_;  // I/O thread only
  std::thread thread_;
};

void CurlLoop::run() {
  std::vector<Command> commands;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      commands.swap(commands_);
    }
    for (auto& command : commands) {
      if (command.start) {
        curl_multi_add_handle(multi_, command.start->easy);
        const auto identifier = command.start->identifier;
        transfers_[identifier] = std::move(command.start);
      } else {
        remove(command.remove);
      }
    }
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

// Sets up the easy handle on the caller's thread, so that the one I/O
// thread only moves bytes.
void configure(Transfer* t, const ZRKURLRequest& request, double connectTimeout, const std::string& caInfoPath) {
  t->easy = curl_easy_init();
  CURL* e = t->easy;
  curl_easy_setopt(e, CURLOPT_PRIVATE, t);
  curl_easy_setopt(e, CURLOPT_URL, t->url->absoluteString().c_str());
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t->errorBuffer);
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, t);
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(e, CURLOPT_HEADERDATA, t);
  curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(e, CURLOPT_XFERINFODATA, t);
  curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(e, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
  if (!caInfoPath.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, caInfoPath.c_str());
  // Connecting has a limit of its own, never longer than the idle time-out.
  long connectMs = static_cast<long>(connectTimeout * 1000);
  const double idle = request.timeoutInterval();
  if (idle > 0) connectMs = std::min(connectMs > 0 ? connectMs : LONG_MAX, static_cast<long>(idle * 1000));
  if (connectMs > 0) curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, connectMs);

  const std::string& method = request.HTTPMethod();
  const bool hasBody = request.HTTPBody().has_value();
  if (hasBody) t->body = *request.HTTPBody();
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
  if (!hasBody && !request.valueForHTTPHeaderField("Content-Type")) {
    t->headers = curl_slist_append(t->headers, "Content-Type:");
  }
  std::string line;
  for (const auto& [name, value] : request.allHTTPHeaderFields().fields()) {
    line.assign(name);
    line += value.empty() ? ";" : ": ";
    line += value;
    t->headers = curl_slist_append(t->headers, line.c_str());
  }
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers);
}

// Whether a failed attempt is one the server cannot have processed: no
// byte of an answer came, and either the request went out on a connection
// an earlier request had used that then died (HTTP/1.1 keep-alive closed,
// HTTP/2 GOAWAY or a refused stream), or libcurl's own retries of such
// deaths ran out. Proxies close connections after a number of requests, so
// this is routine; a request the server may have seen is never sent again.
bool neverProcessed(CURL* easy, CURLcode result, const Transfer& t) {
  if (t.answered || t.resent || t.stopped) return false;
  if (result == CURLE_SEND_ERROR && std::string_view(t.errorBuffer).starts_with("Connection died")) return true;
  if (result != CURLE_SEND_ERROR && result != CURLE_RECV_ERROR && result != CURLE_GOT_NOTHING && result != CURLE_HTTP2) {
    return false;
  }
  long connects = -1;
  return curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK && connects == 0;
}

void CurlLoop::done(CURL* easy, CURLcode result) {
  Transfer* raw = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &raw);
  curl_multi_remove_handle(multi_, easy);
  auto it = transfers_.find(raw->identifier);
  if (it == transfers_.end()) return;
  if (result != CURLE_OK && neverProcessed(easy, result, *raw)) {
    // Once more, first on a new connection: nothing can refuse it there.
    raw->resent = true;
    raw->responseFields.clear();
    raw->errorBuffer[0] = '\0';
    curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    curl_multi_add_handle(multi_, easy);
    return;
  }
  const std::shared_ptr<Transfer> t = std::move(it->second);
  transfers_.erase(it);
  if (t->stopped) return;

  if (result == CURLE_OK && !t->headersComplete) {
    // The connection ended inside the header block: no answer arrived.
    t->client->didComplete(nullptr, transportError(ZRKURLErrorBadServerResponse,
                                                   "The server's answer ended within its header.", t->url));
    return;
  }
  if (result != CURLE_OK) {
    t->client->didComplete(nullptr, transportError(static_cast<long>(result), t->errorBuffer, t->url));
    return;
  }
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  t->client->didComplete(std::make_shared<const ZRKHTTPURLResponse>(std::move(t->url), status, t->httpVersion,
                                                                    ZRKHTTPHeaderFields(std::move(t->responseFields))),
                         std::nullopt);
}

class CurlExchange final : public ZRKURLTransportExchange {
 public:
  explicit CurlExchange(std::uint64_t identifier) : identifier_(identifier) {}
  void cancel() override {
    CurlLoop::shared().post({nullptr, identifier_});
  }

 private:
  const std::uint64_t identifier_;
};

class CurlTransport final : public ZRKURLTransport {
 public:
  std::shared_ptr<ZRKURLTransportExchange> start(const ZRKURLRequest& request,
                                                 const ZRKURLSessionConfiguration& configuration,
                                                 std::shared_ptr<ZRKURLTransportClient> client) override {
    static std::atomic<std::uint64_t> nextIdentifier{1};
    auto t = std::make_shared<Transfer>();
    t->identifier = nextIdentifier.fetch_add(1);
    t->client = std::move(client);
    t->url = request.URL();
    auto& loop = CurlLoop::shared();  // libcurl's global set-up comes first
    configure(t.get(), request, configuration.connectTimeout, configuration.caInfoPath);
    auto exchange = std::make_shared<CurlExchange>(t->identifier);
    loop.post({std::move(t), 0});
    return exchange;
  }
};

}  // namespace
}  // namespace detail

std::shared_ptr<ZRKURLTransport> ZRKURLTransport::defaultTransport() {
  static const auto transport = std::make_shared<detail::CurlTransport>();
  return transport;
}

}  // namespace zrk
