// The URL session on libcurl's multi interface. One thread per session drives every transfer
// and calls every completion; other threads only queue commands under the session's mutex and
// wake the thread with curl_multi_wakeup.
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/activity.h"
#include "platform/log.h"
#include "platform/url_session.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "URLSession";
// Upper bound of one wait of the session thread; curl's own timers and wake-ups end it sooner.
constexpr int kPollIntervalMs = 1000;

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

struct MultiDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using SlistHandle = std::unique_ptr<curl_slist, SlistDeleter>;

// curl_global_init is not thread-safe against itself and must precede every other call.
bool initCurlOnce() {
  static std::once_flag once;
  static CURLcode result = CURLE_OK;
  std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
  return result == CURLE_OK;
}

URLErrorCode codeForCurl(CURLcode code) {
  switch (code) {
    case CURLE_URL_MALFORMAT:
      return URLErrorCode::badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return URLErrorCode::unsupportedURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URLErrorCode::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return URLErrorCode::cannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return URLErrorCode::timedOut;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return URLErrorCode::networkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return URLErrorCode::badServerResponse;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return URLErrorCode::serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_CLIENTCERT:
      return URLErrorCode::secureConnectionFailed;
    case CURLE_READ_ERROR:
    case CURLE_FILE_COULDNT_READ_FILE:
      return URLErrorCode::cannotOpenFile;
    default:
      return URLErrorCode::unknown;
  }
}

// Keeps curl's code and its detailed message, so that both reach the logs.
Error errorForCurl(CURLcode code, const char* detail) {
  std::string description = "curl error ";
  description += std::to_string(static_cast<int>(code));
  description += ": ";
  description += (detail != nullptr && detail[0] != '\0') ? detail : curl_easy_strerror(code);
  return urlError(codeForCurl(code), std::move(description));
}

Error idleError(std::chrono::milliseconds limit) {
  return urlError(URLErrorCode::timedOut,
                  "no byte moved for " + std::to_string(limit.count()) + " ms");
}

Error cancelledError() {
  return urlError(URLErrorCode::cancelled, "cancelled");
}

// A created task that the session thread has not started yet.
struct TaskRecord {
  URLRequest request;
  DataTaskCompletion completion;
};

// One running request. Owned by the session thread; its address is handed to curl's callbacks,
// so it never moves while the easy handle is in the multi handle.
struct Transfer {
  std::uint64_t id = 0;
  std::string hostKey;
  bool active = false;  // handed to the multi handle
  URLRequest request;   // holds the body that curl reads without copying
  DataTaskCompletion completion;
  EasyHandle easy;
  SlistHandle headerList;
  Bytes received;
  HTTPHeaders responseHeaders;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  // The idle time-out: bytes moved either way so far, when that count last changed, and
  // whether the transfer was ended for standing still.
  std::chrono::milliseconds idleLimit{0};
  curl_off_t moved = 0;
  std::chrono::steady_clock::time_point lastMoved;
  bool idle = false;
};

// NOTE: the kernel takes up to megabytes of an upload into its send buffer at once, and the
// progress that curl reports counts them as moved; on a slow uplink draining that buffer takes
// longer than the idle time-out, which would then end every large upload at its last bytes.
// Keeping little unsent data in the socket makes the progress follow what the network takes.
constexpr int kUnsentBytesLimit = 64 * 1024;

int onSocket(void*, curl_socket_t socket, curlsocktype purpose) {
  if (purpose == CURLSOCKTYPE_IPCXN) {
    ::setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentBytesLimit,
                 sizeof kUnsentBytesLimit);
  }
  return CURL_SOCKOPT_OK;
}

int onProgress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
  auto* transfer = static_cast<Transfer*>(user);
  const auto now = std::chrono::steady_clock::now();
  if (received + sent != transfer->moved) {
    transfer->moved = received + sent;
    transfer->lastMoved = now;
    return 0;
  }
  if (now - transfer->lastMoved < transfer->idleLimit) {
    return 0;
  }
  transfer->idle = true;
  return 1;  // curl ends the transfer with CURLE_ABORTED_BY_CALLBACK
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
  transfer->received.insert(transfer->received.end(), data, data + length);
  return length;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
  std::string_view line(data, length);
  // NOTE: an interim response (100 Continue) is followed by the final one; only the final
  // response's fields are reported.
  if (line.starts_with("HTTP/")) {
    transfer->responseHeaders.clear();
    return length;
  }
  if (line.empty()) {
    return length;
  }
  if ((line.front() == ' ' || line.front() == '\t') && !transfer->responseHeaders.empty()) {
    auto& value = transfer->responseHeaders.back().second;
    value += ' ';
    value += trim(line);
    return length;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) {
    return length;
  }
  transfer->responseHeaders.emplace_back(std::string(trim(line.substr(0, colon))),
                                         std::string(trim(line.substr(colon + 1))));
  return length;
}

bool hasLineBreak(std::string_view text) {
  return text.find_first_of("\r\n") != std::string_view::npos;
}

class SessionCore;

class CurlDataTask final : public URLSessionDataTask {
 public:
  CurlDataTask(std::weak_ptr<SessionCore> core, std::uint64_t id)
      : core_(std::move(core)), id_(id) {}
  void resume() override;
  void cancel() override;

 private:
  const std::weak_ptr<SessionCore> core_;
  const std::uint64_t id_;
};

// Shared by the session object, its thread and (weakly) its tasks, so that a task may outlive
// its session and a session may be released on its own thread.
class SessionCore : public std::enable_shared_from_this<SessionCore> {
 public:
  explicit SessionCore(URLSessionConfiguration configuration)
      : configuration_(configuration), multi_(curl_multi_init()) {
    if (multi_) {
      curl_multi_setopt(
          multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS,
          static_cast<long>(std::max(1, configuration_.httpMaximumConnectionsPerHost)));
      curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
    }
  }

  bool valid() const { return static_cast<bool>(multi_); }

  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, DataTaskCompletion completion) {
    // A request is work under way until its completion has run, including whatever the
    // completion's captures queue when they are released.
    completion = [busy = std::make_shared<activity::Busy>(), inner = std::move(completion)](
                     std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                     std::optional<Error> error) mutable {
      auto run = std::move(inner);
      if (run) {
        run(std::move(data), std::move(response), std::move(error));
      }
    };
    std::uint64_t id = 0;
    bool refused = false;
    {
      std::lock_guard lock(mutex_);
      id = ++lastTaskId_;
      waiting_.emplace(id, TaskRecord{std::move(request), std::move(completion)});
      // NOTE: a task made after invalidation still completes exactly once, with "cancelled".
      if (invalidated_) {
        commands_.push_back({CommandKind::cancel, id});
        refused = true;
      }
    }
    if (refused) {
      wake();
    }
    return std::make_shared<CurlDataTask>(weak_from_this(), id);
  }

  void resume(std::uint64_t id) { post({CommandKind::start, id}); }
  void cancel(std::uint64_t id) { post({CommandKind::cancel, id}); }

  void invalidateAndCancel() {
    {
      std::lock_guard lock(mutex_);
      invalidated_ = true;
      commands_.push_back({CommandKind::cancelAll, 0});
    }
    wake();
  }

  // Makes the thread complete everything with "cancelled" and leave its loop.
  void shutdown() {
    {
      std::lock_guard lock(mutex_);
      invalidated_ = true;
      stopping_ = true;
    }
    wake();
  }

  void run();

 private:
  enum class CommandKind { start, cancel, cancelAll };
  struct Command {
    CommandKind kind;
    std::uint64_t id;
  };

  void post(Command command) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) {
        return;
      }
      commands_.push_back(command);
    }
    wake();
  }

  void wake() {
    if (multi_) {
      curl_multi_wakeup(multi_.get());
    }
  }

  std::optional<TaskRecord> takeWaiting(std::uint64_t id) {
    std::lock_guard lock(mutex_);
    auto found = waiting_.find(id);
    if (found == waiting_.end()) {
      return std::nullopt;
    }
    TaskRecord record = std::move(found->second);
    waiting_.erase(found);
    return record;
  }

  void start(std::uint64_t id, TaskRecord record);
  Status configure(Transfer& transfer);
  void cancelTransfer(std::uint64_t id);
  void cancelEverything();
  void finishDone();
  void admitQueued();
  std::unique_ptr<Transfer> detach(std::map<std::uint64_t, std::unique_ptr<Transfer>>::iterator it);

  const URLSessionConfiguration configuration_;
  const MultiHandle multi_;  // curl_multi_wakeup is the only call made on it off the thread

  std::mutex mutex_;  // owns the fields up to the next blank line
  std::uint64_t lastTaskId_ = 0;
  std::map<std::uint64_t, TaskRecord> waiting_;
  std::deque<Command> commands_;
  bool invalidated_ = false;
  bool stopping_ = false;

  // Owned by the session thread: every started, unfinished transfer; the ids waiting for a
  // connection, per host, in the order they were started; the transfers handed to curl, per host.
  std::map<std::uint64_t, std::unique_ptr<Transfer>> transfers_;
  std::map<std::string, std::deque<std::uint64_t>> queued_;
  std::map<std::string, int> active_;
};

void CurlDataTask::resume() {
  if (auto core = core_.lock()) {
    core->resume(id_);
  }
}

void CurlDataTask::cancel() {
  if (auto core = core_.lock()) {
    core->cancel(id_);
  }
}

Status SessionCore::configure(Transfer& transfer) {
  CURL* easy = transfer.easy.get();
  const URLRequest& request = transfer.request;
  for (const auto& [field, value] : request.headers) {
    if (field.empty() || hasLineBreak(field) || hasLineBreak(value) ||
        field.find(':') != std::string::npos) {
      return urlError(URLErrorCode::badURL, "invalid header field \"" + field + "\"");
    }
  }

  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str()) != CURLE_OK) {
    return urlError(URLErrorCode::badURL, "URL rejected: " + request.url);
  }
  // Only web URLs: a "file:" or other scheme never reaches the file system or another service.
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  // A proxy from the environment is honoured, except for the loopback interface.
  curl_easy_setopt(easy, CURLOPT_NOPROXY, "127.0.0.1,localhost,::1");
  // NOTE: curl starts these clocks when the request gets its connection (see admitQueued), so
  // requests queued behind the one connection per host do not use up their time while they
  // wait. The request time-out counts only time without progress, which curl's own time-outs
  // cannot express to the millisecond; the progress callback does.
  const auto idleMs = static_cast<long>(configuration_.timeoutIntervalForRequest.count());
  transfer.idleLimit = configuration_.timeoutIntervalForRequest;
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, idleMs);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS,
                   static_cast<long>(configuration_.timeoutIntervalForResource.count()));
  curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, onSocket);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);

  const std::string& method = request.httpMethod;
  if (method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else {
    static const char kEmpty[] = "";
    const bool hasBody = request.httpBody.has_value() && !request.httpBody->empty();
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(hasBody ? request.httpBody->size() : 0));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                     hasBody ? reinterpret_cast<const char*>(request.httpBody->data()) : kEmpty);
    if (method != "POST") {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }
  }

  curl_slist* list = nullptr;
  auto append = [&list](const std::string& line) {
    curl_slist* grown = curl_slist_append(list, line.c_str());
    if (grown == nullptr) {
      return false;
    }
    list = grown;
    return true;
  };
  bool appended = true;
  for (const auto& [field, value] : request.headers) {
    // "Name;" is curl's way of sending a field with an empty value ("Name:" would remove it).
    appended = appended && append(value.empty() ? field + ";" : field + ": " + value);
  }
  // A body is sent at once: waiting for "100 Continue" costs a round trip for nothing.
  appended = appended && append("Expect:");
  transfer.headerList.reset(list);
  if (!appended) {
    return urlError(URLErrorCode::unknown, "out of memory while adding header fields");
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList.get());
  return std::nullopt;
}

// "scheme|host|port|", the unit that the connection limit counts; empty when the URL does not
// parse (curl then fails the request at once).
std::string hostKey(const std::string& url) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return {};
  }
  std::string key;
  for (CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
    char* text = nullptr;
    if (curl_url_get(parsed.get(), part, &text, CURLU_DEFAULT_PORT) == CURLUE_OK) {
      key += text;
      curl_free(text);
    }
    key += '|';
  }
  return key;
}

void SessionCore::start(std::uint64_t id, TaskRecord record) {
  auto transfer = std::make_unique<Transfer>();
  transfer->id = id;
  transfer->request = std::move(record.request);
  transfer->completion = std::move(record.completion);
  transfer->hostKey = hostKey(transfer->request.url);
  transfer->easy.reset(curl_easy_init());
  Status failure;
  if (!transfer->easy) {
    failure = urlError(URLErrorCode::unknown, "curl_easy_init failed");
  } else {
    failure = configure(*transfer);
  }
  if (failure) {
    logError(kLogCategory, "Request not started: %{public}@", {failure->text()});
    auto completion = std::move(transfer->completion);
    transfer.reset();
    completion(std::nullopt, std::nullopt, std::move(failure));
    return;
  }
  queued_[transfer->hostKey].push_back(id);
  transfers_.emplace(id, std::move(transfer));
}

// NOTE: curl would also hold back transfers beyond the connection limit, but its time-out
// clock runs while they wait; handing it only as many as may run keeps the time-out per
// request, however long the queue in front of it.
void SessionCore::admitQueued() {
  const int limit = std::max(1, configuration_.httpMaximumConnectionsPerHost);
  for (auto host = queued_.begin(); host != queued_.end();) {
    auto& [key, ids] = *host;
    while (!ids.empty() && (key.empty() || active_[key] < limit)) {
      const std::uint64_t id = ids.front();
      ids.pop_front();
      auto found = transfers_.find(id);
      if (found == transfers_.end()) {
        continue;  // cancelled while it waited
      }
      const CURLMcode added = curl_multi_add_handle(multi_.get(), found->second->easy.get());
      if (added != CURLM_OK) {
        auto transfer = detach(found);
        auto completion = std::move(transfer->completion);
        transfer.reset();
        completion(std::nullopt, std::nullopt,
                   urlError(URLErrorCode::unknown,
                            std::string("curl_multi_add_handle: ") + curl_multi_strerror(added)));
        continue;
      }
      found->second->active = true;
      found->second->lastMoved = std::chrono::steady_clock::now();
      ++active_[key];
    }
    host = ids.empty() ? queued_.erase(host) : std::next(host);
  }
}

std::unique_ptr<Transfer> SessionCore::detach(
    std::map<std::uint64_t, std::unique_ptr<Transfer>>::iterator it) {
  std::unique_ptr<Transfer> transfer = std::move(it->second);
  transfers_.erase(it);
  if (transfer->active) {
    curl_multi_remove_handle(multi_.get(), transfer->easy.get());
    auto count = active_.find(transfer->hostKey);
    if (count != active_.end() && --count->second <= 0) {
      active_.erase(count);
    }
  }
  return transfer;
}

void SessionCore::cancelTransfer(std::uint64_t id) {
  if (auto record = takeWaiting(id)) {
    record->completion(std::nullopt, std::nullopt, cancelledError());
    return;
  }
  auto found = transfers_.find(id);
  if (found == transfers_.end()) {
    return;  // already completed
  }
  auto transfer = detach(found);
  auto completion = std::move(transfer->completion);
  transfer.reset();
  completion(std::nullopt, std::nullopt, cancelledError());
}

void SessionCore::cancelEverything() {
  std::map<std::uint64_t, TaskRecord> waiting;
  {
    std::lock_guard lock(mutex_);
    waiting.swap(waiting_);
  }
  // Completed in the order the tasks were made.
  std::map<std::uint64_t, DataTaskCompletion> completions;
  for (auto& [id, record] : waiting) {
    completions.emplace(id, std::move(record.completion));
  }
  while (!transfers_.empty()) {
    auto transfer = detach(transfers_.begin());
    completions.emplace(transfer->id, std::move(transfer->completion));
  }
  queued_.clear();
  for (auto& [id, completion] : completions) {
    completion(std::nullopt, std::nullopt, cancelledError());
  }
}

void SessionCore::finishDone() {
  int remaining = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &remaining)) {
    if (message->msg != CURLMSG_DONE) {
      continue;
    }
    const CURLcode result = message->data.result;
    Transfer* raw = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &raw);
    if (raw == nullptr) {
      continue;
    }
    auto found = transfers_.find(raw->id);
    if (found == transfers_.end()) {
      continue;
    }
    auto transfer = detach(found);
    auto completion = std::move(transfer->completion);
    if (result != CURLE_OK) {
      Error error = transfer->idle ? idleError(transfer->idleLimit)
                                   : errorForCurl(result, transfer->errorBuffer);
      transfer.reset();
      completion(std::nullopt, std::nullopt, std::move(error));
      continue;
    }
    HTTPURLResponse response;
    long status = 0;
    curl_easy_getinfo(transfer->easy.get(), CURLINFO_RESPONSE_CODE, &status);
    response.statusCode = static_cast<int>(status);
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(transfer->easy.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    response.url = effectiveUrl != nullptr ? effectiveUrl : transfer->request.url;
    response.headerFields = std::move(transfer->responseHeaders);
    Bytes data = std::move(transfer->received);
    transfer.reset();
    completion(std::move(data), std::move(response), std::nullopt);
  }
}

void SessionCore::run() {
  for (;;) {
    std::deque<Command> commands;
    bool stopping = false;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
      stopping = stopping_;
    }
    if (stopping) {
      cancelEverything();
      return;
    }
    for (const Command& command : commands) {
      switch (command.kind) {
        case CommandKind::start:
          if (auto record = takeWaiting(command.id)) {
            start(command.id, std::move(*record));
          }
          break;
        case CommandKind::cancel:
          cancelTransfer(command.id);
          break;
        case CommandKind::cancelAll:
          cancelEverything();
          break;
      }
    }
    admitQueued();
    int running = 0;
    const CURLMcode performed = curl_multi_perform(multi_.get(), &running);
    if (performed != CURLM_OK) {
      logError(kLogCategory, "curl_multi_perform: %{public}@", {curl_multi_strerror(performed)});
    }
    finishDone();
    admitQueued();
    const CURLMcode polled = curl_multi_poll(multi_.get(), nullptr, 0, kPollIntervalMs, nullptr);
    if (polled != CURLM_OK) {
      logError(kLogCategory, "curl_multi_poll: %{public}@", {curl_multi_strerror(polled)});
    }
  }
}

class CurlURLSession final : public URLSession {
 public:
  explicit CurlURLSession(std::shared_ptr<SessionCore> core) : core_(std::move(core)) {
    // The thread keeps the core alive, so a session released on its own thread can detach it.
    thread_ = std::thread([core = core_] { core->run(); });
  }

  ~CurlURLSession() override {
    core_->shutdown();
    if (thread_.get_id() == std::this_thread::get_id()) {
      // Released from one of its own completions: the loop ends right after it returns.
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request,
                                               DataTaskCompletion completion) override {
    return core_->dataTask(std::move(request), std::move(completion));
  }

  void invalidateAndCancel() override { core_->invalidateAndCancel(); }

 private:
  const std::shared_ptr<SessionCore> core_;
  std::thread thread_;
};

}  // namespace

std::shared_ptr<URLSession> makeURLSession(URLSessionConfiguration configuration) {
  if (!initCurlOnce()) {
    logError(kLogCategory, "curl_global_init failed");
    return nullptr;
  }
  auto core = std::make_shared<SessionCore>(configuration);
  if (!core->valid()) {
    logError(kLogCategory, "curl_multi_init failed");
    return nullptr;
  }
  return std::make_shared<CurlURLSession>(std::move(core));
}

}  // namespace kestrova
