// A synthetic Apple Health export with the shape of a real one: years of data from an iPhone
// and an Apple Watch with overlapping records, minute-level energy, heart rate with dense
// workout bursts, sleep stages, newer-form workouts with their route files, daily activity
// summaries, weekly body measurements, mindful sessions and monthly electrocardiogram files.
// Deterministic for a given seed. Single-threaded.
#pragma once

#include <cstdint>
#include <filesystem>

#include "platform/result.h"

namespace kestrova::bench {

// The days of a generated year, leap or not: the export of N years ends on day N * kDaysPerYear.
inline constexpr int kDaysPerYear = 365;

struct GeneratorOptions {
  int years = 1;
  // When positive, only this many days from 1 January 2021 instead of whole years: a small
  // export for tests that deliver it many times over.
  int days = 0;
  // The first day written, counted from 1 January 2021: exports of consecutive days, each
  // taking up where the one before ended, as a phone's history grows.
  int firstDay = 0;
  std::uint64_t seed = 1;
  // Also pack apple_health_export/ into export.zip next to it.
  bool zip = false;
};

struct GeneratedExport {
  std::filesystem::path folder;  // <out>/apple_health_export
  std::filesystem::path xml;     // its export.xml
  std::filesystem::path zip;     // <out>/export.zip when asked for
  std::uint64_t records = 0;     // Record, Workout and ActivitySummary elements written
  std::uint64_t bytes = 0;       // size of export.xml
  int electrocardiograms = 0;
};

Result<GeneratedExport> generateExport(const std::filesystem::path& out,
                                       const GeneratorOptions& options);

}  // namespace kestrova::bench
