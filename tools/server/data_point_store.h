// The data points the reference back end has received, in SQLite, keyed by profile and header
// id. Thread-safe: the connection and its statements are owned by the store's mutex.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/sqlite.h"
#include "platform/result.h"

namespace kestrova::server {

struct StoredDataPoint {
  std::string profile;
  std::string id;  // the header's "id"
  std::string schemaNamespace;
  std::string schemaName;
  std::string schemaVersion;
  nlohmann::json dataPoint;   // as last received
  std::string source;         // the request's "Source" header, empty when absent
  std::string version;        // the request's "Version" header, empty when absent
  std::int64_t receipts = 0;  // how often it arrived; every arrival after the first is a duplicate
};

// What one ingest request did.
struct IngestCount {
  std::int64_t stored = 0;
  std::int64_t duplicates = 0;
};

struct StoreCounts {
  std::int64_t dataPoints = 0;
  std::int64_t duplicates = 0;
  std::map<std::string, std::int64_t> bySchema;  // "namespace:name:version"
  std::map<std::string, std::int64_t> byProfile;
  // Per schema, the data points that arrived more than once, however often: what a client sent
  // again, where `duplicates` counts every extra arrival.
  std::map<std::string, std::int64_t> repeatedBySchema;
};

class DataPointStore {
 public:
  // An empty path keeps the data in memory.
  static Result<std::unique_ptr<DataPointStore>> open(const std::filesystem::path& path);

  // Stores every data point of one request in one transaction: all or none. Each must have
  // passed validateDataPoint(). A data point whose (profile, id) is already stored replaces it
  // and counts as a duplicate.
  Result<IngestCount> ingest(const std::string& profile, const std::vector<nlohmann::json>& points,
                             const std::string& source, const std::string& version);

  std::vector<StoredDataPoint> dataPoints(const std::string& profile) const;
  std::optional<StoredDataPoint> dataPoint(const std::string& profile, const std::string& id) const;
  StoreCounts counts() const;

 private:
  explicit DataPointStore(SqliteDatabase database) : database_(std::move(database)) {}
  std::vector<StoredDataPoint> select(const std::string& where,
                                      const std::vector<std::string>& arguments) const;

  mutable std::mutex mutex_;  // owns database_
  mutable SqliteDatabase database_;
};

// Why `point` is not a data point (header with id, creation_date_time and schema_id
// {namespace, name, version}; body with effective_time_frame or date), or nothing when it is.
std::optional<std::string> validateDataPoint(const nlohmann::json& point);

}  // namespace kestrova::server
