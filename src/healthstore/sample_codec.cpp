#include "healthstore/sample_codec.h"

#include <bit>
#include <cstring>
#include <nlohmann/json.hpp>

namespace kestrova {
namespace {

using Json = nlohmann::json;

// Texts from imports may hold invalid UTF-8, on which a plain dump() throws: such bytes are
// replaced instead.
std::string dumped(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

constexpr std::string_view kCodecDomain = "HealthStoreCodec";

Json encodeQuantity(const Quantity& quantity) {
  return Json{{"v", quantity.doubleValue(quantity.unit()).value()},
              {"u", quantity.unit().unitString()}};
}

Result<Quantity> decodeQuantity(const Json& json) {
  Result<Unit> unit = Unit::fromString(json.at("u").get<std::string>());
  if (!unit) {
    return unit.error();
  }
  return Quantity(unit.value(), json.at("v").get<double>());
}

std::optional<Quantity> optionalQuantity(const Json& json, const char* key) {
  if (!json.contains(key)) {
    return std::nullopt;
  }
  Result<Quantity> quantity = decodeQuantity(json.at(key));
  if (!quantity) {
    return std::nullopt;
  }
  return quantity.value();
}

// nlohmann reports malformed stored text by throwing; this keeps that inside the codec.
template <class T, class Parse>
Result<T> parseStored(std::string_view text, Parse parse) {
  try {
    return parse(Json::parse(text));
  } catch (const std::exception& failure) {
    return Error{std::string(kCodecDomain), 1,
                 std::string("Unreadable stored value: ") + failure.what()};
  }
}

}  // namespace

bool wasUserEntered(const Metadata& metadata) {
  const auto found = metadata.find(kMetadataKeyWasUserEntered);
  if (found == metadata.end()) {
    return false;
  }
  if (const bool* flag = std::get_if<bool>(&found->second)) {
    return *flag;
  }
  if (const std::int64_t* number = std::get_if<std::int64_t>(&found->second)) {
    return *number != 0;
  }
  return false;
}

std::optional<std::string> encodeMetadata(const Metadata& metadata) {
  if (metadata.empty()) {
    return std::nullopt;
  }
  Json object = Json::object();
  for (const auto& [key, value] : metadata) {
    struct Encoder {
      Json operator()(const std::string& text) const { return {{"t", "s"}, {"v", text}}; }
      Json operator()(double number) const { return {{"t", "d"}, {"v", number}}; }
      Json operator()(std::int64_t number) const { return {{"t", "i"}, {"v", number}}; }
      Json operator()(bool flag) const { return {{"t", "b"}, {"v", flag}}; }
      Json operator()(Date date) const { return {{"t", "date"}, {"v", storedTime(date)}}; }
      Json operator()(const Quantity& quantity) const {
        return {{"t", "q"}, {"v", encodeQuantity(quantity)}};
      }
    };
    object[key] = std::visit(Encoder{}, value);
  }
  return dumped(object);
}

Result<Metadata> decodeMetadata(std::string_view text) {
  return parseStored<Metadata>(text, [](const Json& json) -> Result<Metadata> {
    Metadata metadata;
    for (const auto& [key, entry] : json.items()) {
      const std::string tag = entry.at("t").get<std::string>();
      const Json& value = entry.at("v");
      if (tag == "s") {
        metadata.emplace(key, value.get<std::string>());
      } else if (tag == "d") {
        metadata.emplace(key, value.get<double>());
      } else if (tag == "i") {
        metadata.emplace(key, value.get<std::int64_t>());
      } else if (tag == "b") {
        metadata.emplace(key, value.get<bool>());
      } else if (tag == "date") {
        metadata.emplace(key, dateFromStored(value.get<std::int64_t>()));
      } else if (tag == "q") {
        Result<Quantity> quantity = decodeQuantity(value);
        if (!quantity) {
          return quantity.error();
        }
        metadata.emplace(key, quantity.value());
      }
    }
    return metadata;
  });
}

namespace {
// Device fields in their stored order; never reorder the keys, they are on disk.
constexpr std::pair<const char*, std::optional<std::string> Device::*> kDeviceFields[] = {
    {"name", &Device::name},
    {"manufacturer", &Device::manufacturer},
    {"model", &Device::model},
    {"hardwareVersion", &Device::hardwareVersion},
    {"firmwareVersion", &Device::firmwareVersion},
    {"softwareVersion", &Device::softwareVersion},
    {"localIdentifier", &Device::localIdentifier},
    {"udiDeviceIdentifier", &Device::udiDeviceIdentifier},
};
}  // namespace

std::string encodeDevice(const std::optional<Device>& device) {
  if (!device) {
    return "null";
  }
  Json object = Json::object();
  for (const auto& [key, field] : kDeviceFields) {
    if ((*device).*field) {
      object[key] = *((*device).*field);
    }
  }
  return dumped(object);
}

Result<std::optional<Device>> decodeDevice(std::string_view text) {
  return parseStored<std::optional<Device>>(text, [](const Json& json) {
    std::optional<Device> device;
    if (json.is_object()) {
      device.emplace();
      for (const auto& [key, field] : kDeviceFields) {
        if (json.contains(key)) {
          (*device).*field = json.at(key).get<std::string>();
        }
      }
    }
    return device;
  });
}

std::string encodeWorkoutDetails(const Workout::Details& details) {
  Json json{{"activity", details.workoutActivityType}, {"duration", details.duration}};
  if (details.totalEnergyBurned) {
    json["energy"] = encodeQuantity(*details.totalEnergyBurned);
  }
  if (details.totalDistance) {
    json["distance"] = encodeQuantity(*details.totalDistance);
  }
  return dumped(json);
}

Result<Workout::Details> decodeWorkoutDetails(std::string_view text) {
  return parseStored<Workout::Details>(text, [](const Json& json) {
    Workout::Details details;
    details.workoutActivityType = json.at("activity").get<std::uint32_t>();
    details.duration = json.at("duration").get<double>();
    details.totalEnergyBurned = optionalQuantity(json, "energy");
    details.totalDistance = optionalQuantity(json, "distance");
    return details;
  });
}

std::string encodeElectrocardiogramDetails(const Electrocardiogram::Details& details) {
  Json json{{"count", details.numberOfVoltageMeasurements},
            {"classification", static_cast<int>(details.classification)},
            {"symptoms", static_cast<int>(details.symptomsStatus)}};
  if (details.samplingFrequency) {
    json["frequency"] = encodeQuantity(*details.samplingFrequency);
  }
  if (details.averageHeartRate) {
    json["heartRate"] = encodeQuantity(*details.averageHeartRate);
  }
  return dumped(json);
}

Result<Electrocardiogram::Details> decodeElectrocardiogramDetails(std::string_view text) {
  return parseStored<Electrocardiogram::Details>(text, [](const Json& json) {
    Electrocardiogram::Details details;
    details.numberOfVoltageMeasurements = json.at("count").get<int>();
    details.classification =
        static_cast<Electrocardiogram::Classification>(json.at("classification").get<int>());
    details.symptomsStatus =
        static_cast<Electrocardiogram::SymptomsStatus>(json.at("symptoms").get<int>());
    details.samplingFrequency = optionalQuantity(json, "frequency");
    details.averageHeartRate = optionalQuantity(json, "heartRate");
    return details;
  });
}

namespace {

Bytes encodeDoubles(std::span<const double> values) {
  Bytes bytes;
  bytes.reserve(values.size() * 8);
  for (double value : values) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    for (int shift = 0; shift < 64; shift += 8) {
      bytes.push_back(static_cast<std::uint8_t>(bits >> shift));
    }
  }
  return bytes;
}

std::vector<double> decodeDoubles(std::span<const std::uint8_t> bytes) {
  std::vector<double> values;
  values.reserve(bytes.size() / 8);
  for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
    std::uint64_t bits = 0;
    for (int j = 7; j >= 0; --j) {
      bits = (bits << 8) | bytes[i + static_cast<std::size_t>(j)];
    }
    values.push_back(std::bit_cast<double>(bits));
  }
  return values;
}

constexpr std::size_t kLocationFields = 8;
constexpr std::size_t kBeatFields = 2;

}  // namespace

Bytes encodeVoltages(const std::vector<double>& volts) {
  return encodeDoubles(volts);
}

std::vector<double> decodeVoltages(std::span<const std::uint8_t> bytes) {
  return decodeDoubles(bytes);
}

Bytes encodeLocations(const std::vector<RouteLocation>& locations) {
  std::vector<double> values;
  values.reserve(locations.size() * kLocationFields);
  for (const RouteLocation& at : locations) {
    values.insert(values.end(), {at.time, at.latitude, at.longitude, at.altitude,
                                 at.horizontalAccuracy, at.verticalAccuracy, at.course, at.speed});
  }
  return encodeDoubles(values);
}

std::vector<RouteLocation> decodeLocations(std::span<const std::uint8_t> bytes) {
  const std::vector<double> values = decodeDoubles(bytes);
  std::vector<RouteLocation> locations;
  for (std::size_t i = 0; i + kLocationFields <= values.size(); i += kLocationFields) {
    locations.push_back(RouteLocation{values[i], values[i + 1], values[i + 2], values[i + 3],
                                      values[i + 4], values[i + 5], values[i + 6], values[i + 7]});
  }
  return locations;
}

Bytes encodeBeats(const std::vector<BeatRow>& beats) {
  std::vector<double> values;
  values.reserve(beats.size() * kBeatFields);
  for (const BeatRow& beat : beats) {
    values.insert(values.end(), {beat.secondsSinceStart, beat.beatsPerMinute});
  }
  return encodeDoubles(values);
}

std::vector<BeatRow> decodeBeats(std::span<const std::uint8_t> bytes) {
  const std::vector<double> values = decodeDoubles(bytes);
  std::vector<BeatRow> beats;
  for (std::size_t i = 0; i + kBeatFields <= values.size(); i += kBeatFields) {
    beats.push_back(BeatRow{values[i], values[i + 1]});
  }
  return beats;
}

}  // namespace kestrova
