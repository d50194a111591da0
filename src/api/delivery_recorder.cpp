#include "api/delivery_recorder.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "api/api_constants.h"
#include "api/request_builder.h"
#include "api/upload.h"
#include "platform/log.h"
#include "platform/text.h"

namespace kestrova {
namespace {

constexpr std::string_view kRetryAfterHeader = "Retry-After";
constexpr int kHTTPStatusBadRequest = 400;
constexpr int kHTTPStatusUnauthorized = 401;
constexpr int kHTTPStatusRequestTimeout = 408;
constexpr int kHTTPStatusTooManyRequests = 429;
constexpr int kHTTPStatusUnavailable = 503;
constexpr int kLastClientError = 499;
// A longer pause than this is taken as this: a back end cannot hold data back for days.
constexpr auto kLongestRetryAfter = std::chrono::hours(1);

// An HTTP date in its preferred form, "Sun, 06 Nov 1994 08:49:37 GMT".
std::optional<Date> parseHttpDate(std::string_view text) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::string copy(text);
  char weekday[4] = {};
  char monthName[4] = {};
  char zone[4] = {};
  int day = 0;
  int year = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int consumed = 0;
  if (std::sscanf(copy.c_str(), "%3s, %d %3s %d %d:%d:%d %3s%n", weekday, &day, monthName, &year,
                  &hour, &minute, &second, zone, &consumed) != 8 ||
      static_cast<std::size_t>(consumed) != copy.size() || std::string_view(zone) != "GMT") {
    return std::nullopt;
  }
  const auto month = std::find(kMonths.begin(), kMonths.end(), std::string_view(monthName));
  const std::chrono::year_month_day date{
      std::chrono::year(year),
      std::chrono::month(static_cast<unsigned>(month - kMonths.begin() + 1)),
      std::chrono::day(static_cast<unsigned>(day))};
  if (month == kMonths.end() || !date.ok() || year < kEarliestDateYear || year > kLatestDateYear ||
      hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 60) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
         std::chrono::seconds(second);
}

// The data points of an upload file: the elements of its top-level array, counted without
// building them.
class ElementCounter : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::uint64_t count = 0;

  bool null() override { return value(); }
  bool boolean(bool) override { return value(); }
  bool number_integer(number_integer_t) override { return value(); }
  bool number_unsigned(number_unsigned_t) override { return value(); }
  bool number_float(number_float_t, const string_t&) override { return value(); }
  bool string(string_t&) override { return value(); }
  bool binary(binary_t&) override { return value(); }
  bool start_object(std::size_t) override { return open(); }
  bool key(string_t&) override { return true; }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  bool value() {
    count += depth_ == 1 ? 1 : 0;
    return true;
  }
  bool open() {
    value();
    ++depth_;
    return true;
  }
  bool close() {
    --depth_;
    return true;
  }
  int depth_ = 0;
};

std::uint64_t countDataPoints(const Bytes& bytes) {
  ElementCounter counter;
  if (!nlohmann::json::sax_parse(bytes.begin(), bytes.end(), &counter)) {
    return 0;
  }
  return counter.count;
}

std::string reasonText(const std::optional<Bytes>& data, int httpStatus) {
  if (!data || data->empty()) {
    return "HTTP status " + std::to_string(httpStatus);
  }
  const auto length = std::min(data->size(), FileServer::kMaximumReasonBytes);
  return std::string(data->begin(), data->begin() + static_cast<std::ptrdiff_t>(length));
}

}  // namespace

std::optional<Date> retryNotBefore(const HTTPURLResponse& response, Date now) {
  if (response.statusCode != kHTTPStatusTooManyRequests &&
      response.statusCode != kHTTPStatusUnavailable) {
    return std::nullopt;
  }
  const auto header = std::find_if(
      response.headerFields.begin(), response.headerFields.end(),
      [](const auto& field) { return equalsIgnoringCase(field.first, kRetryAfterHeader); });
  if (header == response.headerFields.end()) {
    return std::nullopt;
  }
  const auto value = trimmed(header->second);
  std::optional<Date> until;
  std::uint32_t seconds = 0;
  if (const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), seconds);
      error == std::errc() && end == value.data() + value.size()) {
    until = now + std::chrono::seconds(seconds);
  } else {
    until = parseHttpDate(value);
  }
  if (!until) {
    return std::nullopt;
  }
  return std::min<Date>(*until, now + kLongestRetryAfter);
}

bool isRefusal(int httpStatus) {
  return httpStatus >= kHTTPStatusBadRequest && httpStatus <= kLastClientError &&
         httpStatus != kHTTPStatusUnauthorized && httpStatus != kHTTPStatusForbidden &&
         httpStatus != kHTTPStatusRequestTimeout && httpStatus != kHTTPStatusTooManyRequests;
}

DeliveryRecorder::DeliveryRecorder(std::shared_ptr<DefaultsStore> defaults,
                                   std::shared_ptr<Clock> clock,
                                   std::shared_ptr<DispatchQueue> queue, FileServer fileServer,
                                   Listener listener)
    : store_(std::move(defaults)),
      clock_(std::move(clock)),
      queue_(std::move(queue)),
      fileServer_(std::move(fileServer)),
      listener_(std::move(listener)) {}

void DeliveryRecorder::fileAnswered(FileNameComponents fileName, bool bulk,
                                    std::optional<Bytes> data,
                                    std::optional<HTTPURLResponse> response,
                                    std::optional<Error> error) {
  queue_->async([self = shared_from_this(), fileName = std::move(fileName), bulk,
                 data = std::move(data), response = std::move(response),
                 error = std::move(error)]() mutable {
    const auto now = self->clock_->now();
    DeliveryEvent event;
    event.family = familyOfFile(fileName);
    event.fileName = fileName.fileName();
    event.accepted = isAccepted(response, error);
    event.error = error;
    if (response) {
      event.httpStatus = response->statusCode;
      // Read before an accepted file goes.
      if (auto bytes = self->fileServer_.read(fileName, bulk)) {
        event.dataPoints = countDataPoints(*bytes);
      }
    }
    const bool gone = handleUploadOutcome(self->fileServer_, fileName, bulk, response, error);
    const auto stored = self->store_.attempts(event.fileName);
    auto attempts = stored;
    if (gone) {
      attempts = {};
    } else if (response) {
      attempts.notBefore = retryNotBefore(*response, now);
      event.retryNotBefore = attempts.notBefore;
      attempts.refusals = isRefusal(response->statusCode) ? attempts.refusals + 1 : 0;
      if (attempts.refusals >= kRefusalsBeforeSetAside &&
          self->fileServer_.setAside(RejectedFile{fileName, bulk, response->statusCode,
                                                  attempts.refusals,
                                                  reasonText(data, response->statusCode), now})) {
        event.setAside = true;
        attempts = {};
      }
    }
    // No answer at all is neither a refusal nor the end of a row of them: nothing changes.
    // Most answers change nothing either, and cost no write.
    if (attempts != stored) {
      self->store_.setAttempts(event.fileName, attempts);
    }
    self->record(std::move(event), now, data);
  });
}

void DeliveryRecorder::statisticsAnswered(std::uint64_t dataPoints, bool accepted,
                                          std::optional<Bytes> data,
                                          std::optional<HTTPURLResponse> response,
                                          std::optional<Error> error) {
  queue_->async([self = shared_from_this(), dataPoints, accepted, data = std::move(data),
                 response = std::move(response), error = std::move(error)] {
    const auto now = self->clock_->now();
    DeliveryEvent event;
    event.family = std::string(kStatisticsFamily);
    event.dataPoints = dataPoints;
    event.accepted = accepted;
    event.error = error;
    if (response) {
      event.httpStatus = response->statusCode;
      event.retryNotBefore = retryNotBefore(*response, now);
    }
    self->record(std::move(event), now, data);
  });
}

void DeliveryRecorder::record(DeliveryEvent event, Date now, const std::optional<Bytes>& data) {
  if (std::find(kDeliveryFamilies.begin(), kDeliveryFamilies.end(), event.family) !=
      kDeliveryFamilies.end()) {
    auto state = store_.family(event.family);
    if (event.accepted) {
      state.lastDelivered = now;
      state.deliveredPoints += event.dataPoints;
    } else if (event.httpStatus) {
      state.lastError =
          DeliveryFailure{event.httpStatus, std::string(kHTTPStatusErrorDomain), *event.httpStatus,
                          reasonText(data, *event.httpStatus), now};
    } else if (event.error) {
      state.lastError =
          DeliveryFailure{std::nullopt, event.error->domain, static_cast<int>(event.error->code),
                          event.error->description, now};
    }
    store_.setFamily(event.family, state);
  }
  if (listener_) {
    listener_(event);
  }
}

void DeliveryRecorder::sendWhenAllowed(FileNameComponents fileName, bool bulk, Resend resend) {
  const auto name = fileName.fileName();
  const auto notBefore = store_.attempts(name).notBefore;
  const auto now = clock_->now();
  if (!notBefore || *notBefore <= now) {
    resend(std::move(fileName), bulk);
    return;
  }
  std::lock_guard lock(mutex_);
  auto& timer = deferred_[name];
  if (timer && timer->isArmed()) {
    return;
  }
  // NOTE: the handler holds `resend`, and so the API, only while the timer is armed: firing
  // drops the timer.
  timer = clock_->makeTimer(queue_, [weak = weak_from_this(), name, fileName = std::move(fileName),
                                     bulk, resend = std::move(resend)] {
    auto self = weak.lock();
    if (!self) {
      return;
    }
    std::unique_ptr<Timer> fired;
    {
      std::lock_guard lock(self->mutex_);
      if (auto found = self->deferred_.find(name); found != self->deferred_.end()) {
        fired = std::move(found->second);
        self->deferred_.erase(found);
      }
    }
    resend(fileName, bulk);
  });
  timer->schedule(*notBefore - now);
}

}  // namespace kestrova
