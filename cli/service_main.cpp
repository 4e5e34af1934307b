// Entry point of `tarv-service`: loads the configured index once and serves
// it over the loopback search protocol until SIGINT or SIGTERM.
//
//   tarv-service [--config FILE] [--compatibility FILE]
//
// Standard output carries exactly one line, the ready record; failures before
// it go to standard error with the "tarv: " prefix and exit status 2.

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cli/argument_list.h"
#include "cli/configuration_location.h"
#include "cli/terminal.h"
#include "core/platform/executable.h"
#include "core/platform/settings.h"
#include "core/platform/support_paths.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/index/index_snapshot.h"
#include "kernel/service/http_server.h"

namespace {

using namespace tarv;

// Signals are taken synchronously by the main thread: every thread started
// later inherits the blocked mask, so none of them is interrupted.
sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

int serve(int argc, char** argv) {
  const std::vector<std::string> all(argv, argv + argc);
  cli::ArgumentList arguments = cli::ArgumentList::fromMain(argc, argv);
  const std::optional<std::string> given = arguments.take("--config");
  (void)arguments.take("--compatibility");  // read from the whole command line by the table lookup
  if (!arguments.empty()) throw cli::UsageError("unknown argument " + arguments.remaining().front() +
                                                "\nusage: tarv-service [--config FILE] [--compatibility FILE]");

  const std::string token = HTTPServer::environmentToken();
  const platform::Settings settings = platform::Settings::open(platform::kBundleIdentifier);
  const std::filesystem::path config = cli::configurationLocation(given, settings);
  std::error_code missing;
  if (!std::filesystem::exists(config, missing))
    throw KernelError::io("No index yet: open Tarv and choose the folders to search (" + config.string() + ").");

  // Like the command line, map the index files the app wrote unless told otherwise.
  if (std::getenv("TARV_INDEX_CACHE") == nullptr)
    ::setenv("TARV_INDEX_CACHE", platform::indexCacheDirectory().c_str(), /*overwrite=*/1);
  const auto compatibility = Compatibility::load(Compatibility::commandLineLocation(all));

  const auto started = std::chrono::steady_clock::now();
  const auto snapshot = std::make_shared<const IndexSnapshot>(config, compatibility);
  const double loadMs =
      static_cast<double>(
          std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started).count()) /
      1000.0;

  json::Value sources = json::Value::array();
  for (std::size_t i = 0; i < snapshot->sources().size(); ++i)
    sources.push_back(snapshot->sources()[i].status(snapshot->counts()[i], snapshot->fingerprints()[i]));

  HTTPServer server(token, snapshot->searchPointer(), std::move(sources), loadMs);
  server.start();
  cli::output(server.readyLine());

  const sigset_t signals = stopSignals();
  int received = 0;
  while (sigwait(&signals, &received) != 0) {
  }
  server.stop();
  IndexSnapshot::finishWrites();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (argc > 0) Compatibility::setProgramPath(argv[0]);
  try {
    return serve(argc, argv);
  } catch (const cli::UsageError& error) {
    cli::fail(error.message(), 2);
  } catch (const KernelError& error) {
    cli::fail(error.message(), 2);
  } catch (const std::exception& error) {
    cli::fail(error.what(), 2);
  }
}
