// The reference back end of Kestrova: profile look-up and data point ingest behind HS256
// bearer tokens, SQLite storage, statistics and fault injection, on cpp-httplib. Thread-safe:
// requests run on the HTTP thread pool; the store, the counters and the fault plan each have
// their own mutex.
//
//   auto server = KestrovaServer::start({.secret = "s3cret"});   // 127.0.0.1, ephemeral port
//   std::string base = (*server)->baseUrl();                      // "http://127.0.0.1:N/api/"
//   ... run the client ...
//   auto points = (*server)->dataPoints("profile-1");
//
// Endpoints: GET /api/v1.3/profile/<id>/; POST /api/v1.3/ingest/bulk/ (a JSON array of data
// points); POST /api/v1.3/ingest/ (one data point, or an array of them); GET /api/v1.3/_stats;
// GET, POST and DELETE /_admin/faults (loopback clients only). An ingest request is stored
// whole or, when any data point in it is malformed, not at all (400).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"
#include "server/data_point_store.h"
#include "server/faults.h"

namespace kestrova::server {

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;                    // 0: an ephemeral port, see KestrovaServer::port()
  std::filesystem::path database;  // empty: in memory, gone when the server stops
  std::string secret;              // signs and checks bearer tokens; must not be empty
  FaultPlan faults;
  // Connections the server serves at once (one thread each, kept-alive ones included).
  int threads = 8;
};

// The keys of the statistics' JSON (GET /api/v1.3/_stats).
inline constexpr std::string_view kDataPointsKey = "data_points";
inline constexpr std::string_view kDuplicatesKey = "duplicates";
inline constexpr std::string_view kBySchemaKey = "by_schema";
inline constexpr std::string_view kRepeatedBySchemaKey = "repeated_by_schema";
inline constexpr std::string_view kByProfileKey = "by_profile";
inline constexpr std::string_view kRequestCountKey = "request_count";
inline constexpr std::string_view kRequestsKey = "requests";

// One request as the server answered it, in the order of arrival.
struct RequestRecord {
  std::chrono::system_clock::time_point arrived;
  std::string method;
  std::string path;
  std::string outcome;  // "200", "503", ..., "dropped"
  // Tells requests with the same body apart from others.
  std::size_t bodyHash = 0;
};

struct ServerStats {
  StoreCounts store;
  // Request path → answer ("200", "403", ..., "dropped") → count, since the server started.
  std::map<std::string, std::map<std::string, std::int64_t>> requests;
  std::int64_t requestCount = 0;

  nlohmann::json toJson() const;
};

class KestrovaServer {
 public:
  // Opens the store, binds and starts serving on a thread of its own.
  static Result<std::unique_ptr<KestrovaServer>> start(ServerOptions options);
  ~KestrovaServer();  // stops
  KestrovaServer(const KestrovaServer&) = delete;
  KestrovaServer& operator=(const KestrovaServer&) = delete;

  int port() const;
  // "http://<host>:<port>/api/", the base URL a client is configured with.
  std::string baseUrl() const;
  // A token for `profile` signed with this server's secret.
  std::string tokenFor(const std::string& profile) const;

  // Ends delayed requests at once, stops accepting and waits for the serving thread.
  void stop();
  // Blocks until stop() is called from another thread or a signal handler's helper.
  void wait();

  std::vector<StoredDataPoint> dataPoints(const std::string& profile) const;
  std::optional<StoredDataPoint> dataPoint(const std::string& profile, const std::string& id) const;
  ServerStats stats() const;
  // The requests since the server started, the latest 100,000 at most.
  std::vector<RequestRecord> requestLog() const;
  void setFaults(FaultPlan plan);
  FaultPlan faults() const;

  class Impl;

 private:
  explicit KestrovaServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace kestrova::server
