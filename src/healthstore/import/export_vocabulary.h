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
inline constexpr std::string_view kInstantaneousBeats = "InstantaneousBeatsPerMinute";
inline constexpr std::string_view kLocation = "Location";
inline constexpr std::string_view kFileReference = "FileReference";
inline constexpr std::string_view kActivitySummary = "ActivitySummary";

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
inline constexpr std::string_view kDate = "date";
inline constexpr std::string_view kPath = "path";
inline constexpr std::string_view kBeatsPerMinute = "bpm";
inline constexpr std::string_view kTime = "time";
inline constexpr std::string_view kLatitude = "latitude";
inline constexpr std::string_view kLongitude = "longitude";
inline constexpr std::string_view kAltitude = "altitude";
inline constexpr std::string_view kHorizontalAccuracy = "horizontalAccuracy";
inline constexpr std::string_view kVerticalAccuracy = "verticalAccuracy";
inline constexpr std::string_view kCourse = "course";
inline constexpr std::string_view kSpeed = "speed";
inline constexpr std::string_view kDateComponents = "dateComponents";
inline constexpr std::string_view kActiveEnergyBurned = "activeEnergyBurned";
inline constexpr std::string_view kActiveEnergyBurnedGoal = "activeEnergyBurnedGoal";
inline constexpr std::string_view kActiveEnergyBurnedUnit = "activeEnergyBurnedUnit";
inline constexpr std::string_view kAppleMoveTime = "appleMoveTime";
inline constexpr std::string_view kAppleMoveTimeGoal = "appleMoveTimeGoal";
inline constexpr std::string_view kAppleExerciseTime = "appleExerciseTime";
inline constexpr std::string_view kAppleExerciseTimeGoal = "appleExerciseTimeGoal";
inline constexpr std::string_view kAppleStandHours = "appleStandHours";
inline constexpr std::string_view kAppleStandHoursGoal = "appleStandHoursGoal";

// The JSON form of elements kept as written.
inline constexpr std::string_view kJsonName = "name";
inline constexpr std::string_view kJsonAttributes = "attributes";
inline constexpr std::string_view kJsonChildren = "children";

// GPX route files.
inline constexpr std::string_view kGpxPoint = "trkpt";
inline constexpr std::string_view kGpxLatitude = "lat";
inline constexpr std::string_view kGpxLongitude = "lon";
inline constexpr std::string_view kGpxElevation = "ele";
inline constexpr std::string_view kGpxTime = "time";
inline constexpr std::string_view kGpxSpeed = "speed";
inline constexpr std::string_view kGpxCourse = "course";
inline constexpr std::string_view kGpxHorizontalAccuracy = "hAcc";
inline constexpr std::string_view kGpxVerticalAccuracy = "vAcc";
inline constexpr std::string_view kRouteFolder = "workout-routes";

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
