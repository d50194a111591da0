// The queries a health store runs, named as on the platform: observer, anchored object, sample,
// statistics, statistics collection and electrocardiogram voltage queries. A query is an
// immutable description plus its handlers; the store that executes it owns its running state
// and calls its handlers on the store's background queues, never on the caller's thread.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "platform/health/object_type.h"
#include "platform/health/predicate.h"
#include "platform/health/sample.h"
#include "platform/health/statistics.h"
#include "platform/query_anchor.h"
#include "platform/result.h"

namespace kestrova {

enum class QueryKind {
  observer,
  anchoredObject,
  sample,
  statistics,
  statisticsCollection,
  electrocardiogram,
};

// HKObjectQueryNoLimit.
inline constexpr std::size_t kObjectQueryNoLimit = 0;

class Query {
 public:
  virtual ~Query() = default;
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  QueryKind kind() const { return kind_; }
  // The type the query reads; none for an observer of several descriptors.
  const std::optional<ObjectType>& objectType() const { return objectType_; }
  const std::optional<Predicate>& predicate() const { return predicate_; }

 protected:
  Query(QueryKind kind, std::optional<ObjectType> type, std::optional<Predicate> predicate)
      : kind_(kind), objectType_(type), predicate_(std::move(predicate)) {}

 private:
  QueryKind kind_;
  std::optional<ObjectType> objectType_;
  std::optional<Predicate> predicate_;
};

struct QueryDescriptor {
  ObjectType sampleType;
  std::optional<Predicate> predicate;
};

// Tells the store that the app has finished with one observer delivery. Calling it more than
// once, or from any thread, is harmless.
using ObserverCompletionHandler = std::function<void()>;

class ObserverQuery : public Query {
 public:
  // `changedTypes`: the types of the descriptors that matched (all of them for the first call
  // after execute, which reports "maybe changed"). `error` is for stores that report a failure
  // to watch through the handler; the embedded store logs such failures and retries, so it
  // always passes none.
  using UpdateHandler = std::function<void(
      const std::shared_ptr<ObserverQuery>& query, const std::vector<ObjectType>& changedTypes,
      ObserverCompletionHandler completion, const std::optional<Error>& error)>;

  static std::shared_ptr<ObserverQuery> make(ObjectType sampleType,
                                             std::optional<Predicate> predicate,
                                             UpdateHandler updateHandler);
  static std::shared_ptr<ObserverQuery> make(std::vector<QueryDescriptor> descriptors,
                                             UpdateHandler updateHandler);

  const std::vector<QueryDescriptor>& descriptors() const { return descriptors_; }
  const UpdateHandler& updateHandler() const { return updateHandler_; }

 private:
  ObserverQuery(std::optional<ObjectType> type, std::optional<Predicate> predicate,
                std::vector<QueryDescriptor> descriptors, UpdateHandler updateHandler)
      : Query(QueryKind::observer, type, std::move(predicate)),
        descriptors_(std::move(descriptors)),
        updateHandler_(std::move(updateHandler)) {}

  std::vector<QueryDescriptor> descriptors_;
  UpdateHandler updateHandler_;
};

struct AnchoredObjectResults {
  std::vector<SamplePtr> samples;
  std::vector<DeletedObject> deletedObjects;
  QueryAnchor newAnchor{0};
};

class AnchoredObjectQuery : public Query {
 public:
  using ResultsHandler = std::function<void(const std::shared_ptr<AnchoredObjectQuery>& query,
                                            Result<AnchoredObjectResults> results)>;

  // Without an anchor: every matching sample in the store and the deletions still kept.
  // `limit` counts samples and deleted objects together; 0 is no limit. With an update
  // handler (allowed only without a limit) the query keeps running and reports each later
  // change with a new anchor until it is stopped.
  static std::shared_ptr<AnchoredObjectQuery> make(
      ObjectType type, std::optional<Predicate> predicate, std::optional<QueryAnchor> anchor,
      std::size_t limit, ResultsHandler resultsHandler,
      std::optional<ResultsHandler> updateHandler = std::nullopt);

  const std::optional<QueryAnchor>& anchor() const { return anchor_; }
  std::size_t limit() const { return limit_; }
  const ResultsHandler& resultsHandler() const { return resultsHandler_; }
  const std::optional<ResultsHandler>& updateHandler() const { return updateHandler_; }

 private:
  AnchoredObjectQuery(ObjectType type, std::optional<Predicate> predicate,
                      std::optional<QueryAnchor> anchor, std::size_t limit,
                      ResultsHandler resultsHandler, std::optional<ResultsHandler> updateHandler)
      : Query(QueryKind::anchoredObject, type, std::move(predicate)),
        anchor_(anchor),
        limit_(limit),
        resultsHandler_(std::move(resultsHandler)),
        updateHandler_(std::move(updateHandler)) {}

  std::optional<QueryAnchor> anchor_;
  std::size_t limit_;
  ResultsHandler resultsHandler_;
  std::optional<ResultsHandler> updateHandler_;
};

enum class SortKey { startDate, endDate, workoutDuration };

// HKSampleSortIdentifierStartDate and friends.
struct SortDescriptor {
  SortKey key = SortKey::startDate;
  bool ascending = true;
};

class SampleQuery : public Query {
 public:
  using ResultsHandler = std::function<void(const std::shared_ptr<SampleQuery>& query,
                                            Result<std::vector<SamplePtr>> results)>;

  // Predicate, then sort (ties in the order the samples were saved), then limit; without sort
  // descriptors the samples come in the order they were saved.
  static std::shared_ptr<SampleQuery> make(ObjectType type, std::optional<Predicate> predicate,
                                           std::size_t limit,
                                           std::vector<SortDescriptor> sortDescriptors,
                                           ResultsHandler resultsHandler);

  std::size_t limit() const { return limit_; }
  const std::vector<SortDescriptor>& sortDescriptors() const { return sortDescriptors_; }
  const ResultsHandler& resultsHandler() const { return resultsHandler_; }

 private:
  SampleQuery(ObjectType type, std::optional<Predicate> predicate, std::size_t limit,
              std::vector<SortDescriptor> sortDescriptors, ResultsHandler resultsHandler)
      : Query(QueryKind::sample, type, std::move(predicate)),
        limit_(limit),
        sortDescriptors_(std::move(sortDescriptors)),
        resultsHandler_(std::move(resultsHandler)) {}

  std::size_t limit_;
  std::vector<SortDescriptor> sortDescriptors_;
  ResultsHandler resultsHandler_;
};

class StatisticsQuery : public Query {
 public:
  // The statistics span the earliest matching start to the latest matching end. No matching
  // sample gives the error kHealthErrorNoData; an option the type does not allow gives
  // kHealthErrorInvalidArgument.
  using CompletionHandler = std::function<void(const std::shared_ptr<StatisticsQuery>& query,
                                               Result<Statistics> statistics)>;

  static std::shared_ptr<StatisticsQuery> make(ObjectType quantityType,
                                               std::optional<Predicate> predicate,
                                               StatisticsOptions options,
                                               CompletionHandler completionHandler);

  StatisticsOptions options() const { return options_; }
  const CompletionHandler& completionHandler() const { return completionHandler_; }

 private:
  StatisticsQuery(ObjectType type, std::optional<Predicate> predicate, StatisticsOptions options,
                  CompletionHandler completionHandler)
      : Query(QueryKind::statistics, type, std::move(predicate)),
        options_(options),
        completionHandler_(std::move(completionHandler)) {}

  StatisticsOptions options_;
  CompletionHandler completionHandler_;
};

class StatisticsCollectionQuery : public Query {
 public:
  using ResultsHandler = std::function<void(const std::shared_ptr<StatisticsCollectionQuery>& query,
                                            Result<StatisticsCollection> collection)>;

  // Intervals are laid out from `anchorDate` in the device time zone at execution. The query
  // computes once and ends after its initial results.
  static std::shared_ptr<StatisticsCollectionQuery> make(ObjectType quantityType,
                                                         std::optional<Predicate> predicate,
                                                         StatisticsOptions options, Date anchorDate,
                                                         DateComponents intervalComponents,
                                                         ResultsHandler initialResultsHandler);

  StatisticsOptions options() const { return options_; }
  Date anchorDate() const { return anchorDate_; }
  const DateComponents& intervalComponents() const { return intervalComponents_; }
  const ResultsHandler& initialResultsHandler() const { return initialResultsHandler_; }

 private:
  StatisticsCollectionQuery(ObjectType type, std::optional<Predicate> predicate,
                            StatisticsOptions options, Date anchorDate,
                            DateComponents intervalComponents, ResultsHandler handler)
      : Query(QueryKind::statisticsCollection, type, std::move(predicate)),
        options_(options),
        anchorDate_(anchorDate),
        intervalComponents_(intervalComponents),
        initialResultsHandler_(std::move(handler)) {}

  StatisticsOptions options_;
  Date anchorDate_;
  DateComponents intervalComponents_;
  ResultsHandler initialResultsHandler_;
};

// Raw value as HKElectrocardiogram.Lead.
enum class ElectrocardiogramLead : int { appleWatchSimilarToLeadI = 1 };

struct VoltageMeasurement {
  // Seconds from the start of the recording.
  double timeSinceSampleStart = 0;
  double volts = 0;

  // The voltage of `lead` in volts; none for a lead the recording does not have.
  std::optional<Quantity> quantity(ElectrocardiogramLead lead) const;
};

// One call per measurement, then one `Done`; or an error, after which nothing follows.
struct ElectrocardiogramQueryDone {};
using ElectrocardiogramQueryResult =
    std::variant<VoltageMeasurement, ElectrocardiogramQueryDone, Error>;

class ElectrocardiogramQuery : public Query {
 public:
  using DataHandler = std::function<void(const std::shared_ptr<ElectrocardiogramQuery>& query,
                                         const ElectrocardiogramQueryResult& result)>;

  static std::shared_ptr<ElectrocardiogramQuery> make(
      std::shared_ptr<const Electrocardiogram> electrocardiogram, DataHandler dataHandler);

  const std::shared_ptr<const Electrocardiogram>& electrocardiogram() const {
    return electrocardiogram_;
  }
  const DataHandler& dataHandler() const { return dataHandler_; }

 private:
  ElectrocardiogramQuery(std::shared_ptr<const Electrocardiogram> electrocardiogram,
                         DataHandler dataHandler)
      : Query(QueryKind::electrocardiogram, ObjectType::electrocardiogramType(), std::nullopt),
        electrocardiogram_(std::move(electrocardiogram)),
        dataHandler_(std::move(dataHandler)) {}

  std::shared_ptr<const Electrocardiogram> electrocardiogram_;
  DataHandler dataHandler_;
};

}  // namespace kestrova
