// The value grammars of Apple Health exports: timestamps with their offsets, decimal numbers,
// the HKDevice description string, typed metadata values, the source bundle identifier the
// importer derives, and the name-based sample identities. Pure functions, except ImportUnits,
// which caches and belongs to one import (one thread).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/health/sample.h"
#include "platform/health/unit.h"
#include "platform/health/uuid.h"

namespace kestrova {

// "2019-05-14 19:05:29 -0400" as an instant; none for anything else. The offset is the one in
// force when the export was made, not when the sample was taken, so only the instant is kept.
std::optional<Date> parseExportDate(std::string_view text);

// The wall-clock time of day of such a timestamp, in seconds, as written; none for other text.
std::optional<double> exportTimeOfDay(std::string_view text);

// A time of day in a phone's format: "08:33:44,67", "6:14:48.94 PM", "11:17:20.53 AM", in
// seconds since midnight; none for anything else.
std::optional<double> parseTimeOfDay(std::string_view text);

// "2019-06-11T22:00:42Z" (GPX times) in seconds since 1970; none for anything else.
std::optional<double> parseUtcTimestamp(std::string_view text);

// A finite decimal number that fills the whole text ("47", "-0.5", "1e3"); none otherwise.
std::optional<double> parseNumber(std::string_view text);

// Shortest text that reads back as the same double: the form in which values enter identities,
// so that "47" and "47.0" name the same sample.
std::string canonicalNumber(double value);

// The `device` attribute, the platform's HKDevice description:
// "<<HKDevice: 0x…>, name:iPhone, manufacturer:Apple Inc., hardware:iPhone10,4, software:12.3>".
// Values may contain ", " (hardware:iPhone10,4), so fields are split only before known keys.
// Text that is not such a description becomes a device with that name (tools write
// "Dummy device").
std::optional<Device> parseDeviceDescription(std::string_view text);

// "17.2.1" -> {17, 2, 1}; missing or non-numeric parts are 0.
OperatingSystemVersion parseSystemVersion(std::string_view text);

// Exports name a source but not its bundle identifier, so the importer derives one from the
// name alone: "import.apple-health.<slug>.<hash>", where slug is the name in lower-case ASCII
// letters and digits with every other run of characters turned into one "-" (at most 40
// characters, "source" when nothing is left), and hash the first 8 hex digits of the SHA-1 name
// UUID of the exact name, so that "Alexandre's Watch" and "Alexandre’s Watch" stay apart.
std::string deriveBundleIdentifier(std::string_view sourceName);

// Sample properties whose identity is still to be named: the default one is random, and drawing
// it takes a process-wide lock for nothing.
SampleProperties unnamedProperties();

// Version 5 (SHA-1) UUID of `name` in the importer's own namespace. The namespace must never
// change: identities already stored depend on it.
Uuid nameBasedUuid(std::string_view name);

// Unit texts of exports mapped to units. The grammar is the platform's; a few spellings seen in
// real files that the grammar does not read are rewritten first. Owned by one import.
class ImportUnits {
 public:
  // Null when the text cannot be mapped; the pointer stays valid as long as this object.
  const Unit* find(std::string_view text);

 private:
  std::unordered_map<std::string, std::optional<Unit>> cache_;
};

// A metadata value with its type: HKWasUserEntered as a flag, HKTimeZone as text, whole numbers
// as integers, other numbers as doubles, timestamps as dates, "<number> <unit>" as quantities
// (percent values as fractions; HKWeatherHumidity above 100 % as written by newer exports, which
// scale it by a further 100), and everything else as text.
MetadataValue typedMetadataValue(std::string_view key, std::string_view text, ImportUnits& units);

}  // namespace kestrova
