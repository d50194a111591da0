#include "storage/profile_store.h"

#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "defaults";
constexpr std::string_view kIdKey = "id";

}  // namespace

void storeJson(DefaultsStore& defaults, std::string_view key, const nlohmann::json& value) {
  // Replacing text that is not UTF-8 keeps the encoding from failing: nothing is lost but
  // the broken bytes themselves.
  defaults.setObject(key,
                     toBytes(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)));
}

std::optional<nlohmann::json> loadJson(const DefaultsStore& defaults, std::string_view key) {
  const auto data = defaults.data(key);
  if (!data) {
    return std::nullopt;
  }
  auto json = nlohmann::json::parse(data->begin(), data->end(), nullptr, false);
  if (json.is_discarded()) {
    logError(kCategory, kCouldNotDecodeObject,
             {"the data under " + std::string(key) + " is not valid JSON"});
    return std::nullopt;
  }
  return json;
}

std::optional<Profile> ProfileStore::storedProfile() const {
  const auto json = loadJson(*defaults_, kCurrentProfileKey);
  if (!json) {
    return std::nullopt;
  }
  const auto id = json->is_object() ? json->find(kIdKey) : json->end();
  if (!json->is_object() || id == json->end() || !id->is_string()) {
    logError(kCategory, kCouldNotDecodeObject,
             {"the data under " + std::string(kCurrentProfileKey) + " is not a profile"});
    return std::nullopt;
  }
  return Profile{id->get<std::string>()};
}

void ProfileStore::store(const Profile& profile) {
  storeJson(*defaults_, kCurrentProfileKey, nlohmann::json{{kIdKey, profile.id}});
}

void ProfileStore::remove() {
  defaults_->removeObject(kCurrentProfileKey);
}

}  // namespace kestrova
