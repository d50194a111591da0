// `kestrova watch`: the long-running host. Configures and connects as sync does, then stays:
// what other processes add to the health store is delivered as it arrives, upload files the back
// end did not take are sent again with backoff, and SIGINT or SIGTERM stops it cleanly. The
// main thread runs the watch loop; the library's completions and uploads run on its own threads.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Registers the subcommand; when it is chosen, `*exitCode` receives its result.
void addWatchCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
