// `kestrova disconnect`: stops delivery for the connected profile and forgets it, its anchors
// and its statistics; the next sync starts from the start date again. Upload files stay.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/cli/cli_context.h"

namespace kestrova::cli {

// Registers the subcommand; when it is chosen, `*exitCode` receives its result.
void addDisconnectCommand(CLI::App& app, const CommonOptions& common, int* exitCode);

}  // namespace kestrova::cli
