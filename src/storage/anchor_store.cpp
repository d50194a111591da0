#include "storage/anchor_store.h"

#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "anchors";
constexpr std::string_view kNoStoredAnchor = "No stored anchor for type %@";
// "an QueryAnchor" is the established text of this line.
constexpr std::string_view kNotAnAnchor =
    "Unarchived data could not be converted to an QueryAnchor for type %@";

}  // namespace

std::string AnchorStore::key(std::string_view typeIdentifier) {
  std::string key(kKeyPrefix);
  key += typeIdentifier;
  return key;
}

void AnchorStore::storeAnchor(const QueryAnchor& anchor, std::string_view typeIdentifier) {
  defaults_->setObject(key(typeIdentifier), anchor.archived());
}

std::optional<QueryAnchor> AnchorStore::storedAnchor(std::string_view typeIdentifier) const {
  const auto data = defaults_->data(key(typeIdentifier));
  if (!data) {
    logInfo(kCategory, kNoStoredAnchor, {typeIdentifier});
    return std::nullopt;
  }
  auto anchor = QueryAnchor::unarchive(*data);
  if (!anchor) {
    logError(kCategory, kNotAnAnchor, {typeIdentifier});
  }
  return anchor;
}

void AnchorStore::deleteAnchor(std::string_view typeIdentifier) {
  defaults_->removeObject(key(typeIdentifier));
}

}  // namespace kestrova
