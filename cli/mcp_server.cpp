#include "cli/mcp_server.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>

#include "cli/mcp_tools.h"

#ifndef TARV_VERSION
#define TARV_VERSION "1.0"
#endif

namespace tarv::cli {
namespace {

constexpr std::size_t kReadChunk = std::size_t{1} << 18;

json::Value resultReply(const json::Value& id, json::Value result) {
  return json::Value{{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}};
}

json::Value errorReply(const json::Value& id, int code, std::string message) {
  return json::Value{
      {"jsonrpc", "2.0"}, {"id", id}, {"error", json::Value{{"code", code}, {"message", std::move(message)}}}};
}

std::string parseErrorReply() { return json::encode(errorReply(nullptr, McpServer::kParseError, "Parse error")); }

const json::Value* member(const json::Value& object, const char* key) {
  auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// Writes all of `bytes`. A client that stopped reading (closed pipe) loses
// the reply; the server still reads on to the end of its input.
void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

void sendLine(int fd, std::string reply) {
  reply.push_back('\n');
  writeAll(fd, reply);
}

}  // namespace

bool nestsDeeperThan(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;  // the escaped byte cannot end the string
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return true;
    } else if (c == ']' || c == '}') {
      if (depth > 0) --depth;
    }
  }
  return false;
}

std::string McpServer::oversizedLineReply() { return parseErrorReply(); }

std::optional<std::string> McpServer::handle(std::string_view line) {
  try {
    // The parser would take a NUL byte for the end of its input and accept
    // whatever came before it; no valid line holds one.
    if (line.find('\0') != std::string_view::npos || nestsDeeperThan(line, kMaxNesting)) return parseErrorReply();
    const json::Value message = json::Value::parse(line.begin(), line.end(), nullptr, /*allow_exceptions=*/false);
    return respond(message);
  } catch (const std::exception&) {
    // Only running out of memory while parsing gets here; the line is as good
    // as unreadable.
    return parseErrorReply();
  }
}

std::optional<std::string> McpServer::respond(const json::Value& message) {
  if (message.is_discarded() || !message.is_object()) return parseErrorReply();
  const json::Value* method = member(message, "method");
  if (method == nullptr || !method->is_string()) return parseErrorReply();

  // No id, or a null one: a notification, never answered, whatever it asks.
  const json::Value* id = member(message, "id");
  if (id == nullptr || id->is_null()) return std::nullopt;

  const json::Value* given = member(message, "params");
  const json::Value params = given != nullptr && given->is_object() ? *given : json::Value::object();
  try {
    return json::encode(dispatch(method->get<std::string>(), *id, params));
  } catch (const std::exception& error) {
    // Tool failures are results already; this is memory or a library fault
    // while building the reply, and the agent still hears about it.
    return json::encode(errorReply(*id, kInternalError, std::string("Internal error: ") + error.what()));
  }
}

json::Value McpServer::dispatch(const std::string& method, const json::Value& id, const json::Value& params) {
  if (method == "initialize") {
    const json::Value* version = member(params, "protocolVersion");
    json::Value result = json::Value::object();
    result["protocolVersion"] =
        version != nullptr && version->is_string() ? version->get<std::string>() : std::string(kDefaultProtocolVersion);
    result["capabilities"] = json::Value{{"tools", json::Value::object()}};
    result["serverInfo"] = json::Value{{"name", "tarv"}, {"version", TARV_VERSION}};
    return resultReply(id, std::move(result));
  }
  if (method == "ping") return resultReply(id, json::Value::object());
  if (method == "tools/list") return resultReply(id, json::Value{{"tools", mcp::toolList()}});
  if (method == "tools/call") {
    const json::Value* name = member(params, "name");
    const json::Value* arguments = member(params, "arguments");
    const std::string tool = name != nullptr && name->is_string() ? name->get<std::string>() : std::string();
    std::optional<json::Value> result = mcp::callTool(
        searcher_, tool, arguments != nullptr && arguments->is_object() ? *arguments : json::Value::object());
    if (!result) return errorReply(id, kInvalidParams, "Unknown tool: " + tool);
    return resultReply(id, std::move(*result));
  }
  return errorReply(id, kMethodNotFound, "Method not found: " + method);
}

void McpServer::serve(int inputFd, int outputFd) {
  std::string buffer;        // bytes read and not yet answered
  std::size_t scanned = 0;   // leading bytes of buffer known to hold no line feed
  bool skipping = false;     // inside a line longer than maxLineBytes_
  for (;;) {
    const std::size_t kept = buffer.size();
    buffer.resize(kept + kReadChunk);
    const ssize_t n = ::read(inputFd, buffer.data() + kept, kReadChunk);
    buffer.resize(kept + static_cast<std::size_t>(n > 0 ? n : 0));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;

    std::size_t begin = 0;
    for (;;) {
      const std::size_t end = buffer.find('\n', scanned);
      if (end == std::string::npos) break;
      if (skipping) {
        skipping = false;
        sendLine(outputFd, oversizedLineReply());
      } else if (std::optional<std::string> reply = handle(std::string_view(buffer).substr(begin, end - begin))) {
        sendLine(outputFd, std::move(*reply));
      }
      begin = end + 1;
      scanned = begin;
    }
    buffer.erase(0, begin);
    scanned = buffer.size();
    if (buffer.size() > maxLineBytes_) {
      skipping = true;
      buffer.clear();
      scanned = 0;
    }
  }
  // A last line without its line feed is still a message.
  if (skipping) sendLine(outputFd, oversizedLineReply());
  else if (!buffer.empty())
    if (std::optional<std::string> reply = handle(buffer)) sendLine(outputFd, std::move(*reply));
}

int runMcpCommand(const std::filesystem::path& config, const std::vector<std::string>& arguments) {
  Searcher searcher(config, arguments);
  // A client that closes its end early must not kill the server with SIGPIPE
  // while background index writes are still under way.
  std::signal(SIGPIPE, SIG_IGN);
  McpServer server(searcher);
  server.serve(STDIN_FILENO, STDOUT_FILENO);
  searcher.finishWrites();
  return 0;
}

}  // namespace tarv::cli
