#!/usr/bin/env python3
"""mcp_round_trip: the warm round trip of `tarv mcp` against the engine's own time.

Starts one `tarv mcp` server on a configuration, loads it with a first call,
then sends CALLS "search_files" calls (limit 50) cycling through a few queries
and measures, for each, the wall time from writing the request line to reading
the reply line, minus the search time the reply reports ("searchMs"). Prints
the median and p95 of that overhead in milliseconds.

    python3 bench/mcp_round_trip.py CONFIG [TARV] [CALLS]

TARV defaults to build/tarv, CALLS to 400. Uses the index cache as configured
by the environment (TARV_INDEX_CACHE / TARV_SUPPORT_DIRECTORY).
"""
import json
import statistics
import subprocess
import sys
import time

QUERIES = ["lib", "ext:h", "*.so.3", "readme", "size:>1mb", "dm:2026", "<doc | txt> !tmp", "folder: share"]


def main():
    if len(sys.argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    config = sys.argv[1]
    tarv = sys.argv[2] if len(sys.argv) > 2 else "build/tarv"
    calls = int(sys.argv[3]) if len(sys.argv) > 3 else 400
    server = subprocess.Popen([tarv, "mcp", "--config", config], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True, bufsize=1)

    def call(message_id, method, params):
        line = json.dumps({"jsonrpc": "2.0", "id": message_id, "method": method, "params": params})
        start = time.perf_counter()
        server.stdin.write(line + "\n")
        server.stdin.flush()
        reply = json.loads(server.stdout.readline())
        return time.perf_counter() - start, reply

    call(0, "initialize", {"protocolVersion": "2025-06-18", "capabilities": {},
                           "clientInfo": {"name": "bench", "version": "1"}})
    server.stdin.write(json.dumps({"jsonrpc": "2.0", "method": "notifications/initialized"}) + "\n")
    _, first = call(1, "tools/call", {"name": "search_files", "arguments": {"query": "lib", "limit": 50}})
    if first.get("result", {}).get("isError"):
        print("search failed:", first["result"]["content"][0]["text"], file=sys.stderr)
        return 1

    overheads, searches = [], []
    for i in range(calls):
        query = QUERIES[i % len(QUERIES)]
        seconds, reply = call(i + 2, "tools/call", {"name": "search_files", "arguments": {"query": query, "limit": 50}})
        result = json.loads(reply["result"]["content"][0]["text"])
        searches.append(result["searchMs"])
        overheads.append(seconds * 1000 - result["searchMs"])
    server.stdin.close()
    server.wait(timeout=120)

    overheads.sort()
    p95 = overheads[int(0.95 * (len(overheads) - 1))]
    print(f"calls={calls} limit=50 overhead_ms median={statistics.median(overheads):.3f} p95={p95:.3f} "
          f"max={overheads[-1]:.3f} searchMs median={statistics.median(searches):.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
