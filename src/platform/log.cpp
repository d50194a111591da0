#include "platform/log.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <vector>

namespace kestrova {
namespace {

constexpr std::string_view kRedacted = "<redacted>";
constexpr std::string_view kBearer = "Bearer ";
constexpr std::size_t kShortestSecret = 8;
constexpr std::array<std::string_view, 2> kPlaceholders = {"%{public}@", "%@"};

struct LogState {
  std::mutex mutex;  // owns every field below
  std::shared_ptr<LogSink> sink;
  bool sinkChosen = false;
  LogLevel minimumLevel = LogLevel::info;
  std::vector<std::string> secrets;
};

// Never destroyed: threads of a host may still log while static objects are torn down.
LogState& state() {
  static auto* instance = new LogState();
  return *instance;
}

bool isCredentialCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.' || c == '~' || c == '+' || c == '/' || c == '=';
}

void replaceAll(std::string& text, std::string_view needle, std::string_view replacement) {
  for (auto at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + replacement.size())) {
    text.replace(at, needle.size(), replacement);
  }
}

}  // namespace

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::error:
      return "error";
    case LogLevel::fault:
      return "fault";
  }
  return "unknown";
}

namespace logging {

void setSink(std::shared_ptr<LogSink> sink) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.sink = std::move(sink);
  s.sinkChosen = true;
}

void setMinimumLevel(LogLevel level) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.minimumLevel = level;
}

LogLevel minimumLevel() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  return s.minimumLevel;
}

void registerSecret(std::string_view secret) {
  if (secret.size() < kShortestSecret) {
    return;
  }
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (std::find(s.secrets.begin(), s.secrets.end(), secret) == s.secrets.end()) {
    s.secrets.emplace_back(secret);
    // Longer secrets first, so that a secret containing another is removed whole.
    std::sort(s.secrets.begin(), s.secrets.end(),
              [](const auto& a, const auto& b) { return a.size() > b.size(); });
  }
}

std::string format(std::string_view text, std::initializer_list<std::string_view> args) {
  std::string out;
  out.reserve(text.size() + 32 * args.size());
  auto next = args.begin();
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t found = std::string_view::npos;
    std::string_view placeholder;
    for (auto candidate : kPlaceholders) {
      auto position = text.find(candidate, at);
      if (position < found) {
        found = position;
        placeholder = candidate;
      }
    }
    if (found == std::string_view::npos || next == args.end()) {
      out.append(text.substr(at));
      break;
    }
    out.append(text.substr(at, found - at));
    out.append(*next++);
    at = found + placeholder.size();
  }
  return out;
}

std::string redact(std::string_view line) {
  std::string out(line);
  {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    for (const auto& secret : s.secrets) {
      replaceAll(out, secret, kRedacted);
    }
  }
  // Whatever follows "Bearer " is a credential, registered or not.
  for (auto at = out.find(kBearer); at != std::string::npos; at = out.find(kBearer, at + 1)) {
    auto start = at + kBearer.size();
    auto end = start;
    while (end < out.size() && isCredentialCharacter(out[end])) {
      ++end;
    }
    if (end > start && out.compare(start, end - start, kRedacted) != 0) {
      out.replace(start, end - start, kRedacted);
    }
  }
  return out;
}

void write(LogLevel level, std::string_view category, std::string_view text,
           std::initializer_list<std::string_view> args) {
  std::shared_ptr<LogSink> sink;
  {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (level < s.minimumLevel) {
      return;
    }
    if (!s.sinkChosen) {
      s.sink = makeStderrLogSink();
      s.sinkChosen = true;
    }
    sink = s.sink;
  }
  if (sink) {
    sink->write(level, category, redact(format(text, args)));
  }
}

}  // namespace logging
}  // namespace kestrova
