#include "healthstore/import/ecg_csv.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>

#include "healthstore/import/export_source.h"
#include "healthstore/import/export_values.h"
#include "healthstore/import/export_vocabulary.h"
#include "platform/log.h"

namespace kestrova {
namespace {

enum Field : std::size_t {
  kRecordedDate,
  kClassification,
  kSymptoms,
  kSoftwareVersion,
  kDeviceField,
  kSampleRate,
  kUnitField,
  kFieldCount,
};

struct FieldKey {
  std::string_view key;
  // Line of the field in the English layout, for files whose keys are translated.
  std::size_t line;
};
constexpr std::array<FieldKey, kFieldCount> kFields = {{
    {"Recorded Date", 2},
    {"Classification", 3},
    {"Symptoms", 4},
    {"Software Version", 5},
    {"Device", 6},
    {"Sample Rate", 7},
    {"Unit", 11},
}};

constexpr std::string_view kNoSymptoms = "None";
constexpr std::string_view kMicroSign = "\xC2\xB5";  // U+00B5, as the files write it
constexpr std::string_view kGreekMu = "\xCE\xBC";    // U+03BC, as people type it
constexpr std::string_view kMicroPrefix = "mc";      // the unit grammar's micro
constexpr std::string_view kDefaultVoltageUnit = "mcV";
constexpr char kSeparator = '\x1f';
// Recordings last 30 seconds: a rate that stretches one past a day is no rate, and one small
// enough would stretch it past what a Date holds.
constexpr double kLongestRecordingSeconds = 24 * 60 * 60;

constexpr std::string_view kFileError = "%@: %@";
constexpr std::string_view kNotANumber = "line %@ is not a number";
constexpr std::string_view kNoDate = "no readable recording date";
constexpr std::string_view kNoRate = "no readable sample rate";
constexpr std::string_view kNoMeasurements = "no measurements";
constexpr std::string_view kUnknownUnit = "unknown voltage unit \"%@\"";

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

std::string_view unquote(std::string_view text) {
  text = trim(text);
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    text = text.substr(1, text.size() - 2);
  }
  return text;
}

Error csvError(std::string_view fileName, std::string description) {
  return importError(kImportErrorMalformed, logging::format(kFileError, {fileName, description}));
}

// "513.625 hertz" -> 513.625 (the number that starts the text).
std::optional<double> leadingNumber(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end == text.data() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

Result<ParsedElectrocardiogram> parseElectrocardiogramCsv(std::string_view text,
                                                          std::string_view fileName) {
  std::array<std::optional<std::string_view>, kFieldCount> fields{};
  std::array<std::string_view, 12> headerValues{};
  std::size_t lineNumber = 0;
  std::size_t measurementsFrom = 0;  // line index after the header; 0: not yet known
  bool englishKeys = false;
  ParsedElectrocardiogram parsed;
  std::vector<double>& values = parsed.volts;

  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = trim(text.substr(at, end - at));
    at = end + 1;
    const std::size_t index = lineNumber++;
    if (measurementsFrom == 0) {
      const std::size_t comma = line.find(',');
      const std::string_view key = line.substr(0, comma);
      const std::string_view value =
          comma == std::string_view::npos ? std::string_view() : unquote(line.substr(comma + 1));
      if (index < headerValues.size()) {
        headerValues[index] = value;
      }
      for (std::size_t field = 0; field < kFieldCount; ++field) {
        if (key == kFields[field].key) {
          fields[field] = value;
          englishKeys = true;
        }
      }
      if (key == kFields[kUnitField].key || (!englishKeys && index == kFields[kUnitField].line)) {
        measurementsFrom = index + 1;
      }
      continue;
    }
    if (line.empty()) {
      continue;
    }
    std::string number(line);
    if (const std::size_t comma = number.find(','); comma != std::string::npos) {
      if (number.find(',', comma + 1) != std::string::npos) {
        return csvError(fileName, logging::format(kNotANumber, {std::to_string(lineNumber)}));
      }
      number[comma] = '.';
    }
    const std::optional<double> value = parseNumber(number);
    if (!value) {
      return csvError(fileName, logging::format(kNotANumber, {std::to_string(lineNumber)}));
    }
    values.push_back(*value);
  }
  for (std::size_t field = 0; field < kFieldCount; ++field) {
    if (!fields[field] && kFields[field].line < headerValues.size()) {
      fields[field] = headerValues[kFields[field].line];
    }
  }

  const std::optional<Date> recorded =
      fields[kRecordedDate] ? parseExportDate(*fields[kRecordedDate]) : std::nullopt;
  if (!recorded) {
    return csvError(fileName, std::string(kNoDate));
  }
  const std::optional<double> rate =
      fields[kSampleRate] ? leadingNumber(*fields[kSampleRate]) : std::nullopt;
  if (!rate || *rate <= 0 ||
      static_cast<double>(values.size()) / *rate > kLongestRecordingSeconds) {
    return csvError(fileName, std::string(kNoRate));
  }
  if (values.empty()) {
    return csvError(fileName, std::string(kNoMeasurements));
  }

  std::string unitText(fields[kUnitField].value_or(std::string_view()));
  for (std::string_view micro : {kMicroSign, kGreekMu}) {
    if (unitText.starts_with(micro)) {
      unitText.replace(0, micro.size(), kMicroPrefix);
    }
  }
  if (unitText.empty()) {
    unitText = kDefaultVoltageUnit;
  }
  Result<Unit> unit = Unit::fromString(unitText);
  if (!unit || !unit.value().isCompatible(Unit::volt())) {
    return csvError(fileName, logging::format(kUnknownUnit, {unitText}));
  }
  const double toVolts = unit.value().convert(1, Unit::volt()).value();
  for (double& value : values) {
    value *= toVolts;
  }

  Electrocardiogram::Details details;
  details.samplingFrequency = Quantity(Unit::hertz(), *rate);
  details.numberOfVoltageMeasurements = static_cast<int>(values.size());
  details.classification = exportxml::electrocardiogramClassification(
      fields[kClassification].value_or(std::string_view()));
  const std::string_view symptoms = fields[kSymptoms].value_or(std::string_view());
  details.symptomsStatus = symptoms.empty()          ? Electrocardiogram::SymptomsStatus::notSet
                           : symptoms == kNoSymptoms ? Electrocardiogram::SymptomsStatus::none
                                                     : Electrocardiogram::SymptomsStatus::present;

  SampleProperties properties = unnamedProperties();
  properties.startDate = *recorded;
  properties.endDate =
      *recorded + std::chrono::duration_cast<Date::duration>(
                      std::chrono::duration<double>(static_cast<double>(values.size()) / *rate));
  const std::string_view device = fields[kDeviceField].value_or(std::string_view());
  properties.sourceRevision.source = Source{std::string(kElectrocardiogramSourceName),
                                            deriveBundleIdentifier(kElectrocardiogramSourceName)};
  if (fields[kSoftwareVersion] && !fields[kSoftwareVersion]->empty()) {
    properties.sourceRevision.version = std::string(*fields[kSoftwareVersion]);
  }
  if (!device.empty()) {
    properties.sourceRevision.productType = std::string(device);
    properties.device = Device{};
    properties.device->hardwareVersion = std::string(device);
  }
  std::string name(kElectrocardiogramTypeIdentifier);
  name += kSeparator;
  name += std::to_string(
      std::chrono::duration_cast<std::chrono::microseconds>(recorded->time_since_epoch()).count());
  name += kSeparator;
  name += canonicalNumber(*rate);
  name += kSeparator;
  name += std::to_string(values.size());
  name += kSeparator;
  name += device;
  properties.uuid = nameBasedUuid(name);

  auto sample = Electrocardiogram::make(details, std::move(properties));
  if (!sample) {
    return csvError(fileName, sample.error().description);
  }
  parsed.sample = std::move(sample).value();
  return parsed;
}

}  // namespace kestrova
