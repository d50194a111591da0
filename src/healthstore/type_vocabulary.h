// Every sample type the store keeps: all quantity and category type identifiers that HealthKit
// publishes, with each quantity type's canonical unit, and the correlation types. It is wider
// than the platform's type table (the types the library reads): a record of a type the library
// does not read yet is stored all the same, in the unit the library will read it in.
// Constant tables: safe on any thread.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "platform/health/unit.h"

namespace kestrova {

enum class StoredKind { quantity, category, workout, electrocardiogram, correlation };

struct StoredType {
  // Of static storage: rows refer to it.
  std::string_view identifier;
  StoredKind kind;
  // Quantity types only: the unit of the stored value. A unit the platform's unit grammar
  // does not know (dBASPL, IU, S...) is kept as its text: values in it are stored as written.
  std::string_view canonicalUnit;
  // Parsed once; none for the units the grammar does not know.
  std::optional<Unit> unit() const;
};

// None for an identifier nobody has published yet.
const StoredType* findStoredType(std::string_view identifier);
// All of them.
std::span<const StoredType> storedTypes();

}  // namespace kestrova
