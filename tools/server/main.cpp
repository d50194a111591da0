// kestrova-server: runs the reference back end, mints its tokens, and reads or changes a
// running server's statistics and faults. Single-threaded apart from the server's own threads.
#include <httplib.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "platform/log.h"
#include "server/jwt.h"
#include "server/server.h"

namespace {

using kestrova::server::FaultPlan;
using kestrova::server::KestrovaServer;
using kestrova::server::ServerOptions;

constexpr const char* kExamples = R"(
Examples:
  kestrova-server token --secret s3cret --profile profile-1
  kestrova-server serve --db data.sqlite --port 8080 --secret s3cret
  kestrova-server serve --port 0 --secret s3cret --faults 503,drop,delay:2000,pass
  kestrova-server serve --port 8080 --secret s3cret --fault-rate 0.2 --rate-fault 429
  kestrova-server serve --port 0 --secret s3cret --fault-mix 500=0.15,503=0.15,drop=0.03
  kestrova-server stats --port 8080
  kestrova-server faults --port 8080 --script 500,500 --rate 0.1 --rate-fault drop
  kestrova-server faults --port 8080 --mix 503=0.2,403=0.05,delay:2500=0.02
  kestrova-server faults --port 8080 --clear

Endpoints of a running server (relative to http://HOST:PORT):
  GET  /api/v1.3/profile/<id>/   {"id": <id>} when the bearer token belongs to <id>, else 403
  POST /api/v1.3/ingest/bulk/    a JSON array of data points; 200 {"stored", "duplicates"},
                                 400 with {"error", "problems"} when a data point is malformed,
                                 403 without a valid bearer token
  POST /api/v1.3/ingest/         one data point (a JSON object) or a JSON array of them
  GET  /api/v1.3/_stats          data points per schema and profile, duplicates, requests,
                                 and per schema the data points received more than once
  GET|POST|DELETE /_admin/faults the fault plan (loopback clients only); POST takes
                                 {"script": "503,drop", "rate": 0.1, "rate_fault": "500",
                                  "rates": [{"fault": "503", "p": 0.2}], "seed": 1}

Faults: a status code (e.g. 500, 503, 403, 429) answered instead of the request; drop (the
connection is closed without an answer); delay:MS (the request is answered after MS
milliseconds); pass (answered as usual). A script applies to the next API requests in order;
after it, each request meets the rate fault with the given probability, or one fault of the
mix (FAULT=PROBABILITY,...) with its own; the probabilities add up to at most 1.)";

bool isLoopbackHost(const std::string& host) {
  return host == "localhost" || host.starts_with("127.") || host == "::1";
}

int serve(ServerOptions options, const std::string& script, double rate,
          const std::string& rateFault, const std::string& mix, std::uint64_t seed) {
  auto parsedScript = FaultPlan::parseScript(script);
  if (!parsedScript) {
    std::cerr << "--faults: " << parsedScript.error().description << "\n";
    return 2;
  }
  auto parsedRateFault = kestrova::server::Fault::parse(rateFault);
  if (!parsedRateFault) {
    std::cerr << "--rate-fault: " << parsedRateFault.error().description << "\n";
    return 2;
  }
  auto parsedMix = FaultPlan::parseMix(mix);
  if (!parsedMix) {
    std::cerr << "--fault-mix: " << parsedMix.error().description << "\n";
    return 2;
  }
  options.faults.script = std::move(parsedScript).value();
  options.faults.rate = rate;
  options.faults.rateFault = *parsedRateFault;
  options.faults.mix = std::move(parsedMix).value();
  options.faults.seed = seed;
  if (auto error = options.faults.probabilityError()) {
    std::cerr << "--fault-rate with --fault-mix: " << error->description << "\n";
    return 2;
  }
  if (!isLoopbackHost(options.host)) {
    kestrova::logInfo("kestrova-server",
                      "Listening on %{public}@, which is not loopback: the admin endpoint still "
                      "accepts loopback clients only",
                      {options.host});
  }

  // Signals are taken by sigwait on this thread, so no handler runs inside the server's threads.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto server = KestrovaServer::start(std::move(options));
  if (!server) {
    std::cerr << "kestrova-server: " << server.error().text() << "\n";
    return 1;
  }
  std::cout << "kestrova-server listening on " << (*server)->baseUrl() << std::endl;
  int received = 0;
  sigwait(&signals, &received);
  (*server)->stop();
  return 0;
}

int client(const std::string& host, int port, const std::string& method, const std::string& path,
           const std::string& body) {
  httplib::Client http(host, port);
  http.set_connection_timeout(std::chrono::seconds(5));
  httplib::Result result = method == "GET"    ? http.Get(path)
                           : method == "POST" ? http.Post(path, body, "application/json")
                                              : http.Delete(path);
  if (!result) {
    std::cerr << "kestrova-server: no answer from " << host << ":" << port << ": "
              << httplib::to_string(result.error()) << "\n";
    return 1;
  }
  auto json = nlohmann::json::parse(result->body, nullptr, false);
  std::cout << (json.is_discarded() ? result->body : json.dump(2)) << "\n";
  return result->status == 200 ? 0 : 1;
}

int run(int argc, char** argv) {
  CLI::App app{
      "kestrova-server: the reference back end of Kestrova, for tests, demos and "
      "back-end developers."};
  app.require_subcommand(1);

  ServerOptions options;
  options.port = 8080;
  std::string database = "kestrova-server.sqlite";
  std::string script;
  double rate = 0.0;
  std::string rateFault = "500";
  std::string mix;
  std::uint64_t seed = 1;
  auto* serveCommand = app.add_subcommand("serve", "Run the server until SIGINT or SIGTERM.");
  serveCommand
      ->add_option("--db", database,
                   "SQLite file of the received data points (:memory: keeps none)")
      ->capture_default_str();
  serveCommand->add_option("--port", options.port, "TCP port; 0 picks a free one")
      ->capture_default_str();
  serveCommand->add_option("--host", options.host, "address to bind")->capture_default_str();
  serveCommand
      ->add_option("--secret", options.secret, "secret that signs and checks the bearer tokens")
      ->envname("KESTROVA_SERVER_SECRET")
      ->required();
  serveCommand->add_option("--faults", script,
                           "fault script for the next API requests, e.g. 503,drop,delay:2000");
  serveCommand->add_option("--fault-rate", rate, "probability of the rate fault after the script")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  serveCommand->add_option("--rate-fault", rateFault, "fault met at --fault-rate")
      ->capture_default_str();
  serveCommand->add_option("--fault-mix", mix,
                           "faults each met with a probability of its own after the script, "
                           "e.g. 500=0.15,503=0.15,drop=0.03,delay:2500=0.02");
  serveCommand->add_option("--seed", seed, "seed of the fault draws")->capture_default_str();
  serveCommand->add_option("--fault-path", options.faults.pathPrefix,
                           "only requests whose path begins with this meet faults, e.g. "
                           "/api/v1.3/ingest/");
  serveCommand->add_option("--threads", options.threads, "connections served at once")
      ->check(CLI::Range(2, 256))
      ->capture_default_str();

  std::string secret;
  std::string profile;
  auto* tokenCommand = app.add_subcommand("token", "Print a bearer token for a profile.");
  tokenCommand->add_option("--secret", secret, "the server's secret")
      ->envname("KESTROVA_SERVER_SECRET")
      ->required();
  tokenCommand->add_option("--profile", profile, "profile id written into the token")->required();

  std::string host = "127.0.0.1";
  int port = 8080;
  auto* statsCommand = app.add_subcommand("stats", "Print a running server's statistics.");
  statsCommand->add_option("--host", host, "server address")->capture_default_str();
  statsCommand->add_option("--port", port, "server port")->capture_default_str();

  std::string newScript;
  std::optional<double> newRate;
  std::string newRateFault;
  std::optional<std::string> newMix;
  std::optional<std::uint64_t> newSeed;
  bool clear = false;
  auto* faultsCommand =
      app.add_subcommand("faults", "Show or replace a running server's fault plan.");
  faultsCommand->add_option("--host", host, "server address")->capture_default_str();
  faultsCommand->add_option("--port", port, "server port")->capture_default_str();
  faultsCommand->add_option("--script", newScript, "new fault script, e.g. 500,drop,pass");
  faultsCommand->add_option("--rate", newRate, "new probability of the rate fault")
      ->check(CLI::Range(0.0, 1.0));
  faultsCommand->add_option("--rate-fault", newRateFault, "new rate fault, e.g. 503");
  faultsCommand->add_option("--mix", newMix, "new fault mix, e.g. 503=0.2,drop=0.05");
  faultsCommand->add_option("--seed", newSeed, "new seed of the fault draws");
  std::optional<std::string> newPathPrefix;
  faultsCommand->add_option("--path", newPathPrefix,
                            "only requests whose path begins with this meet faults");
  faultsCommand->add_flag("--clear", clear, "remove every fault");

  // Set after the subcommands exist, which would otherwise repeat it under their own examples.
  app.footer(kExamples);
  serveCommand->footer(
      "\nExamples:\n  kestrova-server serve --db data.sqlite --port 8080 --secret s3cret\n"
      "  kestrova-server serve --port 0 --db :memory: --secret s3cret --faults 503,drop,pass\n"
      "  KESTROVA_SERVER_SECRET=s3cret kestrova-server serve --fault-rate 0.2 --rate-fault "
      "delay:5000\n\nPrints the base URL to give the client, then serves until SIGINT or "
      "SIGTERM.");
  tokenCommand->footer(
      "\nExample:\n  kestrova-server token --secret s3cret --profile profile-1\n\nThe token is "
      "an HS256 JSON Web Token whose payload carries {\"id\": PROFILE}.");
  statsCommand->footer("\nExample:\n  kestrova-server stats --port 8080");
  faultsCommand->footer(
      "\nExamples:\n  kestrova-server faults --port 8080\n"
      "  kestrova-server faults --port 8080 --script 500,drop,delay:3000,pass\n"
      "  kestrova-server faults --port 8080 --rate 0.1 --rate-fault 503 --seed 7\n"
      "  kestrova-server faults --port 8080 --mix 503=0.2,drop=0.05\n"
      "  kestrova-server faults --port 8080 --rate 1 --rate-fault 400 --path /api/v1.3/ingest/\n"
      "  kestrova-server faults --port 8080 --clear\n\nA fault is a status code, drop, "
      "503:retry-after=SECONDS, delay:MS or pass. A new script replaces the old one; options left "
      "out take their "
      "defaults (rate 0, rate fault 500, no mix, seed 1).");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }

  if (*serveCommand) {
    options.database =
        database == ":memory:" ? std::filesystem::path() : std::filesystem::path(database);
    return serve(std::move(options), script, rate, rateFault, mix, seed);
  }
  if (*tokenCommand) {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    std::cout << kestrova::server::mintToken(secret, profile, now) << "\n";
    return 0;
  }
  if (*statsCommand) {
    return client(host, port, "GET", "/api/v1.3/_stats", "");
  }
  if (clear) {
    return client(host, port, "DELETE", "/_admin/faults", "");
  }
  const bool changing =
      !newScript.empty() || newRate || !newRateFault.empty() || newMix || newSeed || newPathPrefix;
  if (!changing) {
    return client(host, port, "GET", "/_admin/faults", "");
  }
  nlohmann::json plan = nlohmann::json::object();
  plan[kestrova::server::kScriptKey] = newScript;
  if (newRate) {
    plan[kestrova::server::kRateKey] = *newRate;
  }
  if (!newRateFault.empty()) {
    plan[kestrova::server::kRateFaultKey] = newRateFault;
  }
  if (newMix) {
    plan[kestrova::server::kMixKey] = *newMix;
  }
  if (newSeed) {
    plan[kestrova::server::kSeedKey] = *newSeed;
  }
  if (newPathPrefix) {
    plan[kestrova::server::kPathPrefixKey] = *newPathPrefix;
  }
  return client(host, port, "POST", "/_admin/faults", plan.dump());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "kestrova-server: " << error.what() << "\n";
    return 1;
  }
}
