#include "platform/query_anchor.h"

#include <algorithm>
#include <array>

namespace kestrova {
namespace {

constexpr std::array<std::uint8_t, 4> kTag = {'K', 'Q', 'A', 1};
constexpr std::size_t kPositionBytes = 8;

}  // namespace

Bytes QueryAnchor::archived() const {
  Bytes bytes(kTag.begin(), kTag.end());
  for (int shift = 56; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(position_ >> shift));
  }
  return bytes;
}

std::optional<QueryAnchor> QueryAnchor::unarchive(const Bytes& bytes) {
  if (bytes.size() != kTag.size() + kPositionBytes ||
      !std::equal(kTag.begin(), kTag.end(), bytes.begin())) {
    return std::nullopt;
  }
  std::uint64_t position = 0;
  for (std::size_t i = kTag.size(); i < bytes.size(); ++i) {
    position = (position << 8) | bytes[i];
  }
  return QueryAnchor(position);
}

}  // namespace kestrova
