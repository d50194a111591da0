// Health samples as the platform models them: a UUID, a type, a time span, metadata, the source
// revision that wrote it and the device; quantity, category, workout and electrocardiogram
// kinds. Samples are immutable once made and shared as shared_ptr<const ...>: thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/clock.h"
#include "platform/health/object_type.h"
#include "platform/health/quantity.h"
#include "platform/health/uuid.h"
#include "platform/result.h"

namespace kestrova {

inline constexpr std::string_view kHealthErrorDomain = "HealthStore";
// Error codes as the platform's HKError.
enum HealthErrorCode : std::int64_t {
  kHealthErrorNoData = 11,
  kHealthErrorInvalidArgument = 3,
  kHealthErrorDatabaseInaccessible = 6,
};
Error healthError(std::int64_t code, std::string description);

inline constexpr std::string_view kMetadataKeyWasUserEntered = "HKWasUserEntered";

using MetadataValue = std::variant<std::string, double, std::int64_t, bool, Date, Quantity>;
using Metadata = std::map<std::string, MetadataValue, std::less<>>;

struct Source {
  std::string name;
  std::string bundleIdentifier;

  friend bool operator==(const Source&, const Source&) = default;
};

struct OperatingSystemVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;

  friend bool operator==(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};

struct SourceRevision {
  Source source;
  std::optional<std::string> version;
  // "iPhone15,2", "Watch6,7": what kind of hardware wrote the sample.
  std::optional<std::string> productType;
  OperatingSystemVersion operatingSystemVersion;

  friend bool operator==(const SourceRevision&, const SourceRevision&) = default;
};

struct Device {
  std::optional<std::string> name;
  std::optional<std::string> manufacturer;
  std::optional<std::string> model;
  std::optional<std::string> hardwareVersion;
  std::optional<std::string> firmwareVersion;
  std::optional<std::string> softwareVersion;
  std::optional<std::string> localIdentifier;
  std::optional<std::string> udiDeviceIdentifier;

  friend bool operator==(const Device&, const Device&) = default;
};

// What every sample has; the kind-specific factories add the rest.
struct SampleProperties {
  Uuid uuid = Uuid::random();
  Date startDate;
  Date endDate;
  Metadata metadata;
  SourceRevision sourceRevision;
  std::optional<Device> device;
};

class Sample {
 public:
  virtual ~Sample() = default;

  const Uuid& uuid() const { return properties_.uuid; }
  const ObjectType& sampleType() const { return type_; }
  Date startDate() const { return properties_.startDate; }
  Date endDate() const { return properties_.endDate; }
  const Metadata& metadata() const { return properties_.metadata; }
  const SourceRevision& sourceRevision() const { return properties_.sourceRevision; }
  const std::optional<Device>& device() const { return properties_.device; }
  const SampleProperties& properties() const { return properties_; }

 protected:
  Sample(ObjectType type, SampleProperties properties)
      : type_(type), properties_(std::move(properties)) {}

 private:
  ObjectType type_;
  SampleProperties properties_;
};

using SamplePtr = std::shared_ptr<const Sample>;

class QuantitySample : public Sample {
 public:
  // Errors: a type that is not a quantity type, a unit incompatible with the type, an end
  // before the start.
  static Result<std::shared_ptr<const QuantitySample>> make(ObjectType type, Quantity quantity,
                                                            SampleProperties properties);

  const Quantity& quantity() const { return quantity_; }

 private:
  QuantitySample(ObjectType type, Quantity quantity, SampleProperties properties)
      : Sample(type, std::move(properties)), quantity_(std::move(quantity)) {}
  Quantity quantity_;
};

// Raw values as HKCategoryValueSleepAnalysis.
enum SleepAnalysisValue : int {
  kSleepInBed = 0,
  kSleepAsleepUnspecified = 1,
  kSleepAwake = 2,
  kSleepAsleepCore = 3,
  kSleepAsleepDeep = 4,
  kSleepAsleepREM = 5,
};

class CategorySample : public Sample {
 public:
  static Result<std::shared_ptr<const CategorySample>> make(ObjectType type, int value,
                                                            SampleProperties properties);

  int value() const { return value_; }

 private:
  CategorySample(ObjectType type, int value, SampleProperties properties)
      : Sample(type, std::move(properties)), value_(value) {}
  int value_;
};

class Workout : public Sample {
 public:
  struct Details {
    // HKWorkoutActivityType raw value; unknown values are kept as they are.
    std::uint32_t workoutActivityType = 3000;
    // Active seconds; zero means the whole span from start to end.
    double duration = 0;
    std::optional<Quantity> totalEnergyBurned;
    std::optional<Quantity> totalDistance;
  };

  // Errors: an energy total that is not an energy, a distance that is not a length, an end
  // before the start, a negative duration.
  static Result<std::shared_ptr<const Workout>> make(Details details, SampleProperties properties);

  std::uint32_t workoutActivityType() const { return details_.workoutActivityType; }
  // Seconds, as stored (never recomputed from the dates once given).
  double duration() const { return details_.duration; }
  const std::optional<Quantity>& totalEnergyBurned() const { return details_.totalEnergyBurned; }
  const std::optional<Quantity>& totalDistance() const { return details_.totalDistance; }
  const Details& details() const { return details_; }

 private:
  Workout(Details details, SampleProperties properties)
      : Sample(ObjectType::workoutType(), std::move(properties)), details_(std::move(details)) {}
  Details details_;
};

class Electrocardiogram : public Sample {
 public:
  // Raw values as HKElectrocardiogram.Classification and .SymptomsStatus.
  enum class Classification : int {
    notSet = 0,
    sinusRhythm = 1,
    atrialFibrillation = 2,
    inconclusiveLowHeartRate = 3,
    inconclusiveHighHeartRate = 4,
    inconclusivePoorReading = 5,
    inconclusiveOther = 6,
    unrecognized = 100,
  };
  enum class SymptomsStatus : int { notSet = 0, none = 1, present = 2 };

  struct Details {
    std::optional<Quantity> samplingFrequency;
    int numberOfVoltageMeasurements = 0;
    Classification classification = Classification::notSet;
    SymptomsStatus symptomsStatus = SymptomsStatus::notSet;
    std::optional<Quantity> averageHeartRate;
  };

  static Result<std::shared_ptr<const Electrocardiogram>> make(Details details,
                                                               SampleProperties properties);

  const std::optional<Quantity>& samplingFrequency() const { return details_.samplingFrequency; }
  int numberOfVoltageMeasurements() const { return details_.numberOfVoltageMeasurements; }
  Classification classification() const { return details_.classification; }
  SymptomsStatus symptomsStatus() const { return details_.symptomsStatus; }
  const std::optional<Quantity>& averageHeartRate() const { return details_.averageHeartRate; }
  const Details& details() const { return details_; }

 private:
  Electrocardiogram(Details details, SampleProperties properties)
      : Sample(ObjectType::electrocardiogramType(), std::move(properties)),
        details_(std::move(details)) {}
  Details details_;
};

// What an anchored query reports for a sample that was deleted.
struct DeletedObject {
  Uuid uuid;
  Metadata metadata;
};

}  // namespace kestrova
