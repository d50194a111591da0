// Work the library has under way in this process: queue work queued or running, operations
// added and not finished, requests sent and not answered, and timers armed to finish work
// (not those that only watch for changes). A host that runs the library for one job, such as
// the command-line sync, ends the job once it is idle: nothing left to do until something
// changes. Process-wide, because one process holds one library; the count is one atomic,
// so every thread may change and read it.
//
// Each hand-over counts the new work before the finished work stops counting, so the count
// cannot touch zero between a step and the step it sets off.
#pragma once

namespace kestrova::activity {

void begin() noexcept;
void end() noexcept;
bool idle() noexcept;

// Counts as work under way from construction until destruction.
class Busy {
 public:
  Busy() noexcept { begin(); }
  ~Busy() { end(); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;
};

}  // namespace kestrova::activity
