#include "platform/health/predicate.h"

#include <algorithm>
#include <variant>

namespace kestrova {

struct DateRange {
  std::optional<Date> start;
  std::optional<Date> end;
  QueryOptions options;
};
struct CategoryComparison {
  ComparisonOperator op;
  int value;
};
struct CategoryIn {
  std::set<int> values;
};
struct Compound {
  bool isAnd;
  std::vector<Predicate> children;
};

struct Predicate::Node {
  std::variant<DateRange, CategoryComparison, CategoryIn, Compound> content;
};

namespace {

bool evaluateRange(const DateRange& range, const PredicateFields& fields) {
  const auto inRange = [&](Date date) {
    return (!range.start || date >= *range.start) && (!range.end || date < *range.end);
  };
  const bool strictStart = hasOption(range.options, QueryOptions::strictStartDate);
  const bool strictEnd = hasOption(range.options, QueryOptions::strictEndDate);
  if (!strictStart && !strictEnd) {
    return (!range.start || fields.endDate >= *range.start) &&
           (!range.end || fields.startDate < *range.end);
  }
  return (!strictStart || inRange(fields.startDate)) && (!strictEnd || inRange(fields.endDate));
}

bool compare(ComparisonOperator op, int left, int right) {
  switch (op) {
    case ComparisonOperator::lessThan:
      return left < right;
    case ComparisonOperator::lessThanOrEqualTo:
      return left <= right;
    case ComparisonOperator::greaterThan:
      return left > right;
    case ComparisonOperator::greaterThanOrEqualTo:
      return left >= right;
    case ComparisonOperator::equalTo:
      return left == right;
    case ComparisonOperator::notEqualTo:
      return left != right;
  }
  return false;
}

template <class Pick>
std::optional<Date> tightest(const std::optional<Date>& a, const std::optional<Date>& b,
                             Pick pick) {
  if (!a)
    return b;
  if (!b)
    return a;
  return pick(*a, *b);
}

// For OR: bounded only when every alternative is bounded, by the loosest bound.
template <class Pick>
std::optional<Date> loosest(const std::optional<Date>& a, const std::optional<Date>& b, Pick pick) {
  if (!a || !b)
    return std::nullopt;
  return pick(*a, *b);
}

const auto kEarlier = [](Date a, Date b) { return std::min(a, b); };
const auto kLater = [](Date a, Date b) { return std::max(a, b); };

SampleWindow rangeWindow(const DateRange& range) {
  SampleWindow window;
  // Every option implies start < end of range (a sample cannot end before it starts).
  window.startBefore = range.end;
  if (hasOption(range.options, QueryOptions::strictStartDate)) {
    window.startAtLeast = range.start;
  }
  window.endAtLeast = range.start;
  return window;
}

}  // namespace

PredicateFields predicateFields(const Sample& sample) {
  PredicateFields fields{sample.startDate(), sample.endDate(), std::nullopt};
  if (const auto* category = dynamic_cast<const CategorySample*>(&sample)) {
    fields.categoryValue = category->value();
  }
  return fields;
}

bool Predicate::evaluate(const PredicateFields& fields) const {
  struct Visitor {
    const PredicateFields& fields;
    bool operator()(const DateRange& range) const { return evaluateRange(range, fields); }
    bool operator()(const CategoryComparison& comparison) const {
      return fields.categoryValue &&
             compare(comparison.op, *fields.categoryValue, comparison.value);
    }
    bool operator()(const CategoryIn& in) const {
      return fields.categoryValue && in.values.contains(*fields.categoryValue);
    }
    bool operator()(const Compound& compound) const {
      const auto matches = [&](const Predicate& child) { return child.evaluate(fields); };
      return compound.isAnd
                 ? std::all_of(compound.children.begin(), compound.children.end(), matches)
                 : std::any_of(compound.children.begin(), compound.children.end(), matches);
    }
  };
  return std::visit(Visitor{fields}, node_->content);
}

SampleWindow Predicate::window() const {
  if (const auto* range = std::get_if<DateRange>(&node_->content)) {
    return rangeWindow(*range);
  }
  const auto* compound = std::get_if<Compound>(&node_->content);
  if (compound == nullptr || compound->children.empty()) {
    return {};
  }
  SampleWindow window = compound->children.front().window();
  for (std::size_t i = 1; i < compound->children.size(); ++i) {
    const SampleWindow next = compound->children[i].window();
    if (compound->isAnd) {
      window.startAtLeast = tightest(window.startAtLeast, next.startAtLeast, kLater);
      window.startBefore = tightest(window.startBefore, next.startBefore, kEarlier);
      window.endAtLeast = tightest(window.endAtLeast, next.endAtLeast, kLater);
    } else {
      window.startAtLeast = loosest(window.startAtLeast, next.startAtLeast, kEarlier);
      window.startBefore = loosest(window.startBefore, next.startBefore, kLater);
      window.endAtLeast = loosest(window.endAtLeast, next.endAtLeast, kEarlier);
    }
  }
  return window;
}

Predicate predicateForSamples(std::optional<Date> start, std::optional<Date> end,
                              QueryOptions options) {
  return Predicate(
      std::make_shared<const Predicate::Node>(Predicate::Node{DateRange{start, end, options}}));
}

Predicate predicateForCategorySamples(ComparisonOperator op, int value) {
  return Predicate(
      std::make_shared<const Predicate::Node>(Predicate::Node{CategoryComparison{op, value}}));
}

Predicate predicateForCategorySamples(std::set<int> values) {
  return Predicate(
      std::make_shared<const Predicate::Node>(Predicate::Node{CategoryIn{std::move(values)}}));
}

Predicate andPredicate(std::vector<Predicate> predicates) {
  return Predicate(std::make_shared<const Predicate::Node>(
      Predicate::Node{Compound{true, std::move(predicates)}}));
}

Predicate orPredicate(std::vector<Predicate> predicates) {
  return Predicate(std::make_shared<const Predicate::Node>(
      Predicate::Node{Compound{false, std::move(predicates)}}));
}

std::set<int> allAsleepValues() {
  return {kSleepAsleepUnspecified, kSleepAsleepCore, kSleepAsleepDeep, kSleepAsleepREM};
}

}  // namespace kestrova
