#include "server/server.h"

#include <dirent.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/log.h"
#include "server/jwt.h"

namespace kestrova::server {
namespace {

constexpr std::string_view kLogCategory = "kestrova-server";
constexpr std::string_view kServerErrorDomain = "KestrovaServer";
constexpr size_t kMaxProblemsReported = 20;
// A long run keeps only the latest requests in its log.
constexpr size_t kRequestLogLimit = 100'000;

std::string dump(const nlohmann::json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void answer(httplib::Response& res, int status, const nlohmann::json& body) {
  res.status = status;
  res.set_content(dump(body), "application/json");
}

void refuse(httplib::Response& res, int status, std::string_view error, std::string_view detail) {
  answer(res, status, {{"error", error}, {"detail", detail}});
}

bool isLoopback(const std::string& address) {
  return address.starts_with("127.") || address == "::1" || address.starts_with("::ffff:127.");
}

int portOf(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
  }
  return -1;
}

// The socket of the request's connection.
// NOTE: httplib hands handlers no socket; the connection is the one socket of this process
// whose local and peer ports are the request's. It belongs to the calling thread, so it cannot
// be closed and reused while we look.
std::optional<int> findConnection(const httplib::Request& req) {
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) {
    return std::nullopt;
  }
  std::optional<int> found;
  while (dirent* entry = ::readdir(directory)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0') {
      continue;
    }
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t localLength = sizeof local;
    socklen_t peerLength = sizeof peer;
    if (::getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &localLength) !=
            0 ||
        ::getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
      continue;
    }
    if (portOf(local) == req.local_port && portOf(peer) == req.remote_port) {
      found = static_cast<int>(fd);
      break;
    }
  }
  ::closedir(directory);
  return found;
}

// Set by the handler wrapper so that the error handler, which httplib calls afterwards on the
// same thread for every answer of 400 and above, does not count the request a second time.
thread_local bool requestCounted = false;

}  // namespace

nlohmann::json ServerStats::toJson() const {
  nlohmann::json requestsJson = nlohmann::json::object();
  for (const auto& [path, answers] : requests) {
    requestsJson[path] = answers;
  }
  nlohmann::json json;
  json[kDataPointsKey] = store.dataPoints;
  json[kDuplicatesKey] = store.duplicates;
  json[kBySchemaKey] = store.bySchema;
  json[kRepeatedBySchemaKey] = store.repeatedBySchema;
  json[kByProfileKey] = store.byProfile;
  json[kRequestCountKey] = requestCount;
  json[kRequestsKey] = requestsJson;
  return json;
}

class KestrovaServer::Impl {
 public:
  Impl(ServerOptions options, std::unique_ptr<DataPointStore> store)
      : options_(std::move(options)), store_(std::move(store)), faults_(options_.faults) {}

  Status start();
  void stop();
  void wait() {
    std::unique_lock lock(stateMutex_);
    stateChanged_.wait(lock, [&] { return stopped_; });
  }

  const ServerOptions options_;
  const std::unique_ptr<DataPointStore> store_;
  int port_ = 0;

  mutable std::mutex faultMutex_;  // owns faults_
  FaultInjector faults_;

  mutable std::mutex statsMutex_;  // owns requests_, requestCount_ and requestLog_
  std::map<std::string, std::map<std::string, std::int64_t>> requests_;
  std::int64_t requestCount_ = 0;
  std::deque<RequestRecord> requestLog_;  // the last kRequestLogLimit requests

 private:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  // Counts the answer, keeps exceptions inside, and applies the fault plan first when `api`.
  Handler wrap(bool api, Handler handler);
  void count(const std::string& path, const std::string& outcome);
  void logRequest(const httplib::Request& req, std::chrono::system_clock::time_point arrived,
                  const std::string& outcome);
  // False when the request was answered or dropped by a fault.
  bool applyFault(const httplib::Request& req, httplib::Response& res, bool& dropped);
  std::optional<std::string> authorise(const httplib::Request& req, httplib::Response& res);

  void profile(const httplib::Request& req, httplib::Response& res);
  void ingest(const httplib::Request& req, httplib::Response& res, bool bulk);
  void statistics(const httplib::Request& req, httplib::Response& res);
  void adminFaults(const httplib::Request& req, httplib::Response& res);

  httplib::Server http_;
  std::thread thread_;

  std::mutex stateMutex_;  // owns stopping_ and stopped_
  std::condition_variable stateChanged_;
  bool stopping_ = false;
  bool stopped_ = false;
};

void KestrovaServer::Impl::count(const std::string& path, const std::string& outcome) {
  std::lock_guard lock(statsMutex_);
  ++requests_[path][outcome];
  ++requestCount_;
}

void KestrovaServer::Impl::logRequest(const httplib::Request& req,
                                      std::chrono::system_clock::time_point arrived,
                                      const std::string& outcome) {
  std::lock_guard lock(statsMutex_);
  requestLog_.push_back(
      RequestRecord{arrived, req.method, req.path, outcome, std::hash<std::string>{}(req.body)});
  if (requestLog_.size() > kRequestLogLimit) {
    requestLog_.pop_front();
  }
}

KestrovaServer::Impl::Handler KestrovaServer::Impl::wrap(bool api, Handler handler) {
  return [this, api, handler = std::move(handler)](const httplib::Request& req,
                                                   httplib::Response& res) {
    const auto arrived = std::chrono::system_clock::now();
    requestCounted = true;
    bool dropped = false;
    try {
      if (!api || applyFault(req, res, dropped)) {
        handler(req, res);
      }
    } catch (const std::exception& error) {
      logError(kLogCategory, "Request %{public}@ failed: %{public}@", {req.path, error.what()});
      refuse(res, 500, "internal error", error.what());
    }
    logRequest(req, arrived, dropped ? "dropped" : std::to_string(res.status));
    if (!dropped) {
      count(req.path, std::to_string(res.status));
      logInfo(kLogCategory, "%{public}@ %{public}@ %{public}@",
              {req.method, req.path, std::to_string(res.status)});
    }
  };
}

bool KestrovaServer::Impl::applyFault(const httplib::Request& req, httplib::Response& res,
                                      bool& dropped) {
  Fault fault;
  {
    std::lock_guard lock(faultMutex_);
    if (!faults_.plan().appliesTo(req.path)) {
      return true;
    }
    fault = faults_.next();
  }
  switch (fault.kind) {
    case Fault::Kind::pass:
      return true;
    case Fault::Kind::delay: {
      // The wait ends early when the server stops, so that stopping never waits for it.
      std::unique_lock lock(stateMutex_);
      stateChanged_.wait_for(lock, fault.delay, [&] { return stopping_; });
      return !stopping_;
    }
    case Fault::Kind::drop:
      if (auto socket = findConnection(req)) {
        // Counted before the client can notice, so that it never reads stale statistics.
        count(req.path, "dropped");
        logInfo(kLogCategory, "%{public}@ %{public}@ dropped", {req.method, req.path});
        ::shutdown(*socket, SHUT_RDWR);
        dropped = true;
      } else {
        logError(kLogCategory, "Could not find the connection of %{public}@ to drop", {req.path});
        refuse(res, 500, "injected fault", "drop failed");
      }
      return false;
    case Fault::Kind::status:
      if (fault.status == 429 || fault.status == 503) {
        res.set_header("Retry-After", std::to_string(fault.retryAfter.value_or(1)));
      }
      answer(res, fault.status, {{"error", "injected fault"}, {"status", fault.status}});
      return false;
  }
  return true;
}

std::optional<std::string> KestrovaServer::Impl::authorise(const httplib::Request& req,
                                                           httplib::Response& res) {
  const std::string authorization = req.get_header_value("Authorization");
  constexpr std::string_view kScheme = "bearer ";
  if (authorization.size() <= kScheme.size() ||
      !std::equal(kScheme.begin(), kScheme.end(), authorization.begin(), [](char a, char b) {
        return a == std::tolower(static_cast<unsigned char>(b));
      })) {
    refuse(res, 403, "forbidden", "missing bearer token");
    return std::nullopt;
  }
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  auto profile =
      verifyToken(std::string_view(authorization).substr(kScheme.size()), options_.secret, now);
  if (!profile) {
    refuse(res, 403, "forbidden", profile.error().description);
    return std::nullopt;
  }
  return std::move(profile).value();
}

void KestrovaServer::Impl::profile(const httplib::Request& req, httplib::Response& res) {
  auto profile = authorise(req, res);
  if (!profile) {
    return;
  }
  const std::string requested = req.matches[1];
  if (requested != *profile) {
    refuse(res, 403, "forbidden", "token does not belong to this profile");
    return;
  }
  answer(res, 200, {{"id", requested}});
}

void KestrovaServer::Impl::ingest(const httplib::Request& req, httplib::Response& res, bool bulk) {
  auto profile = authorise(req, res);
  if (!profile) {
    return;
  }
  auto body = nlohmann::json::parse(req.body, nullptr, /*allow_exceptions=*/false);
  if (body.is_discarded()) {
    refuse(res, 400, "malformed request", "body is not JSON");
    return;
  }
  std::vector<nlohmann::json> points;
  if (body.is_array()) {
    points.assign(body.begin(), body.end());
  } else if (!bulk && body.is_object()) {
    points.push_back(std::move(body));
  } else {
    refuse(res, 400, "malformed request",
           bulk ? "body must be a JSON array of data points"
                : "body must be a data point or a JSON array of data points");
    return;
  }
  nlohmann::json problems = nlohmann::json::array();
  for (size_t i = 0; i < points.size() && problems.size() < kMaxProblemsReported; ++i) {
    if (auto problem = validateDataPoint(points[i])) {
      problems.push_back({{"index", i}, {"problem", *problem}});
    }
  }
  if (!problems.empty()) {
    answer(res, 400, {{"error", "malformed request"}, {"problems", problems}});
    return;
  }
  auto counted = store_->ingest(*profile, points, req.get_header_value("Source"),
                                req.get_header_value("Version"));
  if (!counted) {
    logError(kLogCategory, "Could not store data points: %{public}@", {counted.error().text()});
    refuse(res, 500, "storage failed", counted.error().text());
    return;
  }
  answer(res, 200, {{"stored", counted->stored}, {kDuplicatesKey, counted->duplicates}});
}

void KestrovaServer::Impl::statistics(const httplib::Request&, httplib::Response& res) {
  ServerStats stats;
  stats.store = store_->counts();
  {
    std::lock_guard lock(statsMutex_);
    stats.requests = requests_;
    stats.requestCount = requestCount_;
  }
  answer(res, 200, stats.toJson());
}

void KestrovaServer::Impl::adminFaults(const httplib::Request& req, httplib::Response& res) {
  if (!isLoopback(req.remote_addr)) {
    refuse(res, 403, "forbidden", "fault injection is only accepted from loopback");
    return;
  }
  if (req.method == "POST") {
    auto json = nlohmann::json::parse(req.body, nullptr, /*allow_exceptions=*/false);
    auto plan = FaultPlan::fromJson(json);
    if (!plan) {
      refuse(res, 400, "malformed request", plan.error().description);
      return;
    }
    std::lock_guard lock(faultMutex_);
    faults_.reset(std::move(plan).value());
  } else if (req.method == "DELETE") {
    std::lock_guard lock(faultMutex_);
    faults_.reset({});
  }
  std::lock_guard lock(faultMutex_);
  answer(res, 200, faults_.plan().toJson());
}

Status KestrovaServer::Impl::start() {
  const int threads = std::max(2, options_.threads);
  http_.new_task_queue = [threads] {
    return new httplib::ThreadPool(static_cast<size_t>(threads));
  };
  http_.set_tcp_nodelay(true);
  // httplib's default also sets SO_REUSEPORT, which would let a second server share a port in
  // use instead of failing to start.
  http_.set_socket_options([](socket_t socket) {
    int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  http_.set_keep_alive_max_count(10'000);
  // A stop waits for every kept-alive connection to go idle; one second keeps that short
  // while a client that uploads in bursts still reuses its connection.
  http_.set_keep_alive_timeout(1);
  http_.set_payload_max_length(256u << 20);

  http_.Get(R"(/api/v1\.3/profile/(.+)/)",
            wrap(true, [this](const auto& req, auto& res) { profile(req, res); }));
  http_.Post("/api/v1.3/ingest/bulk/",
             wrap(true, [this](const auto& req, auto& res) { ingest(req, res, true); }));
  http_.Post("/api/v1.3/ingest/",
             wrap(true, [this](const auto& req, auto& res) { ingest(req, res, false); }));
  http_.Get(R"(/api/v1\.3/_stats/?)",
            wrap(false, [this](const auto& req, auto& res) { statistics(req, res); }));
  auto admin = wrap(false, [this](const auto& req, auto& res) { adminFaults(req, res); });
  http_.Get("/_admin/faults", admin);
  http_.Post("/_admin/faults", admin);
  http_.Delete("/_admin/faults", admin);
  http_.set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
    requestCounted = false;
    return httplib::Server::HandlerResponse::Unhandled;
  });
  http_.set_error_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (!requestCounted) {
      count(req.path, std::to_string(res.status));
    }
    if (res.body.empty()) {
      refuse(res, res.status, "not found", req.method + " " + req.path);
    }
  });

  port_ = options_.port == 0
              ? http_.bind_to_any_port(options_.host)
              : (http_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
  if (port_ <= 0) {
    return Error{std::string(kServerErrorDomain), 1,
                 "cannot listen on " + options_.host + ":" + std::to_string(options_.port)};
  }
  thread_ = std::thread([this] {
    http_.listen_after_bind();
    std::lock_guard lock(stateMutex_);
    stopped_ = true;
    stateChanged_.notify_all();
  });
  // NOTE: httplib's stop() does nothing until the accept loop has started, so a stop right
  // after start would otherwise leave the loop running for ever.
  // The loop either starts or ends at once (stopped_), so this wait is short.
  while (!http_.is_running()) {
    {
      std::lock_guard lock(stateMutex_);
      if (stopped_) {
        break;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return std::nullopt;
}

void KestrovaServer::Impl::stop() {
  {
    std::lock_guard lock(stateMutex_);
    stopping_ = true;
    stateChanged_.notify_all();
  }
  http_.stop();
  if (thread_.joinable()) {
    thread_.join();
  }
}

Result<std::unique_ptr<KestrovaServer>> KestrovaServer::start(ServerOptions options) {
  if (options.secret.empty()) {
    return Error{std::string(kServerErrorDomain), 2, "a token secret is required"};
  }
  auto store = DataPointStore::open(options.database);
  if (!store) {
    return store.error();
  }
  auto impl = std::make_unique<Impl>(std::move(options), std::move(store).value());
  if (auto failed = impl->start()) {
    return *failed;
  }
  return std::unique_ptr<KestrovaServer>(new KestrovaServer(std::move(impl)));
}

KestrovaServer::KestrovaServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

KestrovaServer::~KestrovaServer() {
  stop();
}

int KestrovaServer::port() const {
  return impl_->port_;
}

std::string KestrovaServer::baseUrl() const {
  const std::string& host = impl_->options_.host;
  const bool ipv6 = host.find(':') != std::string::npos;
  return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(impl_->port_) +
         "/api/";
}

std::string KestrovaServer::tokenFor(const std::string& profile) const {
  return mintToken(impl_->options_.secret, profile);
}

void KestrovaServer::stop() {
  impl_->stop();
}

void KestrovaServer::wait() {
  impl_->wait();
}

std::vector<StoredDataPoint> KestrovaServer::dataPoints(const std::string& profile) const {
  return impl_->store_->dataPoints(profile);
}

std::optional<StoredDataPoint> KestrovaServer::dataPoint(const std::string& profile,
                                                         const std::string& id) const {
  return impl_->store_->dataPoint(profile, id);
}

ServerStats KestrovaServer::stats() const {
  ServerStats stats;
  stats.store = impl_->store_->counts();
  std::lock_guard lock(impl_->statsMutex_);
  stats.requests = impl_->requests_;
  stats.requestCount = impl_->requestCount_;
  return stats;
}

std::vector<RequestRecord> KestrovaServer::requestLog() const {
  std::lock_guard lock(impl_->statsMutex_);
  return {impl_->requestLog_.begin(), impl_->requestLog_.end()};
}

void KestrovaServer::setFaults(FaultPlan plan) {
  std::lock_guard lock(impl_->faultMutex_);
  impl_->faults_.reset(std::move(plan));
}

FaultPlan KestrovaServer::faults() const {
  std::lock_guard lock(impl_->faultMutex_);
  return impl_->faults_.plan();
}

}  // namespace kestrova::server
