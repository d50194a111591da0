// What a host can know about the library's deliveries: the sync state (Kestrova::syncState)
// and the events of each upload (Kestrova::setDeliveryListener). Plain values; thread-safe.
//
// Families: "workout", "sleep", "mindful", "ecg", "body" (the sample uploads, one file per
// batch) and "statistics" (the statistics uploads, sent without files).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kestrova/error.h"

using KestrovaTime = std::chrono::system_clock::time_point;

// Why the last upload of a family failed.
struct KestrovaDeliveryError {
  // Present when the back end answered; domain "KestrovaLib.HTTPStatus" and the status as
  // code then. Otherwise the transport error's domain and code.
  std::optional<int> httpStatus;
  std::string domain;
  int code = 0;
  // The back end's answer (cut short), or the transport error's description.
  std::string message;
  KestrovaTime at;

  friend bool operator==(const KestrovaDeliveryError&, const KestrovaDeliveryError&) = default;
};

struct KestrovaFamilySyncState {
  std::string family;
  // Upload files waiting for the back end (set-aside files not included).
  std::size_t pendingFiles = 0;
  std::uintmax_t pendingBytes = 0;
  // Since the oldest waiting file was written; none when nothing waits.
  std::optional<std::chrono::seconds> oldestPendingAge;
  std::optional<KestrovaTime> lastDelivered;
  std::optional<KestrovaDeliveryError> lastError;
  // Accepted by the back end since the data directory was first used.
  std::uint64_t deliveredPoints = 0;

  friend bool operator==(const KestrovaFamilySyncState&, const KestrovaFamilySyncState&) = default;
};

// An upload file the back end refused again and again, set aside and no longer sent.
struct KestrovaRejectedFile {
  std::string file;
  std::string family;
  std::optional<int> httpStatus;
  int attempts = 0;
  // The back end's last answer, cut short.
  std::string reason;
  KestrovaTime at;

  friend bool operator==(const KestrovaRejectedFile&, const KestrovaRejectedFile&) = default;
};

struct KestrovaSyncState {
  // One entry per family, in the order of the list above.
  std::vector<KestrovaFamilySyncState> families;
  // In file name order.
  std::vector<KestrovaRejectedFile> rejected;

  friend bool operator==(const KestrovaSyncState&, const KestrovaSyncState&) = default;
};

// One upload answered by the back end, or failed without an answer.
struct KestrovaDeliveryEvent {
  std::string family;
  std::uint64_t dataPoints = 0;
  bool accepted = false;
  std::optional<int> httpStatus;
  // The transport error, when there was no answer.
  std::optional<kestrova::GenericError> error;
  // This refusal set the file aside.
  bool setAside = false;
  // The back end asked (Retry-After) not to be sent this upload again before then.
  std::optional<KestrovaTime> retryNotBefore;
};
