// KestrovaConfig: what a host configures the library with. An immutable value; thread-safe.
//
//   KestrovaConfig config(token);                                   // every default
//   KestrovaConfig some(token, std::nullopt, std::nullopt,
//                       std::vector<int>{22, 15});                  // step count, heart rate
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "kestrova/data_type.h"

class KestrovaConfig {
 public:
  using Date = std::chrono::system_clock::time_point;

  // The service's API endpoint, used when no URL is given.
  static constexpr const char* kDefaultURL = "https://api.kestrova.com/api/";
  // How far back collection starts when no start date is given.
  static constexpr int kDefaultStartDaysBack = 20;

  KestrovaConfig() = delete;

  // An absent parameter takes its default: the service's endpoint, 20 calendar days before now
  // in the device's time zone, and every data type. A list that is given is kept as given, an
  // empty one included (it enables nothing).
  explicit KestrovaConfig(
      std::string token, std::optional<std::string> url = std::nullopt,
      std::optional<Date> startDate = std::nullopt,
      std::optional<std::vector<KestrovaHealthKitDataType>> enabledDataTypes = std::nullopt);

  // Data types as raw values, kept in order with duplicates. A value outside 0...24 is a
  // programming error: the process is ended with a message naming the value.
  KestrovaConfig(std::string token, std::optional<std::string> url, std::optional<Date> startDate,
                 const std::vector<int>& enabledDataTypes);

  const std::string& token() const { return token_; }
  const std::string& url() const { return url_; }
  Date startDate() const { return startDate_; }
  const std::vector<KestrovaHealthKitDataType>& enabledDataTypes() const {
    return enabledDataTypes_;
  }

 private:
  std::string token_;
  std::string url_;
  Date startDate_;
  std::vector<KestrovaHealthKitDataType> enabledDataTypes_;
};
