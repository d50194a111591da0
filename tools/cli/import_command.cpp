#include "tools/cli/import_command.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "healthstore/import/apple_health_importer.h"
#include "tools/cli/progress_display.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kName = "import";
constexpr std::string_view kDescription =
    "Import an Apple Health export (export.zip, the unpacked folder, or export.xml) into the "
    "health store. Importing again, or importing a newer export of the same phone, adds only "
    "what is new; an import that stopped half-way can simply be run again.";
constexpr std::string_view kPathHelp =
    "export.zip as the Health app shares it (any name), its unpacked folder, or the XML file";
constexpr std::string_view kJsonHelp = "Print the summary as JSON on standard output";
constexpr std::string_view kSetupFailed = "kestrova: cannot open the health store: %s\n";

struct ImportArguments {
  std::string path;
  bool json = false;
};

int runImport(const ImportArguments& arguments, const CommonOptions& common) {
  applyLogLevel(common);
  Result<Context> context = openContext(common);
  if (!context) {
    std::fprintf(stderr, kSetupFailed.data(), context.error().text().c_str());
    return kExitSetupFailed;
  }
  ImportOptions options;
  std::unique_ptr<ProgressDisplay> display;
  if (!common.quiet) {
    display = std::make_unique<ProgressDisplay>(stderr, ::isatty(STDERR_FILENO) == 1);
    options.progress = [&display](const ImportProgress& progress) { display->update(progress); };
  }
  AppleHealthImporter importer(context.value().store, std::move(options));
  const ImportSummary summary = importer.importExport(arguments.path);
  if (display) {
    display->finish();
  }
  if (arguments.json) {
    std::printf("%s\n", summaryJson(summary).c_str());
  } else if (!common.quiet) {
    std::printf("%s", summaryText(summary).c_str());
  } else if (!summary.ok()) {
    std::fprintf(stderr, "%s", summaryText(summary).c_str());
  }
  std::fflush(stdout);
  return summary.ok() ? kExitOk : kExitFailed;
}

}  // namespace

void addImportCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto arguments = std::make_shared<ImportArguments>();
  CLI::App* command = app.add_subcommand(std::string(kName), std::string(kDescription));
  command->add_option("path", arguments->path, std::string(kPathHelp))
      ->required()
      ->check(CLI::ExistingPath)
      ->type_name("PATH");
  command->add_flag("--json", arguments->json, std::string(kJsonHelp));
  command->callback([arguments, &common, exitCode] { *exitCode = runImport(*arguments, common); });
}

}  // namespace kestrova::cli
