// The fixed texts of Apple Health exports (element and attribute names, category values, workout
// activity names, electrocardiogram header keys) and the names under which the importer reports
// what it skipped. Constants and pure lookups over constant tables: safe on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/health/sample.h"

namespace kestrova::exportxml {

// Elements.
inline constexpr std::string_view kHealthData = "HealthData";
inline constexpr std::string_view kExportDate = "ExportDate";
inline constexpr std::string_view kMe = "Me";
inline constexpr std::string_view kRecord = "Record";
inline constexpr std::string_view kMetadataEntry = "MetadataEntry";
inline constexpr std::string_view kCorrelation = "Correlation";
inline constexpr std::string_view kWorkout = "Workout";
inline constexpr std::string_view kWorkoutActivity = "WorkoutActivity";
inline constexpr std::string_view kWorkoutStatistics = "WorkoutStatistics";
inline constexpr std::string_view kWorkoutEvent = "WorkoutEvent";
inline constexpr std::string_view kWorkoutRoute = "WorkoutRoute";
inline constexpr std::string_view kHeartRateVariabilityList = "HeartRateVariabilityMetadataList";

// Attributes.
inline constexpr std::string_view kType = "type";
inline constexpr std::string_view kUnit = "unit";
inline constexpr std::string_view kValue = "value";
inline constexpr std::string_view kKey = "key";
inline constexpr std::string_view kSourceName = "sourceName";
inline constexpr std::string_view kSourceVersion = "sourceVersion";
inline constexpr std::string_view kDevice = "device";
inline constexpr std::string_view kCreationDate = "creationDate";
inline constexpr std::string_view kStartDate = "startDate";
inline constexpr std::string_view kEndDate = "endDate";
inline constexpr std::string_view kWorkoutActivityType = "workoutActivityType";
inline constexpr std::string_view kDuration = "duration";
inline constexpr std::string_view kDurationUnit = "durationUnit";
inline constexpr std::string_view kTotalDistance = "totalDistance";
inline constexpr std::string_view kTotalDistanceUnit = "totalDistanceUnit";
inline constexpr std::string_view kTotalEnergyBurned = "totalEnergyBurned";
inline constexpr std::string_view kTotalEnergyBurnedUnit = "totalEnergyBurnedUnit";
inline constexpr std::string_view kSum = "sum";

// What the first kilobyte of the main document contains, whatever the file is called.
inline constexpr std::string_view kDoctypeMarker = "<!DOCTYPE HealthData";
inline constexpr std::string_view kRootMarker = "<HealthData";
inline constexpr std::string_view kDoctypeStart = "<!DOCTYPE";

// Metadata keys whose values keep a meaning of their own.
inline constexpr std::string_view kMetadataTimeZone = "HKTimeZone";
inline constexpr std::string_view kMetadataWeatherHumidity = "HKWeatherHumidity";

// Quantity types whose workout statistics give the workout's totals.
inline constexpr std::string_view kDistanceTypePrefix = "HKQuantityTypeIdentifierDistance";
inline constexpr std::string_view kActiveEnergyType = "HKQuantityTypeIdentifierActiveEnergyBurned";

// Folder of the electrocardiogram files inside an export, and what their names look like.
inline constexpr std::string_view kElectrocardiogramFolder = "electrocardiograms";
inline constexpr std::string_view kElectrocardiogramPrefix = "ecg_";
inline constexpr std::string_view kCsvSuffix = ".csv";
inline constexpr std::string_view kXmlSuffix = ".xml";
// Resource forks and Finder files that re-zipping on a Mac adds.
inline constexpr std::string_view kMacResourceFolder = "__MACOSX";
inline constexpr std::string_view kAppleDoublePrefix = "._";

// Category value by its platform name ("HKCategoryValueSleepAnalysisAsleepCore"); none for a
// name the table does not know.
std::optional<int> categoryValue(std::string_view name);
// HKWorkoutActivityType raw value by its platform name ("HKWorkoutActivityTypeRunning").
std::optional<std::uint32_t> workoutActivityType(std::string_view name);
inline constexpr std::uint32_t kWorkoutActivityTypeOther = 3000;
// An electrocardiogram classification as the export's CSV writes it ("Sinus Rhythm").
Electrocardiogram::Classification electrocardiogramClassification(std::string_view text);

}  // namespace kestrova::exportxml
