#!/usr/bin/env bash
# Load test of tarv-service: wrk on loopback against the paging route.
#
#   bench/service_load.sh [CONFIG] [SECONDS]
#
# Starts the service on CONFIG (default: the eighth Debian set, gfind7),
# creates one query, then reads random 100-row pages of it for SECONDS
# (default 30) with `wrk -c 8 -t 2` over keep-alive connections, sampling the
# service's resident memory once a second. Fails when any request fails or
# answers other than 200, or when resident memory grows by more than 10%
# (and 8 MiB) between the first and the last sample.
#
# Environment: BUILD_DIR (default build), QUERY (default "lib"), SORT
# (default name-asc), CACHE_DIR (index cache kept between runs).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
config=${1:-$here/bench/data/eighth/config-gfind7.json}
seconds=${2:-30}
build=${BUILD_DIR:-$here/build}
query=${QUERY:-lib}
sort=${SORT:-name-asc}
cache=${CACHE_DIR:-${TMPDIR:-/tmp}/tarv-service-bench-cache}

command -v wrk >/dev/null || { echo "service_load: wrk is missing (scripts/bootstrap installs it)" >&2; exit 1; }
[[ -x $build/tarv-service ]] || { echo "service_load: no $build/tarv-service; build it first" >&2; exit 1; }

work=$(mktemp -d)
service_pid=
cleanup() {
  [[ -n $service_pid ]] && kill -TERM "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

export TARV_TOKEN=$(head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n')
export TARV_INDEX_CACHE=$cache
mkdir -p "$cache"

echo "service_load: loading $config" >&2
"$build/tarv-service" --config "$config" >"$work/out" 2>"$work/err" &
service_pid=$!
for _ in $(seq 1 600); do
  [[ -s $work/out ]] && break
  kill -0 "$service_pid" 2>/dev/null || { cat "$work/err" >&2; exit 1; }
  sleep 0.5
done
ready=$(head -n 1 "$work/out")
port=$(python3 -c 'import json,sys; print(json.loads(sys.argv[1])["port"])' "$ready")
version=$(python3 -c 'import json,sys; print(json.loads(sys.argv[1])["version"])' "$ready")
echo "service_load: ready $ready" >&2

base="http://127.0.0.1:$port"
auth="Authorization: Bearer $TARV_TOKEN"
created=$(curl -sS -H "$auth" --data-urlencode "query=$query" --data-urlencode "sort=$sort" "$base/v1/queries")
id=$(python3 -c 'import json,sys; print(json.loads(sys.argv[1])["id"])' "$created")
total=$(python3 -c 'import json,sys; print(json.loads(sys.argv[1])["total"])' "$created")
echo "service_load: query \"$query\" ($sort): $created" >&2
(( total >= 100 )) || { echo "service_load: the query matches only $total rows; choose another QUERY" >&2; exit 1; }

cat >"$work/pages.lua" <<LUA
-- Random 100-row pages of one stored result.
local last = math.max(0, $total - 100)
request = function()
  local offset = math.random(0, last)
  return wrk.format("GET", "/v1/queries/$id?version=$version&offset=" .. offset .. "&limit=100",
                    { ["Authorization"] = "Bearer $TARV_TOKEN" })
end
LUA

rss() { awk '/^VmRSS:/ {print $2}' "/proc/$service_pid/status"; }
# User plus system CPU ticks of the service so far (fields 14 and 15 of stat;
# the command name in field 2 holds no spaces here).
cpu_ticks() { awk '{print $14 + $15}' "/proc/$service_pid/stat"; }
: >"$work/rss"
( while kill -0 "$service_pid" 2>/dev/null; do rss >>"$work/rss"; sleep 1; done ) &
sampler=$!

cpu_before=$(cpu_ticks)
wrk -c 8 -t 2 -d "${seconds}s" --latency -s "$work/pages.lua" "$base" | tee "$work/wrk"
cpu_after=$(cpu_ticks)
kill "$sampler" 2>/dev/null || true
wait "$sampler" 2>/dev/null || true

# The still-valid result proves the service kept serving the same entry.
final=$(curl -sS -o /dev/null -w '%{http_code}' -H "$auth" "$base/v1/queries/$id?version=$version&offset=0&limit=1")

python3 - "$work/wrk" "$work/rss" "$final" "$((cpu_after - cpu_before))" "$(getconf CLK_TCK)" <<'PY'
import re, sys
text = open(sys.argv[1]).read()
samples = [int(x) for x in open(sys.argv[2]).read().split()]
failures = []
rate = re.search(r"Requests/sec:\s+([\d.]+)", text)
requests = re.search(r"(\d+) requests in", text)
if re.search(r"Non-2xx or 3xx responses: (\d+)", text):
    failures.append("non-200 answers: " + re.search(r"Non-2xx or 3xx responses: (\d+)", text).group(1))
errors = re.search(r"Socket errors: (.*)", text)
if errors:
    failures.append("socket errors: " + errors.group(1))
if sys.argv[3] != "200":
    failures.append("the stored result answered " + sys.argv[3] + " after the run")
# Skip the first samples (warm-up: the first pages touch the mapped index).
steady = samples[2:] if len(samples) > 4 else samples
first, last, peak = steady[0], steady[-1], max(steady)
growth = last - first
print(f"service_load: {requests.group(1) if requests else '?'} page reads, "
      f"{rate.group(1) if rate else '?'} pages/s; resident memory {first // 1024} MiB -> {last // 1024} MiB "
      f"(peak {peak // 1024} MiB, {len(samples)} samples)")
# CPU per page tells more than the rate on a busy machine: wrk and other
# processes share the cores, but not the service's own CPU time.
if requests and int(requests.group(1)) > 0:
    cpu_seconds = int(sys.argv[4]) / int(sys.argv[5])
    print(f"service_load: service CPU {cpu_seconds:.2f} s, {cpu_seconds * 1e6 / int(requests.group(1)):.1f} us per page")
if growth > max(first // 10, 8 * 1024):
    failures.append(f"resident memory grew by {growth // 1024} MiB")
if failures:
    print("service_load: FAILED: " + "; ".join(failures))
    sys.exit(1)
print("service_load: passed")
PY
