// The application's defaults store: small typed values under string keys that survive
// restarts. Each implementation owns its state behind its own lock and may be called from any
// thread; a value is either wholly written or not at all, also when the process dies mid-write.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/result.h"

namespace kestrova {

using DefaultsValue = std::variant<Bytes, std::string, std::int64_t, double>;
// A value to set under a key, or none to remove the key.
using DefaultsChange = std::pair<std::string, std::optional<DefaultsValue>>;

class DefaultsStore {
 public:
  virtual ~DefaultsStore() = default;

  virtual std::optional<DefaultsValue> object(std::string_view key) const = 0;
  // Replaces whatever `key` held, whatever its type.
  virtual void setObject(std::string_view key, DefaultsValue value) = 0;
  // Several keys set or removed at once, all or none. Later changes win over earlier ones
  // with the same key.
  virtual void update(std::vector<DefaultsChange> changes) = 0;
  void setObjects(std::vector<std::pair<std::string, DefaultsValue>> values);
  virtual void removeObject(std::string_view key) = 0;
  // Every key in [from, to), in ascending order.
  virtual void removeObjects(std::string_view from, std::string_view to) = 0;
  // Every key that begins with `prefix`, in ascending order.
  virtual std::vector<std::string> keys(std::string_view prefix = {}) const = 0;
  // The keys in [from, to) with their values, in ascending order, at most `limit` of them
  // (0: all). Keys order bytewise, as std::string compares them.
  virtual std::vector<std::pair<std::string, DefaultsValue>> objects(std::string_view from,
                                                                     std::string_view to,
                                                                     std::size_t limit) const = 0;

  // The bytes under `key`; none when the key is absent or holds another type.
  std::optional<Bytes> data(std::string_view key) const;
  // The text under `key`, or a number written out as the platform's defaults do ("42",
  // "1.5"); none when the key is absent or holds bytes.
  std::optional<std::string> string(std::string_view key) const;
};

// The store kept in an SQLite database at `path` (parent directories are created). A database
// that cannot be opened because it is damaged is moved aside (its name gains
// ".corrupt-<unix seconds>") and a new one is started, with an error log line; the failure to
// open a new one is returned. Failures after opening are logged and read as absent values.
Result<std::shared_ptr<DefaultsStore>> openSqliteDefaultsStore(const std::filesystem::path& path);

}  // namespace kestrova
