// `kestrova import PATH`: imports an Apple Health export into the embedded health store and
// prints the summary. Runs on the main thread; the importer adds its writer thread.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Registers the subcommand; when it is chosen, `*exitCode` receives its result.
void addImportCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
