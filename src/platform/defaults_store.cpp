#include "platform/defaults_store.h"

#include <charconv>

namespace kestrova {

void DefaultsStore::setObjects(std::vector<std::pair<std::string, DefaultsValue>> values) {
  std::vector<DefaultsChange> changes;
  changes.reserve(values.size());
  for (auto& [key, value] : values) {
    changes.emplace_back(std::move(key), std::move(value));
  }
  update(std::move(changes));
}

std::optional<Bytes> DefaultsStore::data(std::string_view key) const {
  std::optional<DefaultsValue> value = object(key);
  if (!value || !std::holds_alternative<Bytes>(*value)) {
    return std::nullopt;
  }
  return std::get<Bytes>(std::move(*value));
}

std::optional<std::string> DefaultsStore::string(std::string_view key) const {
  std::optional<DefaultsValue> value = object(key);
  if (!value) {
    return std::nullopt;
  }
  if (auto* text = std::get_if<std::string>(&*value)) {
    return std::move(*text);
  }
  if (auto* integer = std::get_if<std::int64_t>(&*value)) {
    return std::to_string(*integer);
  }
  if (auto* real = std::get_if<double>(&*value)) {
    // The shortest text that reads back as the same number, as the platform prints numbers
    // ("0.1", not "0.10000000000000001").
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, *real).ptr;
    return std::string(buffer, end);
  }
  return std::nullopt;
}

}  // namespace kestrova
