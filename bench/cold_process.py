#!/usr/bin/env python3
"""cold_process: whole-process timings of tarv over bench/data, next to plocate.

For each source format of one data set (bench/datasets writes them):

  fresh   one `tarv status` with an empty index cache and the load trace on:
          wall and CPU time plus the trace's phase durations (fingerprint,
          reader, search index, cache store: the store starts beside the
          index build, so its own duration overlaps; "store after index" is
          what it adds at the end);
  mapped  `tarv status` and `tarv search` with a warm cache, each run RUNS
          times as a new process: median and best wall time and median CPU
          time (user + system of all threads), and the mapping phase from
          the trace; for each search also one traced run giving the engine's
          own search time (end of loading to the planner's total line) and
          the resident memory then, so the process's overhead beyond its
          search is the wall time less that;

then the same for one configuration that joins every format's source (three
copies of the paths under different roots), whose global orders are merged
on the first run and mapped from the cache afterwards; then, on the same
paths, `plocate-build -p` (plaintext list) and `plocate` with the same words
as the searches.

  bench/cold_process.py [--build DIR] [--set eighth|half|full] [--runs N]
                        [--formats efu,gfind7,snapshot-v1]

Wall times include process start and exit; on a busy machine the CPU times
and the best wall times are the figures to compare. Nothing here is written outside a temporary folder.
"""

import argparse
import json
import os
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
QUERIES = ["zlib", "libc.so", "ext:h stdio"]
PLOCATE_QUERIES = ["zlib", "libc.so", "stdio.h"]
TRACE = re.compile(r"phase=(\S+) event=end rssMiB=(\S+) durationMs=(\S+)")
ELAPSED = re.compile(r"elapsedMs=(\S+) phase=(\S+) event=(\S+) rssMiB=(\S+)")


def timed(command, env):
    """Wall seconds of one process, its standard error, and its status."""
    start = time.perf_counter()
    done = subprocess.run(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    return time.perf_counter() - start, done.stderr.decode("utf-8", "replace"), done.returncode


def phases(trace):
    """Summed durations (ms) and last resident MiB per traced phase."""
    found = {}
    for line in trace.splitlines():
        match = TRACE.search(line)
        if match:
            name, rss, ms = match.group(1), float(match.group(2)), float(match.group(3))
            total, _ = found.get(name, (0.0, 0.0))
            found[name] = (total + ms, rss)
    return found


def store_tail(trace):
    """Ms from the last search index built to the last cache file written:
    what the cache write adds to a fresh load once it overlaps the index build."""
    index_end, store_end = None, None
    for line in trace.splitlines():
        match = ELAPSED.search(line)
        if not match or match.group(3) != "end":
            continue
        if match.group(2) == "source.index":
            index_end = float(match.group(1))
        elif match.group(2) == "source.store":
            store_end = float(match.group(1))
    if index_end is None or store_end is None:
        return None
    return max(0.0, store_end - index_end)


def search_share(trace):
    """From one traced search: ms from the end of loading to the planner's
    total line (the engine's own search), and resident MiB at that line."""
    loaded, done, rss = 0.0, None, 0.0
    for line in trace.splitlines():
        match = ELAPSED.search(line)
        if not match:
            continue
        ms, phase, event = float(match.group(1)), match.group(2), match.group(3)
        if event == "end" and (phase.startswith("source.") or phase.startswith("join.")):
            loaded = max(loaded, ms)
        if phase == "query.plan" and event == "total":
            done, rss = ms, float(match.group(4))
    return (None, rss) if done is None else (done - loaded, rss)


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def repeat(command, env, runs):
    """Median and best wall ms, and median CPU ms (user + system, all threads)."""
    times, cpu = [], []
    for _ in range(runs):
        before = cpu_seconds()
        seconds, err, status = timed(command, env)
        if status != 0:
            sys.exit(f"cold_process: {' '.join(command)} failed: {err.strip()}")
        times.append(seconds * 1000)
        cpu.append((cpu_seconds() - before) * 1000)
    return f"{statistics.median(times):7.1f} / {min(times):7.1f} / {statistics.median(cpu):6.1f}"


def joined_config(data, formats, folder):
    """A configuration naming every format's source of the set, each under its own id."""
    sources = []
    for fmt in formats:
        with open(os.path.join(data, f"config-{fmt}.json")) as file:
            source = json.load(file)["sources"][0]
        source["id"] = fmt.replace("-", "")
        source["file"] = os.path.join(data, source["file"])
        sources.append(source)
    path = os.path.join(folder, "config-joined.json")
    with open(path, "w") as file:
        json.dump({"schema": 1, "sources": sources}, file)
    return path


def gfind_paths(path, out):
    """Writes the paths of a gfind7 file (7th field of NUL-ended records) one per line."""
    with open(path, "rb") as source, open(out, "wb") as target:
        rest = b""
        while True:
            block = source.read(1 << 24)
            if not block:
                break
            records = (rest + block).split(b"\0")
            rest = records.pop()
            target.write(b"\n".join(r.split(b" ", 6)[6] for r in records if r))
            target.write(b"\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    parser.add_argument("--set", default="eighth")
    parser.add_argument("--runs", type=int, default=15)
    parser.add_argument("--formats", default="efu,gfind7,snapshot-v1")
    args = parser.parse_args()

    tarv = os.path.join(args.build, "tarv")
    data = os.path.join(HERE, "data", args.set)
    if not os.path.exists(tarv):
        sys.exit(f"cold_process: no {tarv}")
    if not os.path.isdir(data):
        sys.exit(f"cold_process: no {data}; run bench/datasets first")

    work = tempfile.mkdtemp(prefix="tarv-cold-")
    try:
        base = dict(os.environ)
        base["TARV_SUPPORT_DIRECTORY"] = os.path.join(work, "support")
        base.pop("TARV_LOAD_TRACE", None)
        print(f"set {args.set}, {args.runs} runs per timing: wall ms median / best / CPU ms median")
        formats = args.formats.split(",")
        configs = [(fmt, os.path.join(data, f"config-{fmt}.json")) for fmt in formats]
        if len(formats) > 1:
            configs.append(("joined", joined_config(data, formats, work)))
        for fmt, config in configs:
            env = dict(base, TARV_INDEX_CACHE=os.path.join(work, f"cache-{fmt}"))
            traced = dict(env, TARV_LOAD_TRACE="1")
            status = [tarv, "status", "--config", config]

            before = cpu_seconds()
            seconds, trace, code = timed(status, traced)
            if code != 0:
                sys.exit(f"cold_process: fresh load of {fmt} failed: {trace.strip()}")
            cpu = (cpu_seconds() - before) * 1000
            fresh = phases(trace)
            parts = " ".join(f"{name}={ms:.0f}" for name, (ms, _) in sorted(fresh.items()))
            tail = store_tail(trace)
            tail = "" if tail is None else f", store after index {tail:.0f} ms"
            print(f"\n{fmt}: fresh status {seconds * 1000:.0f} ms, CPU {cpu:.0f} ms{tail} ({parts})")

            seconds, trace, _ = timed(status, traced)
            mapped = phases(trace)
            if "source.map" not in mapped:
                sys.exit(f"cold_process: second run of {fmt} did not map the cache:\n{trace}")
            ms, rss = mapped["source.map"]
            joined = f", joined orders {mapped['join.map'][0]:.2f} ms" if "join.map" in mapped else ""
            cache_bytes = sum(e.stat().st_size for e in os.scandir(env["TARV_INDEX_CACHE"]))
            print(f"  cache files {cache_bytes / 2**20:.0f} MiB; traced mapped run {seconds * 1000:.1f} ms: "
                  f"mapping {ms:.2f} ms{joined}, resident {rss:.1f} MiB")

            print(f"  status (cached)             {repeat(status, env, args.runs)}")
            for query in QUERIES:
                listed = repeat([tarv, "search", query, "--config", config], env, args.runs)
                counted = repeat([tarv, "search", query, "--count", "--config", config], env, args.runs)
                print(f"  search {query!r:16} list {listed}   count {counted}")
                _, trace, _ = timed([tarv, "search", query, "--count", "--config", config], traced)
                engine, rss = search_share(trace)
                if engine is not None:
                    print(f"  {'':23} traced --count: engine search {engine:.1f} ms, resident {rss:.1f} MiB")

        plocate_build = shutil.which("plocate-build") or "/usr/sbin/plocate-build"
        plocate = shutil.which("plocate")
        gfind = os.path.join(data, "list.gfind7")
        if os.path.exists(plocate_build) and plocate and os.path.exists(gfind):
            paths = os.path.join(work, "paths.txt")
            gfind_paths(gfind, paths)
            db = os.path.join(work, "plocate.db")
            seconds, err, code = timed([plocate_build, "-p", paths, db], base)
            if code != 0:
                sys.exit(f"cold_process: plocate-build failed: {err.strip()}")
            print(f"\nplocate-build -p: {seconds * 1000:.0f} ms, database {os.path.getsize(db) / 2**20:.0f} MiB")
            for query in PLOCATE_QUERIES:
                listed = repeat([plocate, "-d", db, query], base, args.runs)
                counted = repeat([plocate, "-c", "-d", db, query], base, args.runs)
                print(f"  plocate {query!r:15} list {listed}   count {counted}")
        else:
            print("\nplocate not installed or no gfind7 list: comparison skipped")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
