// `kestrova status` and `kestrova pending`: what the data directory says about the connection
// and the upload files that wait for the back end. Read only; no network.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Register the subcommands; when one is chosen, `*exitCode` receives its result.
void addStatusCommand(CLI::App& app, const CommonOptions& common, int* exitCode);
void addPendingCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
