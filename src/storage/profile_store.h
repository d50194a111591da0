// The connected profile, kept as the JSON object {"id": ...} in the defaults store under
// "KestrovaCurrentProfileKey", and the defaults-store JSON helpers it is built on. No state of
// its own (the defaults store is thread-safe).
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/defaults_store.h"

namespace kestrova {

// Logged when stored bytes do not decode into what was asked for.
inline constexpr std::string_view kCouldNotDecodeObject = "Could not decode object: %@";

struct Profile {
  std::string id;
};

// Stores `value` as JSON bytes under `key`.
void storeJson(DefaultsStore& defaults, std::string_view key, const nlohmann::json& value);
// The JSON under `key`; none when absent or not bytes, and none with the log line
// "Could not decode object: %@" when the bytes are not JSON.
std::optional<nlohmann::json> loadJson(const DefaultsStore& defaults, std::string_view key);

class ProfileStore {
 public:
  static constexpr std::string_view kCurrentProfileKey = "KestrovaCurrentProfileKey";

  explicit ProfileStore(std::shared_ptr<DefaultsStore> defaults) : defaults_(std::move(defaults)) {}

  // None when nothing usable is stored; an entry that does not decode is logged.
  std::optional<Profile> storedProfile() const;
  void store(const Profile& profile);
  void remove();

 private:
  const std::shared_ptr<DefaultsStore> defaults_;
};

}  // namespace kestrova
