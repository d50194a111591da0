#include "storage/delivery_store.h"

#include <chrono>

#include "storage/profile_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kLastDelivered = "lastDelivered";
constexpr std::string_view kLastError = "lastError";
constexpr std::string_view kDeliveredPoints = "deliveredPoints";
constexpr std::string_view kHttpStatus = "httpStatus";
constexpr std::string_view kDomain = "domain";
constexpr std::string_view kCode = "code";
constexpr std::string_view kMessage = "message";
constexpr std::string_view kAt = "at";
constexpr std::string_view kRefusals = "refusals";
constexpr std::string_view kNotBefore = "notBefore";

using Milliseconds = std::chrono::milliseconds;

nlohmann::json dateJson(Date date) {
  return std::chrono::duration_cast<Milliseconds>(date.time_since_epoch()).count();
}

std::optional<Date> dateFrom(const nlohmann::json& json, std::string_view key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_number_integer()) {
    return std::nullopt;
  }
  return Date(Milliseconds(found->get<std::int64_t>()));
}

std::string key(std::string_view prefix, std::string_view name) {
  std::string text(prefix);
  text += name;
  return text;
}

}  // namespace

FamilyDelivery DeliveryStore::family(std::string_view family) const {
  FamilyDelivery delivery;
  const auto json = loadJson(*defaults_, key(kFamilyKeyPrefix, family));
  if (!json || !json->is_object()) {
    return delivery;
  }
  delivery.lastDelivered = dateFrom(*json, kLastDelivered);
  delivery.deliveredPoints = json->value(kDeliveredPoints, std::uint64_t{0});
  if (const auto error = json->find(kLastError); error != json->end() && error->is_object()) {
    DeliveryFailure failure;
    if (const auto status = error->find(kHttpStatus);
        status != error->end() && status->is_number_integer()) {
      failure.httpStatus = status->get<int>();
    }
    failure.domain = error->value(kDomain, std::string());
    failure.code = error->value(kCode, 0);
    failure.message = error->value(kMessage, std::string());
    failure.at = dateFrom(*error, kAt).value_or(Date{});
    delivery.lastError = std::move(failure);
  }
  return delivery;
}

void DeliveryStore::setFamily(std::string_view family, const FamilyDelivery& delivery) {
  nlohmann::json json = {{kDeliveredPoints, delivery.deliveredPoints}};
  if (delivery.lastDelivered) {
    json[kLastDelivered] = dateJson(*delivery.lastDelivered);
  }
  if (const auto& failure = delivery.lastError) {
    json[kLastError] = {{kDomain, failure->domain},
                        {kCode, failure->code},
                        {kMessage, failure->message},
                        {kAt, dateJson(failure->at)}};
    if (failure->httpStatus) {
      json[kLastError][kHttpStatus] = *failure->httpStatus;
    }
  }
  storeJson(*defaults_, key(kFamilyKeyPrefix, family), json);
}

UploadAttempts DeliveryStore::attempts(std::string_view fileName) const {
  UploadAttempts attempts;
  const auto json = loadJson(*defaults_, key(kAttemptsKeyPrefix, fileName));
  if (!json || !json->is_object()) {
    return attempts;
  }
  attempts.refusals = json->value(kRefusals, 0);
  attempts.notBefore = dateFrom(*json, kNotBefore);
  return attempts;
}

void DeliveryStore::setAttempts(std::string_view fileName, const UploadAttempts& attempts) {
  const auto name = key(kAttemptsKeyPrefix, fileName);
  if (attempts.refusals == 0 && !attempts.notBefore) {
    defaults_->removeObject(name);
    return;
  }
  nlohmann::json json = {{kRefusals, attempts.refusals}};
  if (attempts.notBefore) {
    json[kNotBefore] = dateJson(*attempts.notBefore);
  }
  storeJson(*defaults_, name, json);
}

}  // namespace kestrova
