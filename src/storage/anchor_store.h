// The query anchor store: one anchor per health-store type identifier in the defaults store,
// under "KestrovaAnchorKey" + identifier. Holds no state of its own (the defaults store is
// thread-safe); called from the health store's query callbacks.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/defaults_store.h"
#include "platform/query_anchor.h"

namespace kestrova {

class AnchorStore {
 public:
  static constexpr std::string_view kKeyPrefix = "KestrovaAnchorKey";

  explicit AnchorStore(std::shared_ptr<DefaultsStore> defaults) : defaults_(std::move(defaults)) {}

  static std::string key(std::string_view typeIdentifier);

  void storeAnchor(const QueryAnchor& anchor, std::string_view typeIdentifier);
  // None, with a log line, when nothing usable is stored; a damaged entry is left in place.
  std::optional<QueryAnchor> storedAnchor(std::string_view typeIdentifier) const;
  void deleteAnchor(std::string_view typeIdentifier);

 private:
  const std::shared_ptr<DefaultsStore> defaults_;
};

}  // namespace kestrova
