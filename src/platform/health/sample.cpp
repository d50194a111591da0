#include "platform/health/sample.h"

namespace kestrova {
namespace {

Status checkDates(const SampleProperties& properties) {
  if (properties.endDate < properties.startDate) {
    return healthError(
        kHealthErrorInvalidArgument,
        "The end date of sample " + properties.uuid.uuidString() + " is before its start date");
  }
  return std::nullopt;
}

Status checkKind(const ObjectType& type, ObjectKind kind) {
  if (type.kind() != kind) {
    return healthError(
        kHealthErrorInvalidArgument,
        "Object type " + std::string(type.identifier()) + " does not fit this kind of sample");
  }
  return std::nullopt;
}

Status checkUnit(const std::optional<Quantity>& quantity, const Unit& expected,
                 std::string_view what) {
  if (quantity && !quantity->isCompatible(expected)) {
    return healthError(kHealthErrorInvalidArgument,
                       std::string(what) + " in " + quantity->unit().unitString() +
                           " is not compatible with " + expected.unitString());
  }
  return std::nullopt;
}

}  // namespace

Error healthError(std::int64_t code, std::string description) {
  return Error{std::string(kHealthErrorDomain), code, std::move(description)};
}

Result<std::shared_ptr<const QuantitySample>> QuantitySample::make(ObjectType type,
                                                                   Quantity quantity,
                                                                   SampleProperties properties) {
  if (Status failure = checkKind(type, ObjectKind::quantity)) {
    return *failure;
  }
  if (Status failure = checkUnit(quantity, type.canonicalUnit(), type.identifier())) {
    return *failure;
  }
  if (Status failure = checkDates(properties)) {
    return *failure;
  }
  return std::shared_ptr<const QuantitySample>(
      new QuantitySample(type, std::move(quantity), std::move(properties)));
}

Result<std::shared_ptr<const CategorySample>> CategorySample::make(ObjectType type, int value,
                                                                   SampleProperties properties) {
  if (Status failure = checkKind(type, ObjectKind::category)) {
    return *failure;
  }
  if (Status failure = checkDates(properties)) {
    return *failure;
  }
  return std::shared_ptr<const CategorySample>(
      new CategorySample(type, value, std::move(properties)));
}

Result<std::shared_ptr<const Workout>> Workout::make(Details details, SampleProperties properties) {
  if (Status failure = checkDates(properties)) {
    return *failure;
  }
  if (Status failure =
          checkUnit(details.totalEnergyBurned, Unit::kilocalorie(), "Total energy burned")) {
    return *failure;
  }
  if (Status failure = checkUnit(details.totalDistance, Unit::meter(), "Total distance")) {
    return *failure;
  }
  if (details.duration < 0) {
    return healthError(kHealthErrorInvalidArgument, "A workout duration cannot be negative");
  }
  if (details.duration == 0) {
    details.duration =
        std::chrono::duration<double>(properties.endDate - properties.startDate).count();
  }
  return std::shared_ptr<const Workout>(new Workout(std::move(details), std::move(properties)));
}

Result<std::shared_ptr<const Electrocardiogram>> Electrocardiogram::make(
    Details details, SampleProperties properties) {
  if (Status failure = checkDates(properties)) {
    return *failure;
  }
  if (Status failure = checkUnit(details.samplingFrequency, Unit::hertz(), "Sampling frequency")) {
    return *failure;
  }
  if (Status failure =
          checkUnit(details.averageHeartRate, Unit::countPerMinute(), "Average heart rate")) {
    return *failure;
  }
  if (details.numberOfVoltageMeasurements < 0) {
    return healthError(kHealthErrorInvalidArgument,
                       "The number of voltage measurements cannot be negative");
  }
  return std::shared_ptr<const Electrocardiogram>(
      new Electrocardiogram(std::move(details), std::move(properties)));
}

}  // namespace kestrova
