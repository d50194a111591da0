// KestrovaHealthKitError: the one error that public operations report, and the generic
// {domain, code, description} form of it for hosts that handle only integer codes.
// Plain values; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

// An error as a domain, an integer code and a text, for hosts that cannot use
// KestrovaHealthKitError itself (the `_` variants of the facade and the C API).
struct GenericError {
  std::string domain;
  int code = 0;
  std::string localizedDescription;

  friend bool operator==(const GenericError&, const GenericError&) = default;
};

}  // namespace kestrova

class KestrovaHealthKitError {
 public:
  // The declaration order is the integer code.
  enum class Code : int {
    authorizationNotGranted = 0,
    noTokenAvailableFor = 1,
    invalidToken = 2,
    failedToValidateProfile = 3,
    apiURLNotValid = 4,
    bridgeCouldNotBeSetUp = 5,
    HealthKitStoreNotAvailable = 6,
    couldNotStartHealthKitQuery = 7,
    invalidHost = 8,
    invalidScheme = 9,
    noProfileIdProvided = 10,
  };

  // The domain of the generic form.
  static constexpr std::string_view kDomain = "KestrovaLib.KestrovaHealthKitError";

  static KestrovaHealthKitError authorizationNotGranted(std::string description);
  static KestrovaHealthKitError noTokenAvailableFor(std::string profileId);
  // Carries the whole token as configured, and so does its description.
  static KestrovaHealthKitError invalidToken(std::string token);
  static KestrovaHealthKitError failedToValidateProfile(std::string profileId);
  static KestrovaHealthKitError apiURLNotValid();
  static KestrovaHealthKitError bridgeCouldNotBeSetUp();
  static KestrovaHealthKitError HealthKitStoreNotAvailable();
  static KestrovaHealthKitError couldNotStartHealthKitQuery();
  static KestrovaHealthKitError invalidHost();
  static KestrovaHealthKitError invalidScheme();
  static KestrovaHealthKitError noProfileIdProvided();

  Code code() const { return code_; }
  // The text of the four cases that carry one: description, profile id, token, profile id.
  const std::optional<std::string>& payload() const { return payload_; }

  // Always present; English only.
  std::optional<std::string> errorDescription() const { return localizedDescription(); }
  std::string localizedDescription() const;
  kestrova::GenericError genericError() const;

  friend bool operator==(const KestrovaHealthKitError&, const KestrovaHealthKitError&) = default;

 private:
  KestrovaHealthKitError(Code code, std::optional<std::string> payload)
      : code_(code), payload_(std::move(payload)) {}

  Code code_;
  std::optional<std::string> payload_;
};
