#include "support/test_support.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace kestrova::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrova-test-XXXXXX").string();
  const char* made = ::mkdtemp(pattern.data());
  if (made == nullptr) {
    ADD_FAILURE() << "mkdtemp failed for " << pattern;
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::shared_ptr<CapturedLog> CapturedLog::install() {
  auto log = std::make_shared<CapturedLog>();
  logging::setSink(log);
  logging::setMinimumLevel(LogLevel::debug);
  return log;
}

void CapturedLog::write(LogLevel level, std::string_view category, std::string_view message) {
  std::lock_guard lock(mutex_);
  lines_.push_back(LogLine{level, std::string(category), std::string(message)});
}

std::vector<LogLine> CapturedLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<LogLine> CapturedLog::matching(std::string_view text) const {
  std::lock_guard lock(mutex_);
  std::vector<LogLine> found;
  for (const auto& line : lines_) {
    if (line.message.find(text) != std::string::npos) {
      found.push_back(line);
    }
  }
  return found;
}

void CapturedLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

void CapturedLog::uninstall() {
  logging::setSink(nullptr);
  logging::setMinimumLevel(LogLevel::info);
}

Date referenceDate() {
  return utc(2021, 1, 1);
}

Date utc(int year, int month, int day, int hour, int minute, int second, int millisecond) {
  return TimeZone::gmt().date(CivilTime{year, month, day, hour, minute, second, millisecond});
}

TestPlatform makeTestPlatform(const std::filesystem::path& directory, std::string_view zone,
                              bool install) {
  TestPlatform made;
  made.clock = ManualClock::make(referenceDate());
  PlatformOptions options;
  options.applicationIdentifier = "com.example.host";
  options.dataDirectory = directory;
  options.clock = made.clock;
  auto timeZone = TimeZone::named(zone);
  EXPECT_TRUE(timeZone.has_value()) << zone;
  options.timeZone = makeFixedTimeZoneSource(timeZone.value_or(TimeZone::gmt()));
  auto platform = makeLinuxPlatform(std::move(options));
  EXPECT_TRUE(platform.ok()) << (platform.ok() ? "" : platform.error().text());
  if (platform) {
    made.platform = *platform;
    if (install) {
      installPlatform(made.platform);
    }
  }
  return made;
}

}  // namespace kestrova::testing
