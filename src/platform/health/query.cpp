#include "platform/health/query.h"

namespace kestrova {

std::shared_ptr<ObserverQuery> ObserverQuery::make(ObjectType sampleType,
                                                   std::optional<Predicate> predicate,
                                                   UpdateHandler updateHandler) {
  std::vector<QueryDescriptor> descriptors{QueryDescriptor{sampleType, predicate}};
  return std::shared_ptr<ObserverQuery>(new ObserverQuery(
      sampleType, std::move(predicate), std::move(descriptors), std::move(updateHandler)));
}

std::shared_ptr<ObserverQuery> ObserverQuery::make(std::vector<QueryDescriptor> descriptors,
                                                   UpdateHandler updateHandler) {
  std::optional<ObjectType> type;
  std::optional<Predicate> predicate;
  if (descriptors.size() == 1) {
    type = descriptors.front().sampleType;
    predicate = descriptors.front().predicate;
  }
  return std::shared_ptr<ObserverQuery>(new ObserverQuery(
      type, std::move(predicate), std::move(descriptors), std::move(updateHandler)));
}

std::shared_ptr<AnchoredObjectQuery> AnchoredObjectQuery::make(
    ObjectType type, std::optional<Predicate> predicate, std::optional<QueryAnchor> anchor,
    std::size_t limit, ResultsHandler resultsHandler, std::optional<ResultsHandler> updateHandler) {
  return std::shared_ptr<AnchoredObjectQuery>(
      new AnchoredObjectQuery(type, std::move(predicate), anchor, limit, std::move(resultsHandler),
                              std::move(updateHandler)));
}

std::shared_ptr<SampleQuery> SampleQuery::make(ObjectType type, std::optional<Predicate> predicate,
                                               std::size_t limit,
                                               std::vector<SortDescriptor> sortDescriptors,
                                               ResultsHandler resultsHandler) {
  return std::shared_ptr<SampleQuery>(new SampleQuery(
      type, std::move(predicate), limit, std::move(sortDescriptors), std::move(resultsHandler)));
}

std::shared_ptr<StatisticsQuery> StatisticsQuery::make(ObjectType quantityType,
                                                       std::optional<Predicate> predicate,
                                                       StatisticsOptions options,
                                                       CompletionHandler completionHandler) {
  return std::shared_ptr<StatisticsQuery>(new StatisticsQuery(
      quantityType, std::move(predicate), options, std::move(completionHandler)));
}

std::shared_ptr<StatisticsCollectionQuery> StatisticsCollectionQuery::make(
    ObjectType quantityType, std::optional<Predicate> predicate, StatisticsOptions options,
    Date anchorDate, DateComponents intervalComponents, ResultsHandler initialResultsHandler) {
  return std::shared_ptr<StatisticsCollectionQuery>(
      new StatisticsCollectionQuery(quantityType, std::move(predicate), options, anchorDate,
                                    intervalComponents, std::move(initialResultsHandler)));
}

std::optional<Quantity> VoltageMeasurement::quantity(ElectrocardiogramLead lead) const {
  if (lead != ElectrocardiogramLead::appleWatchSimilarToLeadI) {
    return std::nullopt;
  }
  return Quantity(Unit::volt(), volts);
}

std::shared_ptr<ElectrocardiogramQuery> ElectrocardiogramQuery::make(
    std::shared_ptr<const Electrocardiogram> electrocardiogram, DataHandler dataHandler) {
  return std::shared_ptr<ElectrocardiogramQuery>(
      new ElectrocardiogramQuery(std::move(electrocardiogram), std::move(dataHandler)));
}

}  // namespace kestrova
