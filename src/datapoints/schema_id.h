// Schema identifiers of every data point the library sends, each written once. Constants only:
// thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace kestrova {

struct SchemaId {
  std::string_view name;
  std::string_view schemaNamespace;
  std::string_view version;

  friend bool operator==(const SchemaId&, const SchemaId&) = default;
};

// {"namespace", "name", "version"}, every value a string.
nlohmann::json toJson(const SchemaId& schema);

inline constexpr std::string_view kNamespaceKs = "ks";
inline constexpr std::string_view kNamespaceOmh = "omh";
inline constexpr std::string_view kNamespaceGranola = "granola";
inline constexpr std::string_view kSchemaVersion1 = "1.0";
inline constexpr std::string_view kSchemaVersion2 = "2.0";

// NOTE: the mixture of namespaces and the "ks-" prefix on only some names is what the back end
// expects; do not make them uniform.
inline constexpr SchemaId kSchemaHeartRateSample{"ks-heart-rate-sample", kNamespaceKs,
                                                 kSchemaVersion1};
inline constexpr SchemaId kSchemaDailyDetail{"ks-daily-detail", kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaDailySummary{"daily-summary", kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaDailySummaryWithHeartRate{"daily-summary-with-heart-rate",
                                                           kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaCategorySample{"hk-category-sample", kNamespaceGranola,
                                                kSchemaVersion1};
inline constexpr SchemaId kSchemaElectrocardiogram{"ks-electrocardiogram", kNamespaceKs,
                                                   kSchemaVersion1};
inline constexpr SchemaId kSchemaSleepDetail{"ks-sleep-detail", kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaSleepEpisode{"sleep-episode", kNamespaceOmh, kSchemaVersion1};
inline constexpr SchemaId kSchemaSleepEpisodeWithStages{"sleep-episode-with-sleep-stages",
                                                        kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaWorkout{"hk-workout", kNamespaceGranola, kSchemaVersion1};
inline constexpr SchemaId kSchemaWorkoutWithSteps{"hk-workout-with-steps", kNamespaceKs,
                                                  kSchemaVersion1};
inline constexpr SchemaId kSchemaWorkoutWithHeartRate{"hk-workout-with-heart-rate-data",
                                                      kNamespaceKs, kSchemaVersion1};
inline constexpr SchemaId kSchemaWorkoutWithHeartRateAndSteps{
    "hk-workout-with-heart-rate-data-and-steps", kNamespaceKs, kSchemaVersion1};

}  // namespace kestrova
