#include "cli/command_line.h"

#include <string>
#include <vector>

#include "cli/ai_command.h"
#include "cli/argument_list.h"
#include "cli/configuration_location.h"
#include "cli/mcp_server.h"
#include "cli/search_options.h"
#include "cli/searcher.h"
#include "cli/terminal.h"
#include "cli/usage_text.h"
#include "core/ai/search_syntax.h"
#include "core/platform/executable.h"
#include "core/platform/settings.h"
#include "kernel/base/json.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/compatibility.h"

namespace tarv::cli {
namespace {

struct Invocation {
  std::vector<std::string> all;  // argv as given, program path first
  ArgumentList arguments;        // argv less the program path, consumed by the readers
  std::filesystem::path config;
};

int runSearch(Invocation& invocation) {
  const SearchOptions options = SearchOptions::read(invocation.arguments);
  Searcher searcher(invocation.config, invocation.all);
  // With --count no rows are built at all.
  const SearchResult result =
      searcher.search(options.query, options.sort, options.offset, options.count ? 0 : options.limit);
  if (std::optional<std::string> text = searchOutput(options, result)) output(*text);
  searcher.finishWrites();
  return 0;
}

int runStatus(Invocation& invocation) {
  const bool asJson = invocation.arguments.flag("--json");
  Searcher searcher(invocation.config, invocation.all);
  const StatusReport report = searcher.status();
  output(asJson ? json::encode(statusObject(report), json::Style::pretty) : statusText(report));
  // Loading may have started index writes; letting them finish saves the next
  // run from loading the sources afresh.
  searcher.finishWrites();
  return 0;
}

int dispatch(Invocation& invocation) {
  const platform::Settings settings = platform::Settings::open(platform::kBundleIdentifier);
  // "--config" may stand anywhere, so it goes before the command word is read.
  std::optional<std::string> given = invocation.arguments.take("--config");
  invocation.config = configurationLocation(given, settings);
  // "--compatibility FILE" is global too. The table lookup reads it from the
  // whole command line; removing it here keeps it out of the query and out of
  // the unknown-option check, so it works with every command.
  (void)invocation.arguments.take("--compatibility");

  std::optional<std::string> command = invocation.arguments.popFront();
  if (!command || *command == "help" || *command == "--help" || *command == "-h") {
    output(kUsageText);
    return 0;
  }
  if (*command == "syntax") {
    output(SearchSyntax::guide);
    return 0;
  }
  if (*command == "search") return runSearch(invocation);
  if (*command == "status") return runStatus(invocation);
  if (*command == "ai") return runAiCommand(invocation.arguments, invocation.config, invocation.all);
  if (*command == "mcp") return runMcpCommand(invocation.config, invocation.all);
  fail("unknown command " + *command + "\n" + std::string(kUsageText), 2);
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
  Invocation invocation{std::vector<std::string>(argv, argv + argc), ArgumentList::fromMain(argc, argv), {}};
  if (argc > 0) Compatibility::setProgramPath(argv[0]);
  try {
    return dispatch(invocation);
  } catch (const UsageError& error) {
    fail(error.message(), 2);
  } catch (const KernelError& error) {
    fail(error.message(), 2);
  } catch (const std::exception& error) {
    // A system failure outside the kernel (memory, file system library) still
    // gets the one-line treatment rather than an abort.
    fail(error.what(), 2);
  }
}

}  // namespace tarv::cli
