// DeliveryRecorder: what happens to every upload once the back end has answered it, and what a
// host hears of it. Outcomes are handled on the delivery queue "com.kestrova.queue.delivery",
// which owns the delivery keys of the defaults store (DeliveryStore) and the moving of refused
// files aside, and orders the events; `mutex_` owns the deferred uploads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/defaults_store.h"
#include "platform/dispatch.h"
#include "platform/result.h"
#include "platform/url_session.h"
#include "storage/delivery_store.h"
#include "storage/file_server.h"

namespace kestrova {

// One upload answered, or failed without an answer.
struct DeliveryEvent {
  std::string family;  // see kDeliveryFamilies; kSingleSampleFamily for single uploads
  std::uint64_t dataPoints = 0;
  bool accepted = false;
  std::optional<int> httpStatus;
  // The transport or request error when there was no answer.
  std::optional<Error> error;
  // The file was refused kRefusalsBeforeSetAside times in a row and is set aside now.
  bool setAside = false;
  // The back end asked not to be sent this request again before then.
  std::optional<Date> retryNotBefore;
  // Empty for statistics uploads.
  std::string fileName;
};

// The time a Retry-After header of a 429 or 503 answer names (delay seconds or an HTTP date);
// none for other answers and for a header that is missing or does not parse.
std::optional<Date> retryNotBefore(const HTTPURLResponse& response, Date now);

// Whether the answer refuses the data itself, so that sending it again cannot help: a 4xx
// other than 401, 403 (the token), 408 (time-out) and 429 (too many requests).
bool isRefusal(int httpStatus);

class DeliveryRecorder : public std::enable_shared_from_this<DeliveryRecorder> {
 public:
  static constexpr std::string_view kQueueLabel = "com.kestrova.queue.delivery";
  static constexpr int kRefusalsBeforeSetAside = 5;

  // Runs on the delivery queue, once per event, in the order of the outcomes.
  using Listener = std::function<void(const DeliveryEvent&)>;
  using Resend = std::function<void(FileNameComponents fileName, bool bulk)>;

  DeliveryRecorder(std::shared_ptr<DefaultsStore> defaults, std::shared_ptr<Clock> clock,
                   std::shared_ptr<DispatchQueue> queue, FileServer fileServer, Listener listener);

  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  // From any thread. Deletes the file when accepted (or its profile has no token any more),
  // keeps it otherwise, and sets it aside after kRefusalsBeforeSetAside refusals in a row.
  void fileAnswered(FileNameComponents fileName, bool bulk, std::optional<Bytes> data,
                    std::optional<HTTPURLResponse> response, std::optional<Error> error);
  // From any thread; `accepted` as the statistics uploads judge it.
  void statisticsAnswered(std::uint64_t dataPoints, bool accepted, std::optional<Bytes> data,
                          std::optional<HTTPURLResponse> response, std::optional<Error> error);

  // Sends the file now through `resend`, or, when the back end asked for a pause, once it is
  // over (one pending send per file). Any thread.
  void sendWhenAllowed(FileNameComponents fileName, bool bulk, Resend resend);

 private:
  // Keeps the family's state (the answer's text as the failure's message) and tells the
  // listener. On the delivery queue.
  void record(DeliveryEvent event, Date now, const std::optional<Bytes>& data);

  DeliveryStore store_;
  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<DispatchQueue> queue_;
  FileServer fileServer_;
  const Listener listener_;
  std::mutex mutex_;  // owns deferred_
  std::map<std::string, std::unique_ptr<Timer>> deferred_;
};

}  // namespace kestrova
