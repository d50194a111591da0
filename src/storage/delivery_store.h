// What the library knows about its deliveries, kept in the defaults store so that it survives a
// restart: per family the last accepted upload, the last failure and the data points delivered,
// and per upload file the refusals in a row and the time before which it may not be sent again.
// No state of its own; the delivery queue ("com.kestrova.queue.delivery", see
// DeliveryRecorder) does every read-modify-write.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/defaults_store.h"

namespace kestrova {

struct DeliveryFailure {
  // Present when the back end answered; otherwise the transport error's domain and code.
  std::optional<int> httpStatus;
  std::string domain;
  int code = 0;
  std::string message;
  Date at;

  friend bool operator==(const DeliveryFailure&, const DeliveryFailure&) = default;
};

struct FamilyDelivery {
  std::optional<Date> lastDelivered;
  std::optional<DeliveryFailure> lastError;
  std::uint64_t deliveredPoints = 0;

  friend bool operator==(const FamilyDelivery&, const FamilyDelivery&) = default;
};

struct UploadAttempts {
  // Refusals in a row that count towards setting the file aside.
  int refusals = 0;
  // The back end asked (Retry-After) not to be sent this file before then.
  std::optional<Date> notBefore;

  friend bool operator==(const UploadAttempts&, const UploadAttempts&) = default;
};

class DeliveryStore {
 public:
  static constexpr std::string_view kFamilyKeyPrefix = "KestrovaDeliveryKey.";
  static constexpr std::string_view kAttemptsKeyPrefix = "KestrovaUploadAttemptsKey.";

  explicit DeliveryStore(std::shared_ptr<DefaultsStore> defaults)
      : defaults_(std::move(defaults)) {}

  // Empty when nothing is stored, or what is stored does not decode (logged).
  FamilyDelivery family(std::string_view family) const;
  void setFamily(std::string_view family, const FamilyDelivery& delivery);

  UploadAttempts attempts(std::string_view fileName) const;
  // An empty record removes the key.
  void setAttempts(std::string_view fileName, const UploadAttempts& attempts);

 private:
  const std::shared_ptr<DefaultsStore> defaults_;
};

}  // namespace kestrova
