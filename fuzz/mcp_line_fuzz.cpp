// libFuzzer target: the MCP server's line handling on arbitrary bytes. The
// first byte picks the path: one line straight into handle(), or the whole
// input as a stream through serve() with a small line limit, so line
// splitting, oversized lines and the nesting guard are reached too. Tool calls
// search a small real configuration. Every request line gets exactly one
// reply that is a JSON object; nothing may throw or crash.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "cli/mcp_server.h"
#include "cli/searcher.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/world.h"
#include "kernel/base/json.h"

namespace {

tarv::cli::Searcher& searcher() {
  static tarv::cli::Searcher* held = [] {
    // A relative cache directory turns the index cache off: nothing is written.
    ::setenv("TARV_INDEX_CACHE", "off", 1);
    return new tarv::cli::Searcher(tarv::fuzz::worldFiles().config, tarv::fuzz::table());
  }();
  return *held;
}

void serveStream(tarv::cli::McpServer& server, std::string_view bytes) {
  int in[2];
  if (::pipe(in) != 0) std::abort();
  // A pipe holds 64 KiB; longer inputs are cut rather than deadlock.
  bytes = bytes.substr(0, 60000);
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(in[1], bytes.data() + done, bytes.size() - done);
    if (n <= 0) std::abort();
    done += static_cast<std::size_t>(n);
  }
  ::close(in[1]);
  const int out = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  server.serve(in[0], out);
  ::close(in[0]);
  ::close(out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const fuzz::Split input = fuzz::split(data, size);
  if (input.options & 1) {
    cli::McpServer server(searcher(), 64 + input.options);
    serveStream(server, input.rest);
    return 0;
  }
  cli::McpServer server(searcher());
  const std::optional<std::string> reply = server.handle(input.rest);
  if (reply) {
    fuzz::check(reply->find('\n') == std::string::npos, "a reply spans more than one line");
    const json::Value parsed = json::Value::parse(*reply, nullptr, false);
    fuzz::check(parsed.is_object(), "a reply is not a JSON object");
  }
  (void)cli::nestsDeeperThan(input.rest, 8);
  return 0;
}
