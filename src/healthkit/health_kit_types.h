// The health-store types the library reads: the three fixed quantity-type sets, the read type
// set, and the object type of each public data type. Built once; immutable; any thread.
#pragma once

#include <optional>
#include <vector>

#include "kestrova/data_type.h"
#include "platform/health/object_type.h"
#include "platform/platform.h"

namespace kestrova {

// Step count, the five distances, basal and active energy, heart rate, resting heart rate.
const std::vector<ObjectType>& dailySummaryTypes();
// The daily summary types without the two heart-rate types.
const std::vector<ObjectType>& dailyDetailTypes();
const std::vector<ObjectType>& bodyMeasurementTypes();

// Workouts, sleep analysis, mindful sessions, electrocardiograms (from system 14.0) and the
// union of the three quantity sets: the types with background delivery.
std::vector<ObjectType> readTypes(SystemVersion system);

// The type a data type stands for; none for electrocardiograms before system 14.0.
std::optional<ObjectType> objectType(KestrovaHealthKitDataType dataType, SystemVersion system);

// Electrocardiograms exist from this system version on, sleep stages from 16.0.
inline constexpr int kElectrocardiogramSystemMajor = 14;
inline constexpr int kSleepStagesSystemMajor = 16;

}  // namespace kestrova
