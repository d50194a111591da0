// The position in a health store's change history from which an anchored query resumes.
// Opaque to the library: it is only kept and handed back. A plain value; thread-safe.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/result.h"

namespace kestrova {

class QueryAnchor {
 public:
  explicit QueryAnchor(std::uint64_t position) : position_(position) {}

  std::uint64_t position() const { return position_; }

  // A self-describing byte form that survives restarts: a tag, a format version and the
  // position in big-endian order.
  Bytes archived() const;
  // None for bytes that are not an archived anchor of a known format version.
  static std::optional<QueryAnchor> unarchive(const Bytes& bytes);

  friend bool operator==(const QueryAnchor&, const QueryAnchor&) = default;

 private:
  std::uint64_t position_;
};

}  // namespace kestrova
