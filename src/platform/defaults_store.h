// The application's defaults store: small typed values under string keys that survive
// restarts. Implementations are thread-safe and keep a value either wholly written or not at
// all, also when the process dies in the middle of a write.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/result.h"

namespace kestrova {

using DefaultsValue = std::variant<Bytes, std::string, std::int64_t, double>;

class DefaultsStore {
 public:
  virtual ~DefaultsStore() = default;

  virtual std::optional<DefaultsValue> object(std::string_view key) const = 0;
  virtual void setObject(std::string_view key, DefaultsValue value) = 0;
  virtual void removeObject(std::string_view key) = 0;
  // Every key that begins with `prefix`, in ascending order.
  virtual std::vector<std::string> keys(std::string_view prefix = {}) const = 0;

  // The bytes under `key`; none when the key is absent or holds another type.
  std::optional<Bytes> data(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;
};

// The store kept in an SQLite database at `path`. A database that cannot be opened because it
// is damaged is moved aside (its name gains ".corrupt-<time>") and a new one is started, with an
// error log line; the failure to open a new one is returned.
Result<std::shared_ptr<DefaultsStore>> openSqliteDefaultsStore(const std::filesystem::path& path);

}  // namespace kestrova
