// kestrova: the reference host command. Each subcommand registers itself here; the common
// options (--data-dir, --verbose, --quiet, --version) apply to all of them. Single-threaded apart
// from the library's own threads.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "kestrova/version.h"
#include "tools/cli/cli_context.h"
#include "tools/cli/disconnect_command.h"
#include "tools/cli/import_command.h"
#include "tools/cli/status_command.h"
#include "tools/cli/sync_command.h"
#include "tools/cli/watch_command.h"

namespace {

constexpr const char* kDescription =
    "Kestrova: import Apple Health exports into the local health store and deliver them.";
constexpr const char* kExamples = R"(
Examples:
  kestrova import ~/Downloads/export.zip
  kestrova import ~/Downloads/apple_health_export            (the unpacked folder)
  kestrova import exportar.xml --data-dir /srv/kestrova/alice --json > summary.json
  kestrova import export.zip --quiet && echo imported
  export KESTROVA_TOKEN=eyJ...        (keeps the token out of the shell history)
  kestrova sync --url http://127.0.0.1:8080/api/ --since 2024-01-01 --json
  kestrova sync --types heartRate,stepCount --timeout 60
  kestrova watch --url http://127.0.0.1:8080/api/ --json    (until Ctrl-C or SIGTERM)
  kestrova status --json
  kestrova pending
  kestrova rejected --json                 (files the back end refused again and again)
  kestrova rejected --retry                (moves them back; the next sync sends them)
  kestrova disconnect

Exit codes: 0 success; 1 the command failed (an import says where it stopped: what was
added stays, and running the same command again completes it); 3 the data directory or
the health store could not be opened; 4 the token or URL was refused (malformed, or the
back end answered 403); 5 the back end could not be reached or could not validate the
profile; 6 upload files were still pending when the sync ended (the back end did not
take them, or --timeout ran out), or statistics uploads failed (what is left stays for the
next sync; files set aside are reported, not waited for). watch exits 0 when SIGINT or
SIGTERM stops it. Usage errors exit with CLI11's codes and a message.)";

// The library's shared instance and its threads live until the process ends, by design, and
// they may still be at work (a statistics batch, a store poll) when a command is done: the
// static destructors that exit() runs would pull data from under them. So the command ends the
// process without those, once what it printed is flushed (and, under AddressSanitizer, after
// the leak check that exit() would have run). The SQLite stores commit whole transactions or
// nothing, so ending here leaves them consistent.
[[noreturn]] void endProcess(int exitCode) {
  std::fflush(stdout);
  std::fflush(stderr);
#if defined(__SANITIZE_ADDRESS__)
  __lsan_do_leak_check();
#endif
  std::_Exit(exitCode);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription, "kestrova");
  app.footer(kExamples);
  app.set_version_flag("--version", KESTROVA_VERSION_STRING);
  app.require_subcommand(1);
  // Common options may come after the subcommand too ("kestrova import x.zip --data-dir d");
  // subcommands made from now on inherit this.
  app.fallthrough();

  kestrova::cli::CommonOptions common;
  kestrova::cli::addCommonOptions(app, common);
  int exitCode = kestrova::cli::kExitOk;
  kestrova::cli::addImportCommand(app, common, &exitCode);
  kestrova::cli::addSyncCommand(app, common, &exitCode);
  kestrova::cli::addWatchCommand(app, common, &exitCode);
  kestrova::cli::addStatusCommand(app, common, &exitCode);
  kestrova::cli::addPendingCommand(app, common, &exitCode);
  kestrova::cli::addRejectedCommand(app, common, &exitCode);
  kestrova::cli::addDisconnectCommand(app, common, &exitCode);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  endProcess(exitCode);
}
