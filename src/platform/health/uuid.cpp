#include "platform/health/uuid.h"

#include <mutex>
#include <random>

namespace kestrova {

Uuid Uuid::random() {
  // One generator for the process, seeded once from the system's entropy.
  static std::mutex mutex;  // owns engine
  static std::mt19937_64 engine{std::random_device{}()};
  Bytes16 bytes{};
  {
    std::lock_guard lock(mutex);
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
      const std::uint64_t word = engine();
      for (std::size_t j = 0; j < 8; ++j) {
        bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
      }
    }
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::fromString(std::string_view text) {
  if (text.size() != 36) {
    return std::nullopt;
  }
  Bytes16 bytes{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') {
        return std::nullopt;
      }
      ++i;
      continue;
    }
    const auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9')
        return c - '0';
      if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
      if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
      return -1;
    };
    const int high = nibble(text[i]);
    const int low = nibble(text[i + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes[byte++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return Uuid(bytes);
}

std::string Uuid::uuidString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text.push_back('-');
    }
    text.push_back(kHex[bytes_[i] >> 4]);
    text.push_back(kHex[bytes_[i] & 0x0F]);
  }
  return text;
}

}  // namespace kestrova
