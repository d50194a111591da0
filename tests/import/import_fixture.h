// The store fixture with an importer writing into its store, helpers that read samples back
// through the store's queries, and real export files and files written here.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "healthstore/import/apple_health_importer.h"
#include "healthstore/store_fixture.h"

namespace kestrova::testing {

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

class ImportFixture : public StoreFixture {
 protected:
  ImportSummary import(const std::filesystem::path& path, ImportOptions options = {}) {
    AppleHealthImporter importer(store_, std::move(options));
    ImportSummary summary = importer.importExport(path);
    // The invariant every summary keeps, whatever happened.
    EXPECT_EQ(summary.read, summary.added + summary.alreadyPresent + summary.skippedCount())
        << summaryText(summary);
    return summary;
  }

  // A second connection to the store's file, for what the platform's queries do not read.
  SampleDatabase database() { return SampleDatabase::open(dir_.path() / "health.sqlite").value(); }

  // The samples of the type, oldest first.
  template <class T>
  std::vector<std::shared_ptr<const T>> samplesOf(std::string_view identifier) {
    const Result<std::vector<SamplePtr>> found =
        samples(ObjectType::fromIdentifier(identifier).value(), std::nullopt, 0,
                {SortDescriptor{SortKey::startDate, true}});
    std::vector<std::shared_ptr<const T>> typed;
    for (const SamplePtr& sample : found.value()) {
      typed.push_back(std::dynamic_pointer_cast<const T>(sample));
    }
    return typed;
  }

  // The one sample of the type; ends the test with a failure when there is none.
  template <class T>
  std::shared_ptr<const T> only(std::string_view identifier) {
    std::vector<std::shared_ptr<const T>> typed = samplesOf<T>(identifier);
    EXPECT_EQ(typed.size(), 1u) << identifier;
    return typed.at(0);
  }
};

inline double valueIn(const QuantitySample& sample, std::string_view unit) {
  return sample.quantity().doubleValue(Unit::fromString(unit).value()).value();
}

// Ends the test with a failure when the key is missing or holds another type.
template <class T>
const T& metadataValue(const Sample& sample, std::string_view key) {
  return std::get<T>(sample.metadata().at(std::string(key)));
}

}  // namespace kestrova::testing
