// Shows import progress on standard error: a bar redrawn in place on a terminal (share of the
// stored input read, records per second, time left), a plain line every few seconds otherwise.
// Used from the importing thread only.
#pragma once

#include <chrono>
#include <cstdio>

#include "healthstore/import/apple_health_importer.h"

namespace kestrova::cli {

class ProgressDisplay {
 public:
  // `terminal`: redraw one line; otherwise append lines at most every kPlainInterval.
  ProgressDisplay(std::FILE* out, bool terminal);

  void update(const ImportProgress& progress);
  // Ends the bar's line so that what follows starts on a fresh one.
  void finish();

 private:
  std::FILE* out_;
  bool terminal_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point lastPlainLine_;
};

}  // namespace kestrova::cli
