#include "tools/cli/progress_display.h"

#include <algorithm>
#include <string>

namespace kestrova::cli {
namespace {

constexpr std::chrono::seconds kPlainInterval{5};
constexpr int kBarWidth = 30;
constexpr double kMegabyte = 1024.0 * 1024.0;
constexpr const char* kBarLine =
    "\r[%s] %3.0f%%  %.1f/%.1f MB  %llu records  %.0f records/s  %s left ";
constexpr const char* kPlainLine =
    "import: %.0f%% of %.1f MB, %llu records read, %llu added, %.0f records/s, %s left\n";
constexpr const char* kUnknownTimeLeft = "--:--";

std::string clock(double seconds) {
  if (!(seconds >= 0) || seconds > 99 * 3600) {
    return kUnknownTimeLeft;
  }
  const auto total = static_cast<long>(seconds + 0.5);
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  }
  return text;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::FILE* out, bool terminal)
    : out_(out),
      terminal_(terminal),
      started_(std::chrono::steady_clock::now()),
      lastPlainLine_(started_) {}

void ProgressDisplay::update(const ImportProgress& progress) {
  const auto now = std::chrono::steady_clock::now();
  const double elapsed = std::chrono::duration<double>(now - started_).count();
  const double total = static_cast<double>(progress.storedBytesTotal);
  const double done = std::min(static_cast<double>(progress.storedBytesRead), total);
  const double fraction = total > 0 ? done / total : 0;
  const double rate = elapsed > 0 ? static_cast<double>(progress.read) / elapsed : 0;
  const double left = done > 0 ? elapsed * (total - done) / done : -1;
  if (terminal_) {
    std::string bar(kBarWidth, ' ');
    std::fill_n(bar.begin(), static_cast<long>(fraction * kBarWidth), '#');
    std::fprintf(out_, kBarLine, bar.c_str(), fraction * 100, done / kMegabyte, total / kMegabyte,
                 static_cast<unsigned long long>(progress.read), rate, clock(left).c_str());
    std::fflush(out_);
    drawn_ = true;
  } else if (now - lastPlainLine_ >= kPlainInterval) {
    lastPlainLine_ = now;
    std::fprintf(out_, kPlainLine, fraction * 100, total / kMegabyte,
                 static_cast<unsigned long long>(progress.read),
                 static_cast<unsigned long long>(progress.added), rate, clock(left).c_str());
    std::fflush(out_);
  }
}

void ProgressDisplay::finish() {
  if (drawn_) {
    std::fputc('\n', out_);
    drawn_ = false;
  }
}

}  // namespace kestrova::cli
