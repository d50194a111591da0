// A store on a real file in a temporary directory and an importer writing into it, with helpers
// that read samples back through the store's queries and write export files. Each fixture owns
// its store; query results are handed over through futures.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "healthstore/embedded_health_store.h"
#include "healthstore/import/apple_health_importer.h"
#include "support/test_support.h"

namespace kestrova::testing {

inline constexpr std::chrono::seconds kQueryWait{10};

inline std::string fixturePath(std::string_view relative) {
  return std::string(KESTROVA_APPLE_HEALTH_DATA) + "/" + std::string(relative);
}

inline std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeText(const std::filesystem::path& path, std::string_view text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

class ImportFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    EmbeddedHealthStoreOptions options;
    options.path = dir_.path() / "healthstore.sqlite";
    options.dispatcher = dispatcher_;
    options.timeZone = makeFixedTimeZoneSource(TimeZone::named("Europe/Berlin").value());
    auto store = EmbeddedHealthStore::open(std::move(options));
    ASSERT_TRUE(store.ok()) << store.error().text();
    store_ = store.value();
  }

  ImportSummary import(const std::filesystem::path& path, ImportOptions options = {}) {
    AppleHealthImporter importer(store_, std::move(options));
    ImportSummary summary = importer.importExport(path);
    // The invariant every summary keeps, whatever happened.
    EXPECT_EQ(summary.read, summary.added + summary.alreadyPresent + summary.skippedCount())
        << summaryText(summary);
    return summary;
  }

  std::vector<SamplePtr> samples(std::string_view identifier) {
    std::promise<Result<std::vector<SamplePtr>>> promise;
    store_->executeQuery(
        SampleQuery::make(ObjectType::fromIdentifier(identifier).value(), std::nullopt, 0,
                          {SortDescriptor{SortKey::startDate, true}},
                          [&](const auto&, Result<std::vector<SamplePtr>> results) {
                            promise.set_value(std::move(results));
                          }));
    std::future<Result<std::vector<SamplePtr>>> future = promise.get_future();
    if (future.wait_for(kQueryWait) != std::future_status::ready) {
      ADD_FAILURE() << "no query result";
      std::abort();
    }
    Result<std::vector<SamplePtr>> results = future.get();
    EXPECT_TRUE(results.ok()) << results.error().text();
    return results.ok() ? results.value() : std::vector<SamplePtr>{};
  }

  // A second connection to the store's file, for what the platform's queries do not read.
  SampleDatabase database() {
    Result<SampleDatabase> opened = SampleDatabase::open(dir_.path() / "healthstore.sqlite");
    if (!opened) {
      ADD_FAILURE() << opened.error().text();
      std::abort();
    }
    return std::move(opened).value();
  }

  template <class T>
  std::vector<std::shared_ptr<const T>> samplesOf(std::string_view identifier) {
    std::vector<std::shared_ptr<const T>> typed;
    for (const SamplePtr& sample : samples(identifier)) {
      typed.push_back(std::dynamic_pointer_cast<const T>(sample));
    }
    return typed;
  }

  // The one sample of the type; ends the test with a failure when there are none or more.
  template <class T>
  std::shared_ptr<const T> only(std::string_view identifier) {
    std::vector<std::shared_ptr<const T>> typed = samplesOf<T>(identifier);
    if (typed.size() != 1) {
      throw std::runtime_error(std::to_string(typed.size()) + " samples of " +
                               std::string(identifier));
    }
    return typed[0];
  }

  TempDir dir_;
  std::shared_ptr<Dispatcher> dispatcher_ = makeDispatcher(DispatcherOptions{2, std::nullopt});
  std::shared_ptr<EmbeddedHealthStore> store_;
};

inline double valueIn(const QuantitySample& sample, std::string_view unit) {
  return sample.quantity().doubleValue(Unit::fromString(unit).value()).value();
}

template <class T>
const T& metadataValue(const Sample& sample, std::string_view key) {
  const auto found = sample.metadata().find(key);
  if (found == sample.metadata().end() || !std::holds_alternative<T>(found->second)) {
    // Ends the test with a failure: there is no value to compare.
    throw std::runtime_error("metadata " + std::string(key) + " missing or of another type");
  }
  return std::get<T>(found->second);
}

}  // namespace kestrova::testing
