#include "kestrova/error.h"

namespace {

using Code = KestrovaHealthKitError::Code;

// The description of each case; for the cases with a payload it is the prefix the payload
// follows. "InvalidToken: " is one word on purpose.
std::string_view descriptionText(Code code) {
  switch (code) {
    case Code::authorizationNotGranted:
      return "Authorization not granted: ";
    case Code::noTokenAvailableFor:
      return "No token available for profile ID: ";
    case Code::invalidToken:
      return "InvalidToken: ";
    case Code::failedToValidateProfile:
      return "Failed to validate profile: ";
    case Code::apiURLNotValid:
      return "API url not valid";
    case Code::bridgeCouldNotBeSetUp:
      return "Kestrova HealthKit bridge could not be set up";
    case Code::HealthKitStoreNotAvailable:
      return "HealthKit Store not available";
    case Code::couldNotStartHealthKitQuery:
      return "Could not start HealthKit queries";
    case Code::invalidHost:
      return "Invalid url host";
    case Code::invalidScheme:
      return "Invalid url scheme";
    case Code::noProfileIdProvided:
      return "No profile ID has been provided";
  }
  return {};
}

}  // namespace

KestrovaHealthKitError KestrovaHealthKitError::authorizationNotGranted(std::string description) {
  return {Code::authorizationNotGranted, std::move(description)};
}
KestrovaHealthKitError KestrovaHealthKitError::noTokenAvailableFor(std::string profileId) {
  return {Code::noTokenAvailableFor, std::move(profileId)};
}
KestrovaHealthKitError KestrovaHealthKitError::invalidToken(std::string token) {
  return {Code::invalidToken, std::move(token)};
}
KestrovaHealthKitError KestrovaHealthKitError::failedToValidateProfile(std::string profileId) {
  return {Code::failedToValidateProfile, std::move(profileId)};
}
KestrovaHealthKitError KestrovaHealthKitError::apiURLNotValid() {
  return {Code::apiURLNotValid, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::bridgeCouldNotBeSetUp() {
  return {Code::bridgeCouldNotBeSetUp, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::HealthKitStoreNotAvailable() {
  return {Code::HealthKitStoreNotAvailable, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::couldNotStartHealthKitQuery() {
  return {Code::couldNotStartHealthKitQuery, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::invalidHost() {
  return {Code::invalidHost, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::invalidScheme() {
  return {Code::invalidScheme, std::nullopt};
}
KestrovaHealthKitError KestrovaHealthKitError::noProfileIdProvided() {
  return {Code::noProfileIdProvided, std::nullopt};
}

std::string KestrovaHealthKitError::localizedDescription() const {
  std::string text(descriptionText(code_));
  if (payload_) {
    text += *payload_;
  }
  return text;
}

kestrova::GenericError KestrovaHealthKitError::genericError() const {
  return kestrova::GenericError{std::string(kDomain), static_cast<int>(code_),
                                localizedDescription()};
}
