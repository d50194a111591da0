// Helpers shared by the tests: temporary directories, a log sink that records lines, and a
// platform bundle on real Linux services rooted in a temporary directory, with a manual
// clock and a fixed device time zone.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/log.h"
#include "platform/manual_clock.h"
#include "platform/platform.h"

namespace kestrova::testing {

// A fresh directory under the system's temporary directory, removed with its contents when
// the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct LogLine {
  LogLevel level;
  std::string category;
  std::string message;
};

// Records every line while it is installed; installs itself on construction and puts the
// previous sink back on destruction.
class CapturedLog : public LogSink, public std::enable_shared_from_this<CapturedLog> {
 public:
  static std::shared_ptr<CapturedLog> install();
  ~CapturedLog() override = default;

  void write(LogLevel level, std::string_view category, std::string_view message) override;
  std::vector<LogLine> lines() const;
  // Lines whose message contains `text`.
  std::vector<LogLine> matching(std::string_view text) const;
  bool contains(std::string_view text) const { return !matching(text).empty(); }
  void clear();
  void uninstall();

 private:
  mutable std::mutex mutex_;  // owns lines_
  std::vector<LogLine> lines_;
};

// 2021-01-01T00:00:00Z, the start of every manual clock unless a test says otherwise.
Date referenceDate();
// An instant from its UTC fields.
Date utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0,
         int millisecond = 0);

struct TestPlatform {
  std::shared_ptr<ManualClock> clock;
  std::shared_ptr<const Platform> platform;
};

// Real Linux services in `directory`, a manual clock at referenceDate() and the device zone
// fixed to `zone`. Installed as the current platform when `install` is true.
TestPlatform makeTestPlatform(const std::filesystem::path& directory,
                              std::string_view zone = "Europe/Berlin", bool install = true);

}  // namespace kestrova::testing
