// Kestrova: the one class through which a host application drives the library. Every operation
// is static and works on one shared instance made on first use and never destroyed. Completions
// are delivered on the main queue, exactly once; no exception leaves any of these functions.
//
//   Kestrova::configure(KestrovaConfig(token), [](bool ok, auto error) {
//     if (ok) Kestrova::connect([](bool ok, auto error) { /* data now flows by itself */ });
//   });
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "kestrova/config.h"
#include "kestrova/delivery.h"
#include "kestrova/error.h"

class Kestrova {
 public:
  struct Status {
    enum class Case { connected, notConfigured, disconnected };
    Case value = Case::notConfigured;
    // Present when connected.
    std::optional<std::string> profileId;

    friend bool operator==(const Status&, const Status&) = default;
  };

  // The integer form of the status, for hosts that use plain integers (its name in other
  // languages is _Status; a leading underscore and capital are reserved in C++).
  enum class StatusCode : int { notConfigured = 0, disconnected = 1, connected = 2 };
  // None for 3 or more and for negative values.
  static std::optional<StatusCode> statusCodeFromRawValue(int rawValue) noexcept;

  using Completion = std::function<void(bool success, std::optional<KestrovaHealthKitError> error)>;
  using GenericCompletion =
      std::function<void(bool success, std::optional<kestrova::GenericError> error)>;

  Kestrova() = delete;

  // Validates and installs the configuration; resumes collection for a connected profile.
  // Errors: invalidToken, apiURLNotValid, invalidHost, invalidScheme, bridgeCouldNotBeSetUp.
  static void configure(const KestrovaConfig& config, Completion completion) noexcept;
  static void _configure(const KestrovaConfig& config, GenericCompletion completion) noexcept;

  // What the stored profile says; configuration is not consulted.
  static Status currentStatus() noexcept;
  static StatusCode _currentStatus() noexcept;
  static std::optional<std::string> connectedProfileId() noexcept;
  static bool canConnectToHealthData() noexcept;

  // Validates the configured profile with the back end, asks for read access and starts
  // collection. Errors: noProfileIdProvided, failedToValidateProfile, HealthKitStoreNotAvailable,
  // authorizationNotGranted, couldNotStartHealthKitQuery, bridgeCouldNotBeSetUp.
  static void connect(Completion completion) noexcept;
  static void _connect(GenericCompletion completion) noexcept;

  // Stops collection and forgets the connected profile, its anchors and statistics, on the
  // calling thread. The stored token stays.
  static void disconnect() noexcept;

  using SyncStateCompletion = std::function<void(const KestrovaSyncState& state)>;
  using DeliveryListener = std::function<void(const KestrovaDeliveryEvent& event)>;

  // The delivery state kept in the data directory (it survives restarts), read after every
  // upload outcome already received has been recorded; the completion runs on the main queue.
  // Without a usable data directory the state is empty.
  static void syncState(SyncStateCompletion completion) noexcept;
  // Replaces the one listener; an empty function removes it. It hears every upload outcome of
  // this process from then on, on the main queue, in the order they were recorded.
  static void setDeliveryListener(DeliveryListener listener) noexcept;
};
