// `kestrova sync`: configures the library, connects, lets collection run and waits until the
// back end has taken every upload file, then reports what was delivered per family. Runs on
// the main thread; the library's completions and uploads run on its own threads.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Registers the subcommand; when it is chosen, `*exitCode` receives its result.
void addSyncCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
