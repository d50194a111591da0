#include "datapoints/category_sample.h"

#include <string>
#include <string_view>

#include "datapoints/envelope.h"
#include "datapoints/schema_id.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kKeyCategoryType = "category_type";
inline constexpr std::string_view kKeyCategoryValue = "category_value";

}  // namespace

nlohmann::json encodeCategorySample(const CategorySample& sample) {
  return nlohmann::json{{kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(sample)},
                        {kKeyCategoryType, sample.sampleType().identifier()},
                        {kKeyCategoryValue, std::to_string(sample.value())},
                        {kKeyMetadata, makeMetadataList(sample)}};
}

std::vector<nlohmann::json> encodeMindfulSessions(const std::vector<SamplePtr>& samples) {
  std::vector<nlohmann::json> points;
  points.reserve(samples.size());
  for (const SamplePtr& sample : samples) {
    const auto* category = dynamic_cast<const CategorySample*>(sample.get());
    if (category == nullptr) {
      continue;
    }
    points.push_back(makeDataPoint(makeHeader(kSchemaCategorySample, *category),
                                   encodeCategorySample(*category)));
  }
  return points;
}

}  // namespace kestrova
