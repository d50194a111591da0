// The library's log. Message texts carry "%{public}@" and "%@" placeholders that are filled in
// order with the arguments. Every line passes a redaction step before any sink sees it, so a
// bearer token registered as a secret, or any "Bearer <credential>" text, never reaches a log.
// Thread-safe: the sink, level and secrets are owned by one mutex in log.cpp.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace kestrova {

enum class LogLevel { debug = 0, info = 1, error = 2, fault = 3 };

std::string_view logLevelName(LogLevel level);

class LogSink {
 public:
  virtual ~LogSink() = default;
  // Called with the finished, redacted line; may be called from any thread.
  virtual void write(LogLevel level, std::string_view category, std::string_view message) = 0;
};

// Lines to standard error through spdlog, the default sink.
std::shared_ptr<LogSink> makeStderrLogSink();

namespace logging {

// Replaces the sink; null silences the log.
void setSink(std::shared_ptr<LogSink> sink);
void setMinimumLevel(LogLevel level);
LogLevel minimumLevel();
// From now on every occurrence of `secret` in a line is written as "<redacted>". Texts shorter
// than 8 characters are ignored: they would blank out ordinary words.
void registerSecret(std::string_view secret);

// Fills the placeholders of `text` with `args` in order; a placeholder without an argument
// stays as it is, an argument without a placeholder is dropped.
std::string format(std::string_view text, std::initializer_list<std::string_view> args);
// Removes registered secrets and bearer credentials from a finished line.
std::string redact(std::string_view line);

void write(LogLevel level, std::string_view category, std::string_view text,
           std::initializer_list<std::string_view> args = {});

}  // namespace logging

inline void logDebug(std::string_view category, std::string_view text,
                     std::initializer_list<std::string_view> args = {}) {
  logging::write(LogLevel::debug, category, text, args);
}
inline void logInfo(std::string_view category, std::string_view text,
                    std::initializer_list<std::string_view> args = {}) {
  logging::write(LogLevel::info, category, text, args);
}
inline void logError(std::string_view category, std::string_view text,
                     std::initializer_list<std::string_view> args = {}) {
  logging::write(LogLevel::error, category, text, args);
}

}  // namespace kestrova
