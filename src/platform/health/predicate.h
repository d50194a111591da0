// Sample predicates as the platform builds them: date ranges with strict-start and strict-end
// options, category values compared with an operator or taken from a set, and AND / OR of
// those. Immutable values sharing an immutable tree: thread-safe to copy and evaluate.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "platform/clock.h"
#include "platform/health/sample.h"

namespace kestrova {

// Raw values as HKQueryOptions.
enum class QueryOptions : unsigned { none = 0, strictStartDate = 1, strictEndDate = 2 };

constexpr QueryOptions operator|(QueryOptions a, QueryOptions b) {
  return static_cast<QueryOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool hasOption(QueryOptions options, QueryOptions option) {
  return (static_cast<unsigned>(options) & static_cast<unsigned>(option)) != 0;
}

// Raw values as NSPredicateOperatorType.
enum class ComparisonOperator : int {
  lessThan = 0,
  lessThanOrEqualTo = 1,
  greaterThan = 2,
  greaterThanOrEqualTo = 3,
  equalTo = 4,
  notEqualTo = 5,
};

// The fields a predicate looks at; deleted objects keep them so that a predicate can be
// evaluated against what was deleted.
struct PredicateFields {
  Date startDate;
  Date endDate;
  std::optional<int> categoryValue;
};

PredicateFields predicateFields(const Sample& sample);

// Bounds that every matching sample satisfies: what an index scan can use before the
// predicate itself is evaluated. Lower bounds are inclusive, the upper bound exclusive.
struct SampleWindow {
  std::optional<Date> startAtLeast;
  std::optional<Date> startBefore;
  std::optional<Date> endAtLeast;
};

class Predicate {
 public:
  struct Node;

  bool evaluate(const PredicateFields& fields) const;
  bool evaluate(const Sample& sample) const { return evaluate(predicateFields(sample)); }
  SampleWindow window() const;

  explicit Predicate(std::shared_ptr<const Node> node) : node_(std::move(node)) {}

 private:
  std::shared_ptr<const Node> node_;
};

// Samples overlapping [start, end) (start inclusive on the end date, end exclusive on the start
// date), or with the strict options: starting in [start, end), ending in [start, end), or both.
// A missing bound is open.
Predicate predicateForSamples(std::optional<Date> start, std::optional<Date> end,
                              QueryOptions options);
// Category samples whose value compares to `value` with `op`.
Predicate predicateForCategorySamples(ComparisonOperator op, int value);
// Category samples whose value is one of `values`.
Predicate predicateForCategorySamples(std::set<int> values);
Predicate andPredicate(std::vector<Predicate> predicates);
Predicate orPredicate(std::vector<Predicate> predicates);

// Raw values as HKCategoryValueSleepAnalysis.allAsleepValues.
std::set<int> allAsleepValues();

}  // namespace kestrova
