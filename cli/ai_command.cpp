#include "cli/ai_command.h"

#include <chrono>

#include "cli/search_result.h"
#include "cli/searcher.h"
#include "cli/terminal.h"
#include "core/ai/ai_search.h"
#include "core/platform/executable.h"
#include "core/platform/settings.h"
#include "core/platform/support_paths.h"
#include "kernel/base/json.h"

namespace tarv::cli {

AiOptions AiOptions::read(ArgumentList& arguments, const platform::Settings& suite) {
  std::optional<AISearch::Provider> provider;
  if (std::optional<std::string> raw = arguments.take("--provider")) {
    provider = AISearch::providerNamed(*raw);
    if (!provider) throw UsageError("--provider must be apple, openAI or anthropic");
  }
  AiOptions options;
  options.settings = AISearch::Settings::load(suite, provider);
  if (std::optional<std::string> baseURL = arguments.take("--base-url")) options.settings.baseURL = *baseURL;
  if (std::optional<std::string> model = arguments.take("--model")) options.settings.model = *model;
  options.search = arguments.flag("--search");
  options.json = arguments.flag("--json");
  const std::vector<std::string>& words = arguments.remaining();
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) options.description += ' ';
    options.description += words[i];
  }
  if (options.description.empty())
    throw UsageError("describe the files to find, e.g. tarv ai 'PDF invoices from last month'");
  return options;
}

int runAiCommand(ArgumentList& arguments, const std::filesystem::path& config, const std::vector<std::string>& all) {
  const AiOptions options =
      AiOptions::read(arguments, platform::Settings::open(platform::kBundleIdentifier));
  std::string home = platform::homeDirectory().string();
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  if (home == "/") home.clear();  // so folders below it read "/Downloads/", not "//Downloads/"
  const AISearch::ComposedQuery answer =
      AISearch::generate(options.description, options.settings, std::chrono::system_clock::now(), home);

  if (!options.search) {
    if (options.json) {
      const json::Value object = {
          {"description", options.description}, {"query", answer.query}, {"problems", answer.problems}};
      output(json::encode(object));
    } else {
      output(answer.query);
    }
    return 0;
  }

  constexpr const char* kSort = "name-asc";
  Searcher searcher(config, all);
  const SearchResult result = searcher.search(answer.query, kSort, 0, 100);
  if (options.json) {
    json::Value object = searchResultObject(answer.query, kSort, 0, result);
    object["description"] = options.description;
    output(json::encode(object, json::Style::pretty));
  } else if (!result.rows.empty()) {
    output(pathLines(result));
  }
  searcher.finishWrites();
  return 0;
}

}  // namespace tarv::cli
