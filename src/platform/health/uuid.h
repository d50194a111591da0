// Universally unique identifiers of health objects, as the platform's NSUUID: 16 bytes, written
// in upper-case 8-4-4-4-12 form. Immutable value; safe on any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

class Uuid {
 public:
  using Bytes16 = std::array<std::uint8_t, 16>;

  explicit Uuid(const Bytes16& bytes) : bytes_(bytes) {}
  // A version 4 (random) identifier.
  static Uuid random();
  // Upper or lower case 8-4-4-4-12 hex; none for anything else.
  static std::optional<Uuid> fromString(std::string_view text);

  const Bytes16& bytes() const { return bytes_; }
  std::string uuidString() const;

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;

 private:
  Bytes16 bytes_;
};

}  // namespace kestrova
