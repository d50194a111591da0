#include "datapoints/envelope.h"

#include <array>
#include <set>
#include <type_traits>
#include <variant>

#include "datapoints/health_units.h"
#include "facade/formatters.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kSchemaKeyNamespace = "namespace";
inline constexpr std::string_view kSchemaKeyName = "name";
inline constexpr std::string_view kSchemaKeyVersion = "version";

// Tried in this order for a quantity in metadata: the units the bodies already use for
// distance, energy and time first, so that a lap length or an elevation reads like a
// workout's distance.
constexpr std::array kMetadataQuantityUnits = {
    Units::m,       Units::kcal, Units::sec,   Units::kg,   Units::l,    Units::C,
    Units::percent, Units::bpm,  Units::count, Units::mmHg, Units::mgdL, Units::mlPerKgMin,
};

// Consumed by the time formatting and by "modality", so never listed.
const std::set<std::string, std::less<>>& excludedMetadataKeys() {
  static const auto* const keys = new std::set<std::string, std::less<>>{
      std::string(kMetadataKeyTimeZone), std::string(kMetadataKeyWasUserEntered)};
  return *keys;
}

double quantityNumber(const Quantity& quantity) {
  for (Units candidate : kMetadataQuantityUnits) {
    const Unit unit = healthUnit(candidate);
    if (quantity.isCompatible(unit)) {
      if (Result<double> value = quantity.doubleValue(unit)) {
        return value.value();
      }
    }
  }
  // Always compatible with its own unit.
  return quantity.doubleValue(quantity.unit()).value();
}

}  // namespace

nlohmann::json toJson(const SchemaId& schema) {
  return nlohmann::json{{kSchemaKeyNamespace, schema.schemaNamespace},
                        {kSchemaKeyName, schema.name},
                        {kSchemaKeyVersion, schema.version}};
}

std::optional<std::string> sampleZoneIdentifier(const Sample& sample) {
  const auto found = sample.metadata().find(kMetadataKeyTimeZone);
  if (found == sample.metadata().end()) {
    return std::nullopt;
  }
  if (const auto* text = std::get_if<std::string>(&found->second)) {
    return *text;
  }
  return std::nullopt;
}

std::string formatDataPointDate(Date date, const std::optional<std::string>& zoneIdentifier) {
  const DataPointDateFormatter& formatter = DataPointDateFormatter::shared();
  return zoneIdentifier ? formatter.string(date, *zoneIdentifier) : formatter.string(date);
}

std::string formatSampleDate(const Sample& sample, SampleDate which) {
  return formatDataPointDate(which == SampleDate::start ? sample.startDate() : sample.endDate(),
                             sampleZoneIdentifier(sample));
}

nlohmann::json makeHeader(const SchemaId& schema, const Sample& sample) {
  const auto entered = sample.metadata().find(kMetadataKeyWasUserEntered);
  const bool selfReported = entered != sample.metadata().end() &&
                            std::holds_alternative<bool>(entered->second) &&
                            std::get<bool>(entered->second);
  return nlohmann::json{
      {kKeyId, sample.uuid().uuidString()},
      {kKeyCreationDateTime, formatSampleDate(sample, SampleDate::start)},
      {kKeySchemaId, toJson(schema)},
      {kKeyAcquisitionProvenance,
       {{kKeySourceName, sample.sourceRevision().source.bundleIdentifier},
        {kKeyModality, selfReported ? kModalitySelfReported : kModalitySensed}}},
  };
}

nlohmann::json makeEffectiveTimeFrame(const Sample& sample) {
  const std::optional<Date> end =
      sample.endDate() == sample.startDate() ? std::nullopt : std::optional(sample.endDate());
  return makeTimeFrame(sample.startDate(), end, sampleZoneIdentifier(sample));
}

nlohmann::json makeTimeFrame(Date start, std::optional<Date> end,
                             const std::optional<std::string>& zoneIdentifier) {
  if (!end) {
    return nlohmann::json{{kKeyDateTime, formatDataPointDate(start, zoneIdentifier)}};
  }
  return nlohmann::json{{kKeyTimeInterval,
                         {{kKeyStartDateTime, formatDataPointDate(start, zoneIdentifier)},
                          {kKeyEndDateTime, formatDataPointDate(*end, zoneIdentifier)}}}};
}

nlohmann::json makeMetadataList(const Sample& sample) {
  nlohmann::json list = nlohmann::json::array();
  const std::optional<std::string> zone = sampleZoneIdentifier(sample);
  for (const auto& [key, value] : sample.metadata()) {
    if (excludedMetadataKeys().contains(key)) {
      continue;
    }
    nlohmann::json converted = std::visit(
        [&zone](const auto& item) -> nlohmann::json {
          using T = std::decay_t<decltype(item)>;
          if constexpr (std::is_same_v<T, Date>) {
            return formatDataPointDate(item, zone);
          } else if constexpr (std::is_same_v<T, Quantity>) {
            return quantityNumber(item);
          } else {
            return item;
          }
        },
        value);
    list.push_back(nlohmann::json{{kKeyKey, key}, {kKeyValue, std::move(converted)}});
  }
  return list;
}

nlohmann::json makeValueWithUnit(double value, Units unit) {
  return makeValueWithUnit(value, rawValue(unit));
}

nlohmann::json makeValueWithUnit(double value, std::string_view unitText) {
  return nlohmann::json{{kKeyValue, value}, {kKeyUnit, unitText}};
}

nlohmann::json makeDataPoint(nlohmann::json header, nlohmann::json body) {
  return nlohmann::json{{kKeyHeader, std::move(header)}, {kKeyBody, std::move(body)}};
}

}  // namespace kestrova
