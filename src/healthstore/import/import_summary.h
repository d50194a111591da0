// What an import did: how many elements it read, added, found already stored, and skipped with a
// reason per kind, and where it stopped when it failed. A plain value, with its text and JSON
// forms for the command line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "healthstore/import/export_reader.h"
#include "healthstore/import/record_mapper.h"
#include "platform/result.h"

namespace kestrova {

struct SkipCount {
  std::uint64_t count = 0;
  // Line of the main document where the first one starts (0 for files other than it).
  std::uint64_t firstLine = 0;
};

struct ImportSummary {
  std::string input;
  std::string mainDocument;
  std::string exportDate;
  std::string locale;
  // Top-level elements, records inside correlations, elements inside them that the store cannot
  // keep, electrocardiogram files and route files that could not be read:
  // read == added + alreadyPresent + skipped, also for a failed import.
  std::uint64_t read = 0;
  std::uint64_t added = 0;
  // Stored by an earlier import, or repeated within this export.
  std::uint64_t alreadyPresent = 0;
  std::uint64_t electrocardiograms = 0;
  // Samples made, per type identifier.
  std::map<std::string, std::uint64_t> samplesByType;
  // Elements read and kept, by element name ("Record", "Workout", "WorkoutEvent",
  // "ActivitySummary"...), those kept as written, and the files read with them.
  std::map<std::string, std::uint64_t> keptByKind;
  // Reason name -> detail (unit text, type identifier, element name, file) -> count. Past
  // kSkipDetailLimit details a reason collects the rest under kOtherDetails.
  std::map<std::string, std::map<std::string, SkipCount>> skipped;
  Status failure;
  std::optional<TextPosition> stoppedAt;
  double seconds = 0;

  bool ok() const { return !failure.has_value(); }
  std::uint64_t skippedCount() const;
  void addSkip(const Skip& skip, std::uint64_t line);
};

inline constexpr std::size_t kSkipDetailLimit = 100;
inline constexpr std::string_view kOtherDetails = "(others)";

// Several lines for people.
std::string summaryText(const ImportSummary& summary);
// One JSON object; keys as the field names above.
std::string summaryJson(const ImportSummary& summary);

}  // namespace kestrova
