#include "healthstore/import/import_summary.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace kestrova {
namespace {

// JSON keys and text labels of the summary.
constexpr std::string_view kKeyInput = "input";
constexpr std::string_view kKeyMainDocument = "mainDocument";
constexpr std::string_view kKeyExportDate = "exportDate";
constexpr std::string_view kKeyLocale = "locale";
constexpr std::string_view kKeyRead = "read";
constexpr std::string_view kKeyAdded = "added";
constexpr std::string_view kKeyAlreadyPresent = "alreadyPresent";
constexpr std::string_view kKeyElectrocardiograms = "electrocardiograms";
constexpr std::string_view kKeySamplesByType = "samplesByType";
constexpr std::string_view kKeySkipped = "skipped";
constexpr std::string_view kKeyKeptByKind = "keptByKind";
constexpr std::string_view kKeySkippedCount = "skippedCount";
constexpr std::string_view kKeyCount = "count";
constexpr std::string_view kKeyFirstLine = "firstLine";
constexpr std::string_view kKeyOk = "ok";
constexpr std::string_view kKeyError = "error";
constexpr std::string_view kKeyLine = "line";
constexpr std::string_view kKeyColumn = "column";
constexpr std::string_view kKeySeconds = "seconds";

constexpr std::string_view kTextHeader = "Import of %s (%s)\n";
constexpr std::string_view kTextCounts =
    "  read %llu, added %llu, already present %llu, skipped %llu, in %.1f s\n";
constexpr std::string_view kTextKept = "  kept %s: %llu\n";
constexpr std::string_view kTextSkipped = "  skipped (%s): %s x %llu (first at line %llu)\n";
constexpr std::string_view kTextSkippedNoLine = "  skipped (%s): %s x %llu\n";
constexpr std::string_view kTextFailed = "  FAILED: %s\n";
constexpr std::string_view kTextStopped =
    "  stopped at line %llu, column %llu; run the import again once the file is complete: what "
    "was added stays, and nothing is added twice\n";

using ull = unsigned long long;

template <class... Args>
std::string formatted(std::string_view format, Args... args) {
  const int size = std::snprintf(nullptr, 0, format.data(), args...);
  std::string out(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
  std::snprintf(out.data(), out.size() + 1, format.data(), args...);
  return out;
}

}  // namespace

std::uint64_t ImportSummary::skippedCount() const {
  std::uint64_t total = 0;
  for (const auto& [reason, details] : skipped) {
    for (const auto& [detail, count] : details) {
      total += count.count;
    }
  }
  return total;
}

void ImportSummary::addSkip(const Skip& skip, std::uint64_t line) {
  auto& details = skipped[std::string(skipReasonName(skip.reason))];
  auto found = details.find(skip.detail);
  if (found == details.end()) {
    const std::string detail =
        details.size() < kSkipDetailLimit ? skip.detail : std::string(kOtherDetails);
    found = details.emplace(detail, SkipCount{0, line}).first;
  }
  ++found->second.count;
}

std::string summaryText(const ImportSummary& summary) {
  std::string text = formatted(kTextHeader, summary.input.c_str(), summary.mainDocument.c_str());
  text += formatted(kTextCounts, static_cast<ull>(summary.read), static_cast<ull>(summary.added),
                    static_cast<ull>(summary.alreadyPresent),
                    static_cast<ull>(summary.skippedCount()), summary.seconds);
  for (const auto& [kind, count] : summary.keptByKind) {
    text += formatted(kTextKept, kind.c_str(), static_cast<ull>(count));
  }
  for (const auto& [reason, details] : summary.skipped) {
    for (const auto& [detail, count] : details) {
      text += count.firstLine != 0
                  ? formatted(kTextSkipped, reason.c_str(), detail.c_str(),
                              static_cast<ull>(count.count), static_cast<ull>(count.firstLine))
                  : formatted(kTextSkippedNoLine, reason.c_str(), detail.c_str(),
                              static_cast<ull>(count.count));
    }
  }
  if (summary.failure) {
    text += formatted(kTextFailed, summary.failure->text().c_str());
    if (summary.stoppedAt) {
      text += formatted(kTextStopped, static_cast<ull>(summary.stoppedAt->line),
                        static_cast<ull>(summary.stoppedAt->column));
    }
  }
  return text;
}

std::string summaryJson(const ImportSummary& summary) {
  using Json = nlohmann::ordered_json;
  Json json;
  json[kKeyOk] = summary.ok();
  json[kKeyInput] = summary.input;
  json[kKeyMainDocument] = summary.mainDocument;
  json[kKeyExportDate] = summary.exportDate;
  json[kKeyLocale] = summary.locale;
  json[kKeyRead] = summary.read;
  json[kKeyAdded] = summary.added;
  json[kKeyAlreadyPresent] = summary.alreadyPresent;
  json[kKeySkippedCount] = summary.skippedCount();
  json[kKeyElectrocardiograms] = summary.electrocardiograms;
  json[kKeySamplesByType] = Json::object();
  for (const auto& [type, count] : summary.samplesByType) {
    json[kKeySamplesByType][type] = count;
  }
  json[kKeyKeptByKind] = Json::object();
  for (const auto& [kind, count] : summary.keptByKind) {
    json[kKeyKeptByKind][kind] = count;
  }
  json[kKeySkipped] = Json::object();
  for (const auto& [reason, details] : summary.skipped) {
    Json& byDetail = json[kKeySkipped][reason];
    for (const auto& [detail, count] : details) {
      byDetail[detail] = {{kKeyCount, count.count}, {kKeyFirstLine, count.firstLine}};
    }
  }
  if (summary.failure) {
    json[kKeyError] = summary.failure->text();
    if (summary.stoppedAt) {
      json[kKeyLine] = summary.stoppedAt->line;
      json[kKeyColumn] = summary.stoppedAt->column;
    }
  }
  json[kKeySeconds] = summary.seconds;
  // Source names and units are user text: replace invalid UTF-8 rather than fail.
  return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kestrova
