// The stored text forms of sample metadata, devices and kind-specific details (JSON), kept in
// one place because they are on disk. Pure functions: no state.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "healthstore/stored_rows.h"
#include "platform/health/sample.h"
#include "platform/result.h"

namespace kestrova {

// Dates are stored as whole microseconds since 1970 (the precision of the platform's dates).
inline std::int64_t storedTime(Date date) {
  return std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch()).count();
}
inline Date dateFromStored(std::int64_t micros) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::microseconds(micros)));
}

// HKWasUserEntered as a flag: false when absent.
bool wasUserEntered(const Metadata& metadata);

// Empty metadata is stored as NULL, so both return none / take none for it.
std::optional<std::string> encodeMetadata(const Metadata& metadata);
Result<Metadata> decodeMetadata(std::string_view text);

std::string encodeDevice(const std::optional<Device>& device);
Result<std::optional<Device>> decodeDevice(std::string_view text);

std::string encodeWorkoutDetails(const Workout::Details& details);
Result<Workout::Details> decodeWorkoutDetails(std::string_view text);

std::string encodeElectrocardiogramDetails(const Electrocardiogram::Details& details);
Result<Electrocardiogram::Details> decodeElectrocardiogramDetails(std::string_view text);

// Voltages in volts as little-endian IEEE doubles.
Bytes encodeVoltages(const std::vector<double>& volts);
std::vector<double> decodeVoltages(std::span<const std::uint8_t> bytes);
// Route points and heart beats the same way, field after field.
Bytes encodeLocations(const std::vector<RouteLocation>& locations);
std::vector<RouteLocation> decodeLocations(std::span<const std::uint8_t> bytes);
Bytes encodeBeats(const std::vector<BeatRow>& beats);
std::vector<BeatRow> decodeBeats(std::span<const std::uint8_t> bytes);

}  // namespace kestrova
