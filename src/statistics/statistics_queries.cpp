#include "statistics/statistics_queries.h"

#include <string>

#include "platform/health/predicate.h"
#include "platform/health/query.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "statistics";

enum class QueryFamily { heartRate, dailyDetail, summary };

struct QueryTexts {
  std::string_view error;
  std::string_view empty;
};

constexpr QueryTexts kHeartRateQueryTexts{
    "Heart rate statistics query for %{public}@ resulted in an error: %{public}@",
    "Heart rate statistics query for %{public}@ does not have any results"};
constexpr QueryTexts kDailyDetailQueryTexts{
    "Daily detail statistics query for %{public}@ resulted in an error: %{public}@",
    "Daily detail statistics query for %{public}@ does not have any results"};
constexpr QueryTexts kSummaryQueryTexts{
    "Summary statistics query for %{public}@ resulted in an error: %{public}@",
    "Summary statistics query for %{public}@ does not have any results"};

constexpr DateComponents kQuarterHour{0, 0, 0, 0, 0, 15, 0};
constexpr DateComponents kOneDay{0, 0, 0, 1, 0, 0, 0};
constexpr auto kDiscreteFigures = StatisticsOptions::discreteAverage |
                                  StatisticsOptions::discreteMin | StatisticsOptions::discreteMax;

const QueryTexts& textsOf(QueryFamily family) {
  switch (family) {
    case QueryFamily::heartRate:
      return kHeartRateQueryTexts;
    case QueryFamily::dailyDetail:
      return kDailyDetailQueryTexts;
    case QueryFamily::summary:
      return kSummaryQueryTexts;
  }
  return kSummaryQueryTexts;
}

StatisticsOptions summaryOptions(const ObjectType& type) {
  if (type.identifier() == kHeartRateIdentifier) {
    return kDiscreteFigures;
  }
  if (type.identifier() == kRestingHeartRateIdentifier) {
    return StatisticsOptions::discreteAverage;
  }
  return StatisticsOptions::cumulativeSum;
}

void start(const StatisticsQueryContext& context, QueryFamily family, const ObjectType& type,
           const Predicate& predicate, Date anchor) {
  const auto options = family == QueryFamily::heartRate     ? kDiscreteFigures
                       : family == QueryFamily::dailyDetail ? StatisticsOptions::cumulativeSum
                                                            : summaryOptions(type);
  const auto interval = family == QueryFamily::summary ? kOneDay : kQuarterHour;
  auto handler = [weak = std::weak_ptr<DataManager>(context.dataManager), family, type](
                     const std::shared_ptr<StatisticsCollectionQuery>&,
                     Result<StatisticsCollection> collection) {
    const auto& texts = textsOf(family);
    const std::string identifier(type.identifier());
    if (!collection) {
      logError(kCategory, texts.error, {identifier, collection.error().description});
      return;
    }
    auto statistics = collection->statistics();
    if (statistics.empty()) {
      logInfo(kCategory, texts.empty, {identifier});
      return;
    }
    auto manager = weak.lock();
    if (!manager) {
      return;
    }
    switch (family) {
      case QueryFamily::heartRate:
        manager->storeHeartRateStatistics(std::move(statistics));
        break;
      case QueryFamily::dailyDetail:
        manager->storeDailyDetailStatistics(std::move(statistics), type);
        break;
      case QueryFamily::summary:
        manager->storeDailySummaryStatistics(std::move(statistics));
        break;
    }
  };
  context.store->executeQuery(StatisticsCollectionQuery::make(type, predicate, options, anchor,
                                                              interval, std::move(handler)));
}

}  // namespace

Date statisticsAnchorDate(Date date, const TimeZone& zone) {
  auto civil = zone.civil(date);
  civil.hour = 0;
  civil.minute = 0;
  civil.second = 0;
  civil.millisecond = 0;
  return zone.date(civil);
}

void startStatisticsQueries(const StatisticsQueryContext& context,
                            const std::vector<ObjectType>& types) {
  if (!context.store || !context.dataManager || !context.startDate) {
    return;
  }
  const auto predicate =
      predicateForSamples(*context.startDate, std::nullopt, QueryOptions::strictStartDate);
  const auto anchor = statisticsAnchorDate(*context.startDate, context.zone);
  // NOTE: heart rate is read only when the connection reads it: the host's choice of types
  // is what keeps a type's data on the device.
  for (const auto& type : types) {
    if (type.identifier() == kHeartRateIdentifier) {
      start(context, QueryFamily::heartRate, type, predicate, anchor);
    }
  }
  // A cumulative sum of a discrete type is refused by the store; such types get no detail
  // query rather than an error line at every pass.
  for (const auto& type : types) {
    if (type.kind() == ObjectKind::quantity && !isDiscrete(type.aggregationStyle())) {
      start(context, QueryFamily::dailyDetail, type, predicate, anchor);
    }
  }
  for (const auto& type : types) {
    if (type.kind() == ObjectKind::quantity) {
      start(context, QueryFamily::summary, type, predicate, anchor);
    }
  }
}

}  // namespace kestrova
