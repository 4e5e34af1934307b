#include "cli/usage_text.h"

namespace tarv::cli {

const std::string_view kUsageText =
    "Usage:\n"
    "  tarv search QUERY [--sort SORT] [--limit N] [--offset N] [--json | --count]\n"
    "  tarv status [--json]\n"
    "  tarv syntax\n"
    "  tarv ai DESCRIPTION [--search] [--json]   turn a description into a query with the AI set up in "
    "Tarv \u203a Settings \u203a AI\n"
    "  tarv mcp                  MCP server on stdin/stdout (tools: search_files, index_status, search_syntax)\n"
    "\n"
    "QUERY uses Vantor's syntax (see `tarv syntax`), e.g.  tarv search 'ext:pdf invoice dm:2026'\n"
    "SORT: name-asc (default), name-desc, path-asc, path-desc, size-asc, size-desc, date-modified-asc, "
    "date-modified-desc, ...\n"
    "Without --json, prints one full path per line. Options: --config FILE (default: the configuration the Tarv app "
    "uses).";

}  // namespace tarv::cli
