#include "server/data_point_store.h"

namespace kestrova::server {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS data_points (
  profile TEXT NOT NULL,
  id TEXT NOT NULL,
  schema_namespace TEXT NOT NULL,
  schema_name TEXT NOT NULL,
  schema_version TEXT NOT NULL,
  data_point TEXT NOT NULL,
  source TEXT NOT NULL,
  version TEXT NOT NULL,
  receipts INTEGER NOT NULL,
  PRIMARY KEY (profile, id)
);
)sql";

bool isText(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() && !found->get<std::string>().empty();
}

std::string text(const nlohmann::json& object, const char* key) {
  return object.at(key).get<std::string>();
}

}  // namespace

std::optional<std::string> validateDataPoint(const nlohmann::json& point) {
  if (!point.is_object()) {
    return "a data point must be an object";
  }
  const auto header = point.find("header");
  if (header == point.end() || !header->is_object()) {
    return "\"header\" object missing";
  }
  if (!isText(*header, "id")) {
    return "\"header.id\" text missing";
  }
  if (!isText(*header, "creation_date_time")) {
    return "\"header.creation_date_time\" text missing";
  }
  const auto schema = header->find("schema_id");
  if (schema == header->end() || !schema->is_object()) {
    return "\"header.schema_id\" object missing";
  }
  for (const char* key : {"namespace", "name", "version"}) {
    if (!isText(*schema, key)) {
      return std::string("\"header.schema_id.") + key + "\" text missing";
    }
  }
  const auto body = point.find("body");
  if (body == point.end() || !body->is_object()) {
    return "\"body\" object missing";
  }
  const auto frame = body->find("effective_time_frame");
  const bool hasFrame = frame != body->end() && frame->is_object() &&
                        (frame->contains("date_time") || frame->contains("time_interval"));
  if (!hasFrame && !isText(*body, "date")) {
    return "\"body\" has neither \"effective_time_frame\" nor \"date\"";
  }
  return std::nullopt;
}

Result<std::unique_ptr<DataPointStore>> DataPointStore::open(const std::filesystem::path& path) {
  auto opened = SqliteDatabase::open(path.empty() ? std::filesystem::path(":memory:") : path);
  if (!opened) {
    return opened.error();
  }
  SqliteDatabase database = std::move(opened).value();
  if (!path.empty()) {
    // NORMAL: a commit is not synced on its own (WAL checkpoints are), which costs a crash of
    // the machine the last few requests but not one fsync per request.
    if (auto failed = database.exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;")) {
      return *failed;
    }
  }
  if (auto failed = database.exec(kSchema)) {
    return *failed;
  }
  return std::unique_ptr<DataPointStore>(new DataPointStore(std::move(database)));
}

Result<IngestCount> DataPointStore::ingest(const std::string& profile,
                                           const std::vector<nlohmann::json>& points,
                                           const std::string& source, const std::string& version) {
  std::lock_guard lock(mutex_);
  auto begun = database_.begin();
  if (!begun) {
    return begun.error();
  }
  SqliteTransaction& transaction = begun.value();
  auto prepared = database_.prepare(
      "INSERT INTO data_points (profile, id, schema_namespace, schema_name, schema_version, "
      "data_point, source, version, receipts) VALUES (?, ?, ?, ?, ?, ?, ?, ?, 1) "
      "ON CONFLICT (profile, id) DO UPDATE SET schema_namespace = excluded.schema_namespace, "
      "schema_name = excluded.schema_name, schema_version = excluded.schema_version, "
      "data_point = excluded.data_point, source = excluded.source, version = excluded.version, "
      "receipts = receipts + 1 RETURNING receipts");
  if (!prepared) {
    return prepared.error();
  }
  SqliteStatement& statement = prepared.value();
  IngestCount count;
  for (const auto& point : points) {
    const auto& header = point.at("header");
    const auto& schema = header.at("schema_id");
    const std::string serialised =
        point.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    Status bound;
    auto bind = [&](int index, const std::string& value) {
      if (!bound) {
        bound = statement.bindText(index, value);
      }
    };
    bind(1, profile);
    bind(2, text(header, "id"));
    bind(3, text(schema, "namespace"));
    bind(4, text(schema, "name"));
    bind(5, text(schema, "version"));
    bind(6, serialised);
    bind(7, source);
    bind(8, version);
    if (bound) {
      return *bound;
    }
    auto row = statement.step();
    if (!row) {
      return row.error();
    }
    const std::int64_t receipts = *row ? statement.columnInt64(0) : 1;
    statement.reset();
    if (receipts > 1) {
      ++count.duplicates;
    } else {
      ++count.stored;
    }
  }
  if (auto failed = transaction.commit()) {
    return *failed;
  }
  return count;
}

std::vector<StoredDataPoint> DataPointStore::select(
    const std::string& where, const std::vector<std::string>& arguments) const {
  std::vector<StoredDataPoint> rows;
  std::lock_guard lock(mutex_);
  auto prepared = database_.prepare(
      "SELECT profile, id, schema_namespace, schema_name, schema_version, data_point, source, "
      "version, receipts FROM data_points WHERE " +
      where + " ORDER BY rowid");
  if (!prepared) {
    return rows;
  }
  SqliteStatement& statement = prepared.value();
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (statement.bindText(static_cast<int>(i + 1), arguments[i])) {
      return rows;
    }
  }
  for (;;) {
    auto row = statement.step();
    if (!row || !*row) {
      return rows;
    }
    StoredDataPoint point;
    point.profile = statement.columnText(0);
    point.id = statement.columnText(1);
    point.schemaNamespace = statement.columnText(2);
    point.schemaName = statement.columnText(3);
    point.schemaVersion = statement.columnText(4);
    point.dataPoint = nlohmann::json::parse(statement.columnTextView(5), nullptr, false);
    point.source = statement.columnText(6);
    point.version = statement.columnText(7);
    point.receipts = statement.columnInt64(8);
    rows.push_back(std::move(point));
  }
}

std::vector<StoredDataPoint> DataPointStore::dataPoints(const std::string& profile) const {
  return select("profile = ?", {profile});
}

std::optional<StoredDataPoint> DataPointStore::dataPoint(const std::string& profile,
                                                         const std::string& id) const {
  auto rows = select("profile = ? AND id = ?", {profile, id});
  if (rows.empty()) {
    return std::nullopt;
  }
  return std::move(rows.front());
}

StoreCounts DataPointStore::counts() const {
  StoreCounts counts;
  std::lock_guard lock(mutex_);
  auto prepared = database_.prepare(
      "SELECT profile, schema_namespace || ':' || schema_name || ':' || schema_version, "
      "COUNT(*), SUM(receipts - 1), SUM(receipts > 1) FROM data_points GROUP BY 1, 2");
  if (!prepared) {
    return counts;
  }
  SqliteStatement& statement = prepared.value();
  for (;;) {
    auto row = statement.step();
    if (!row || !*row) {
      return counts;
    }
    const std::int64_t rows = statement.columnInt64(2);
    counts.dataPoints += rows;
    counts.duplicates += statement.columnInt64(3);
    counts.byProfile[statement.columnText(0)] += rows;
    counts.bySchema[statement.columnText(1)] += rows;
    counts.repeatedBySchema[statement.columnText(1)] += statement.columnInt64(4);
  }
}

}  // namespace kestrova::server
