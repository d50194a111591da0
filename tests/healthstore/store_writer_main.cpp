// A second process for the cross-process tests: opens the store file named on the command
// line and saves the given number of body-mass samples in one transaction.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "healthstore/embedded_health_store.h"

int main(int argc, char** argv) {
  using namespace kestrova;
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <store file> <sample count>\n", argv[0]);
    return 2;
  }
  EmbeddedHealthStoreOptions options;
  options.path = argv[1];
  options.dispatcher = makeDispatcher(DispatcherOptions{1, std::nullopt});
  auto store = EmbeddedHealthStore::open(std::move(options));
  if (!store) {
    std::fprintf(stderr, "%s\n", store.error().text().c_str());
    return 1;
  }
  const ObjectType mass = ObjectType::quantityType("HKQuantityTypeIdentifierBodyMass").value();
  std::vector<SamplePtr> samples;
  const int count = std::atoi(argv[2]);
  for (int i = 0; i < count; ++i) {
    SampleProperties properties;
    properties.startDate = properties.endDate = Date(std::chrono::hours(24 * (19000 + i)));
    properties.sourceRevision = SourceRevision{Source{"Scale", "com.example.scale"}, "1", {}, {}};
    samples.push_back(
        QuantitySample::make(mass, Quantity(Unit::fromString("kg").value(), 70 + i), properties)
            .value());
  }
  Result<std::size_t> saved = store.value()->saveObjects(samples);
  if (!saved || saved.value() != samples.size()) {
    std::fprintf(stderr, "save failed\n");
    return 1;
  }
  return 0;
}
