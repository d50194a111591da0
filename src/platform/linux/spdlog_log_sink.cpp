// The default log sink: one line per message on standard error through spdlog.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "platform/log.h"

namespace kestrova {
namespace {

class SpdlogSink : public LogSink {
 public:
  SpdlogSink()
      : logger_(std::make_shared<spdlog::logger>(
            "kestrova", std::make_shared<spdlog::sinks::stderr_sink_mt>())) {
    logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%l%$ [kestrova] %v");
    logger_->set_level(spdlog::level::trace);
  }

  void write(LogLevel level, std::string_view category, std::string_view message) override {
    logger_->log(toSpdlog(level), "{}: {}", category, message);
  }

 private:
  static spdlog::level::level_enum toSpdlog(LogLevel level) {
    switch (level) {
      case LogLevel::debug:
        return spdlog::level::debug;
      case LogLevel::info:
        return spdlog::level::info;
      case LogLevel::error:
        return spdlog::level::err;
      case LogLevel::fault:
        return spdlog::level::critical;
    }
    return spdlog::level::info;
  }

  std::shared_ptr<spdlog::logger> logger_;  // thread-safe (_mt sink)
};

}  // namespace

std::shared_ptr<LogSink> makeStderrLogSink() {
  return std::make_shared<SpdlogSink>();
}

}  // namespace kestrova
