// Electrocardiogram recordings of an export (electrocardiograms/ecg_*.csv): header lines, then
// one measurement in microvolts per line, written with the region's decimal separator. Pure
// functions: safe on any thread.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "platform/health/sample.h"
#include "platform/result.h"

namespace kestrova {

// Recordings are the ECG app's; the file names no source.
inline constexpr std::string_view kElectrocardiogramSourceName = "ECG";

struct ParsedElectrocardiogram {
  std::shared_ptr<const Electrocardiogram> sample;
  // Lead I, in volts, one value per measurement.
  std::vector<double> volts;
};

// Header fields are found by their English keys or, for other languages, by their line. A
// measurement line is one number: a single ',' is its decimal separator, never a second column.
// Errors name the file and the line: no recording date, no sample rate, a line that is not a
// number, no measurements.
Result<ParsedElectrocardiogram> parseElectrocardiogramCsv(std::string_view text,
                                                          std::string_view fileName);

}  // namespace kestrova
