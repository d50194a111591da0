#include "healthstore/import/export_values.h"

#include <uuid/uuid.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "healthstore/import/export_vocabulary.h"

namespace kestrova {
namespace {

// Identities of imported samples live in this namespace (a random UUID drawn once).
constexpr std::array<unsigned char, 16> kImportNamespace = {
    0x5b, 0x8e, 0x2f, 0x61, 0x3c, 0x47, 0x4d, 0x1a, 0x9e, 0x05, 0x7a, 0xc3, 0x12, 0x64, 0xd8, 0xb9};

constexpr std::string_view kDevicePrefix = "<<HKDevice:";
constexpr std::string_view kBundlePrefix = "import.apple-health.";
constexpr std::string_view kEmptySlug = "source";
constexpr std::size_t kSlugLimit = 40;

bool digits(std::string_view text, std::size_t at, std::size_t count, int& out) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + (c - '0');
  }
  out = value;
  return true;
}

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
std::int64_t daysFromCivil(int year, unsigned month, unsigned day) {
  year -= month <= 2 ? 1 : 0;
  const int era = (year >= 0 ? year : year - 399) / 400;
  const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return static_cast<std::int64_t>(era) * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

// Spellings of real exports that the unit grammar reads differently.
constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kUnitRewrites = {{
    {"kcal/hr-kg", "kcal/(hr*kg)"},
    {"mL/min-kg", "mL/(min*kg)"},
}};

struct DeviceKey {
  std::string_view key;
  std::optional<std::string> Device::*field;
};
// "creation date" is a property of the description but not of the device: it is read so that
// its value does not run into the field before it, and dropped.
const std::array<DeviceKey, 9> kDeviceKeys = {{
    {"name", &Device::name},
    {"manufacturer", &Device::manufacturer},
    {"model", &Device::model},
    {"hardware", &Device::hardwareVersion},
    {"firmware", &Device::firmwareVersion},
    {"software", &Device::softwareVersion},
    {"localIdentifier", &Device::localIdentifier},
    {"UDIDeviceIdentifier", &Device::udiDeviceIdentifier},
    {"creation date", nullptr},
}};

// The key that starts `text` ("name:…"), if any.
const DeviceKey* keyAt(std::string_view text) {
  for (const DeviceKey& entry : kDeviceKeys) {
    if (text.size() > entry.key.size() && text.starts_with(entry.key) &&
        text[entry.key.size()] == ':') {
      return &entry;
    }
  }
  return nullptr;
}

}  // namespace

std::optional<Date> parseExportDate(std::string_view text) {
  // yyyy-MM-dd HH:mm:ss ±hhmm
  if (text.size() != 25 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
      text[16] != ':' || text[19] != ' ' || (text[20] != '+' && text[20] != '-')) {
    return std::nullopt;
  }
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, offsetHours = 0,
      offsetMinutes = 0;
  if (!digits(text, 0, 4, year) || !digits(text, 5, 2, month) || !digits(text, 8, 2, day) ||
      !digits(text, 11, 2, hour) || !digits(text, 14, 2, minute) || !digits(text, 17, 2, second) ||
      !digits(text, 21, 2, offsetHours) || !digits(text, 23, 2, offsetMinutes)) {
    return std::nullopt;
  }
  if (year < kEarliestDateYear || year > kLatestDateYear || month < 1 || month > 12 || day < 1 ||
      day > 31 || hour > 23 || minute > 59 || second > 60 || offsetHours > 23 ||
      offsetMinutes > 59) {
    return std::nullopt;
  }
  const std::int64_t offset = (offsetHours * 60 + offsetMinutes) * 60 * (text[20] == '-' ? -1 : 1);
  const std::int64_t seconds =
      daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
      hour * 3600 + minute * 60 + second - offset;
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(seconds)));
}

std::optional<double> exportTimeOfDay(std::string_view text) {
  if (!parseExportDate(text)) {
    return std::nullopt;
  }
  int hour = 0, minute = 0, second = 0;
  digits(text, 11, 2, hour);
  digits(text, 14, 2, minute);
  digits(text, 17, 2, second);
  return hour * 3600.0 + minute * 60.0 + second;
}

std::optional<double> parseTimeOfDay(std::string_view text) {
  // H[H]:MM:SS[(.|,)fraction][ AM| PM]
  std::optional<int> meridiem;  // 0 AM, 12 PM
  if (text.ends_with(" AM") || text.ends_with(" PM")) {
    meridiem = text.ends_with(" PM") ? 12 : 0;
    text.remove_suffix(3);
  }
  const std::size_t first = text.find(':');
  if (first == std::string_view::npos || first == 0 || first > 2 || text.size() < first + 6 ||
      text[first + 3] != ':') {
    return std::nullopt;
  }
  int hour = 0, minute = 0, second = 0;
  if (!digits(text, 0, first, hour) || !digits(text, first + 1, 2, minute) ||
      !digits(text, first + 4, 2, second) || minute > 59 || second > 60) {
    return std::nullopt;
  }
  double fraction = 0;
  std::string_view rest = text.substr(first + 6);
  if (!rest.empty()) {
    if ((rest[0] != '.' && rest[0] != ',') || rest.size() == 1) {
      return std::nullopt;
    }
    std::string decimal = "0." + std::string(rest.substr(1));
    const std::optional<double> parsed = parseNumber(decimal);
    if (!parsed) {
      return std::nullopt;
    }
    fraction = *parsed;
  }
  if (meridiem) {
    if (hour < 1 || hour > 12) {
      return std::nullopt;
    }
    hour = hour % 12 + *meridiem;
  } else if (hour > 23) {
    return std::nullopt;
  }
  return hour * 3600.0 + minute * 60.0 + second + fraction;
}

std::optional<double> parseUtcTimestamp(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ss[.fraction]Z
  if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text.back() != 'Z') {
    return std::nullopt;
  }
  const std::optional<Date> day =
      parseExportDate(std::string(text.substr(0, 10)) + " 00:00:00 +0000");
  const std::optional<double> time = parseTimeOfDay(text.substr(11, text.size() - 12));
  if (!day || !time) {
    return std::nullopt;
  }
  return static_cast<double>(
             std::chrono::duration_cast<std::chrono::seconds>(day->time_since_epoch()).count()) +
         *time;
}

std::optional<double> parseNumber(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  const char* begin = text.data();
  // from_chars takes no leading '+', which some tools write.
  if (*begin == '+') {
    ++begin;
  }
  double value = 0;
  const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

std::string canonicalNumber(double value) {
  std::array<char, 32> buffer{};
  const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return error == std::errc() ? std::string(buffer.data(), end) : std::string();
}

std::optional<Device> parseDeviceDescription(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  Device device;
  if (!text.starts_with(kDevicePrefix)) {
    device.name = std::string(text);
    return device;
  }
  // Drop "<<HKDevice: 0x…>, " (the address changes on every record) and the closing ">".
  const std::size_t opening = text.find(">, ");
  if (opening == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view rest = text.substr(opening + 3);
  if (rest.ends_with('>')) {
    rest.remove_suffix(1);
  }
  const DeviceKey* key = keyAt(rest);
  while (key != nullptr) {
    rest.remove_prefix(key->key.size() + 1);
    // The value runs to the next ", <known key>:".
    std::size_t end = 0;
    const DeviceKey* next = nullptr;
    for (std::size_t at = rest.find(", "); at != std::string_view::npos;
         at = rest.find(", ", at + 1)) {
      if ((next = keyAt(rest.substr(at + 2))) != nullptr) {
        end = at;
        break;
      }
    }
    const std::string_view value = next != nullptr ? rest.substr(0, end) : rest;
    if (key->field != nullptr) {
      device.*(key->field) = std::string(value);
    }
    rest = next != nullptr ? rest.substr(end + 2) : std::string_view();
    key = next;
  }
  return device;
}

OperatingSystemVersion parseSystemVersion(std::string_view text) {
  std::array<int, 3> parts{};
  for (std::size_t i = 0; i < parts.size() && !text.empty(); ++i) {
    const std::size_t dot = text.find('.');
    const std::string_view part = text.substr(0, dot);
    int value = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value);
    if (error != std::errc() || end != part.data() + part.size()) {
      break;
    }
    parts[i] = value;
    text = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
  }
  return OperatingSystemVersion{parts[0], parts[1], parts[2]};
}

std::string deriveBundleIdentifier(std::string_view sourceName) {
  std::string slug;
  bool pendingDash = false;
  for (const char c : sourceName) {
    const bool alphanumeric =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alphanumeric) {
      pendingDash = !slug.empty();
      continue;
    }
    if (slug.size() >= kSlugLimit) {
      break;
    }
    if (pendingDash) {
      slug += '-';
      pendingDash = false;
    }
    slug += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  if (slug.empty()) {
    slug = kEmptySlug;
  }
  std::string hash = nameBasedUuid(sourceName).uuidString().substr(0, 8);
  for (char& c : hash) {
    c = static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
  }
  return std::string(kBundlePrefix) + slug + "." + hash;
}

SampleProperties unnamedProperties() {
  return SampleProperties{.uuid = Uuid(Uuid::Bytes16{}),
                          .startDate = {},
                          .endDate = {},
                          .metadata = {},
                          .sourceRevision = {},
                          .device = {}};
}

Uuid nameBasedUuid(std::string_view name) {
  uuid_t nameSpace;
  std::memcpy(nameSpace, kImportNamespace.data(), kImportNamespace.size());
  uuid_t out;
  uuid_generate_sha1(out, nameSpace, name.data(), name.size());
  Uuid::Bytes16 bytes{};
  std::memcpy(bytes.data(), out, bytes.size());
  return Uuid(bytes);
}

const Unit* ImportUnits::find(std::string_view text) {
  // Heterogeneous lookup needs C++20 transparent hashing; a temporary key is cheap next to the
  // record it serves, and real exports use a few dozen unit texts.
  auto found = cache_.find(std::string(text));
  if (found == cache_.end()) {
    std::string_view spelled = text;
    for (const auto& [from, to] : kUnitRewrites) {
      if (text == from) {
        spelled = to;
      }
    }
    Result<Unit> unit = Unit::fromString(spelled);
    found = cache_
                .emplace(std::string(text),
                         unit ? std::optional<Unit>(unit.value()) : std::optional<Unit>())
                .first;
  }
  return found->second ? &*found->second : nullptr;
}

MetadataValue typedMetadataValue(std::string_view key, std::string_view text, ImportUnits& units) {
  if (key == kMetadataKeyWasUserEntered) {
    if (text == "1" || text == "0") {
      return text == "1";
    }
    return std::string(text);
  }
  if (key == exportxml::kMetadataTimeZone) {
    return std::string(text);
  }
  if (const std::optional<double> number = parseNumber(text)) {
    std::int64_t whole = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), whole);
    if (error == std::errc() && end == text.data() + text.size()) {
      return whole;
    }
    return *number;
  }
  if (const std::optional<Date> date = parseExportDate(text)) {
    return *date;
  }
  if (const std::size_t space = text.find(' '); space != std::string_view::npos) {
    const std::optional<double> amount = parseNumber(text.substr(0, space));
    const Unit* unit = amount ? units.find(text.substr(space + 1)) : nullptr;
    if (unit != nullptr) {
      double value = *amount;
      if (unit->dimensions() == Unit::percent().dimensions()) {
        value /= 100;
        if (key == exportxml::kMetadataWeatherHumidity && value > 1) {
          value /= 100;
        }
      }
      return Quantity(*unit, value);
    }
  }
  return std::string(text);
}

}  // namespace kestrova
