#pragma once
// McpServer: `tarv mcp`, the Model Context Protocol server that offers search
// to AI agents. JSON-RPC 2.0, one message per line on standard input; every
// reply is one compact JSON object (sorted keys, slashes unescaped) plus one
// line feed on standard output. Requests are answered strictly one at a time,
// in input order; notifications (no id, or a null id) get no reply at all.
//
// The server borrows one long-lived Searcher, so the index is loaded by the
// first tool call and again only when the configuration file's modification
// date changes. Nothing but the end of input ends the loop: malformed lines,
// unknown methods and failing searches all become replies. Not thread safe.

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/searcher.h"
#include "kernel/base/json.h"

namespace tarv::cli {

class McpServer {
 public:
  // JSON-RPC error codes the server sends.
  static constexpr int kParseError = -32700;
  static constexpr int kMethodNotFound = -32601;
  static constexpr int kInvalidParams = -32602;
  static constexpr int kInternalError = -32603;

  // The protocol revision answered when the client names none.
  static constexpr std::string_view kDefaultProtocolVersion = "2025-06-18";

  // Longer lines (by default) are not read into memory: their bytes are skipped up to the
  // next line feed and the line is answered as unparsable.
  static constexpr std::size_t kMaxLineBytes = std::size_t{128} << 20;
  // Deeper nesting is answered as unparsable before parsing, so a line of
  // millions of "[" cannot exhaust memory. Real messages nest a few levels.
  static constexpr int kMaxNesting = 512;

  // `searcher` must outlive the server. `maxLineBytes` is for tests.
  explicit McpServer(Searcher& searcher, std::size_t maxLineBytes = kMaxLineBytes)
      : searcher_(searcher), maxLineBytes_(maxLineBytes) {}

  // The reply to one line (its line feed already removed), without the line
  // feed; nothing for a notification. Never throws.
  std::optional<std::string> handle(std::string_view line);

  // The reply for a line that was too long to read.
  static std::string oversizedLineReply();

  // Reads lines from `inputFd` until end of input (a last line without a line
  // feed counts), writing each reply and its line feed to `outputFd` in one
  // write before reading on. Returns at end of input or a read error.
  void serve(int inputFd, int outputFd);

 private:
  std::optional<std::string> respond(const json::Value& message);
  json::Value dispatch(const std::string& method, const json::Value& id, const json::Value& params);

  Searcher& searcher_;
  std::size_t maxLineBytes_;
};

// Whether `text`, read as JSON, opens more than `limit` arrays or objects
// inside each other (brackets inside strings do not count).
bool nestsDeeperThan(std::string_view text, int limit);

// The `mcp` command: builds the Searcher on `config` (the table found from
// `arguments`, all of argv), serves standard input and output, then waits for
// background index writes. Returns the exit status, 0. Throws KernelError only
// when the compatibility table cannot be loaded, before serving.
int runMcpCommand(const std::filesystem::path& config, const std::vector<std::string>& arguments);

}  // namespace tarv::cli
