// `kestrova status`, `kestrova pending` and `kestrova rejected`: what the data directory says
// about the connection, the deliveries and the upload files that wait for the back end or were
// set aside. No network; only `rejected --retry` changes anything (it moves files back).
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Register the subcommands; when one is chosen, `*exitCode` receives its result.
void addStatusCommand(CLI::App& app, const CommonOptions& common, int* exitCode);
void addPendingCommand(CLI::App& app, const CommonOptions& common, int* exitCode);
void addRejectedCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
