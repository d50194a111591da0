// kestrova-generate-export: writes a synthetic Apple Health export for benchmarks and manual
// runs of `kestrova import`.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "export_generator.h"

int main(int argc, char** argv) {
  CLI::App app("Write a synthetic Apple Health export (apple_health_export/ and export.zip)",
               "kestrova-generate-export");
  std::string out = "/tmp/kestrova-export";
  kestrova::bench::GeneratorOptions options;
  app.add_option("--out", out, "Directory to write into")->capture_default_str();
  app.add_option("--years", options.years, "Years of data")->capture_default_str();
  app.add_option("--days", options.days, "Days of data instead of whole years");
  app.add_option("--first-day", options.firstDay, "First day written, counted from 2021-01-01")
      ->capture_default_str();
  app.add_option("--seed", options.seed, "Random seed")->capture_default_str();
  app.add_flag("--zip", options.zip, "Also write export.zip");
  CLI11_PARSE(app, argc, argv);
  auto generated = kestrova::bench::generateExport(out, options);
  if (!generated) {
    std::fprintf(stderr, "%s\n", generated.error().text().c_str());
    return 1;
  }
  std::printf("%s: %llu records, %.1f MB, %d electrocardiograms\n", generated.value().xml.c_str(),
              static_cast<unsigned long long>(generated.value().records),
              static_cast<double>(generated.value().bytes) / 1048576.0,
              generated.value().electrocardiograms);
  return 0;
}
