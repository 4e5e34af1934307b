#pragma once
// `tarv ai DESCRIPTION [--provider P] [--base-url URL] [--model M] [--search] [--json]`:
// asks the configured language model for a query and prints it, or runs it
// and prints the matches like `tarv search`.

#include <filesystem>
#include <string>
#include <vector>

#include "cli/argument_list.h"
#include "core/ai/ai_settings.h"

namespace tarv::platform {
class Settings;
}

namespace tarv::cli {

struct AiOptions {
  AISearch::Settings settings;
  bool search = false;
  bool json = false;
  std::string description;  // remaining arguments joined by one space

  // The assistant's settings from `suite` with the command line's overrides.
  // Throws UsageError for an unknown provider, a value-less option or an
  // empty description.
  static AiOptions read(ArgumentList& arguments, const platform::Settings& suite);
};

// Runs the command; returns the exit status (0). Failures are thrown
// (UsageError, AIError, KernelError) for the front end to print.
int runAiCommand(ArgumentList& arguments, const std::filesystem::path& config, const std::vector<std::string>& all);

}  // namespace tarv::cli
