#!/usr/bin/env python3
"""Stall test of tarv-service: slow and silent clients must not hold up others.

    bench/service_stall.py [--build DIR] [--clients 64] [--config FILE]

Starts the service (on a small generated gfind source unless --config is
given), then opens CLIENTS connections to 127.0.0.1: half send nothing, half
send a request head one byte per second. While they stall, a well-behaved
client repeatedly opens a connection and reads /v1/status; every answer must
arrive within one second. Each stalled connection must then be dropped by the
server after the receive time-out (10 s; checked within 10..13 s). Prints the
figures; exits 1 on any failure.
"""

import argparse
import json
import os
import secrets
import socket
import subprocess
import sys
import tempfile
import threading
import time

TIMEOUT = 10.0


def make_source(folder):
    records = [b"d 4096 1700000000 /stall"]
    records += [b"f %d 1700000000 /stall/file-%04d.txt" % (i, i) for i in range(2000)]
    source = os.path.join(folder, "list.gfind")
    with open(source, "wb") as out:
        out.write(b"\0".join(records) + b"\0")
    config = os.path.join(folder, "config.json")
    with open(config, "w") as out:
        json.dump({"schema": 1, "sources": [{
            "id": "stall", "label": "Stall", "format": "gfind", "file": source, "root": "/",
            "state": "complete", "scannedAt": None, "virtualDirectory": None}]}, out)
    return config


def timed_status(port, token):
    """Seconds for one fresh connection to get a 200 from /v1/status."""
    started = time.monotonic()
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(b"GET /v1/status HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token.encode() +
                  b"\r\nConnection: close\r\n\r\n")
        data = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                break
            data += chunk
    if not data.startswith(b"HTTP/1.1 200 OK\r\n"):
        raise RuntimeError("unexpected answer: %r" % data[:80])
    return time.monotonic() - started


class Staller(threading.Thread):
    """One stalled client; records when the server dropped it."""

    HEAD = b"GET /v1/status HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer not-yet\r\n\r\n"

    def __init__(self, port, trickle):
        super().__init__(daemon=True)
        self.port, self.trickle = port, trickle
        self.dropped_after = None

    def run(self):
        s = socket.create_connection(("127.0.0.1", self.port), timeout=30)
        started = time.monotonic()
        s.settimeout(1.0)
        sent = 0
        try:
            while time.monotonic() - started < 20:
                if self.trickle and sent < len(self.HEAD):
                    try:
                        s.sendall(self.HEAD[sent:sent + 1])
                        sent += 1
                    except OSError:
                        self.dropped_after = time.monotonic() - started
                        return
                try:
                    if s.recv(1024) == b"":
                        self.dropped_after = time.monotonic() - started
                        return
                except socket.timeout:
                    continue
                except OSError:
                    self.dropped_after = time.monotonic() - started
                    return
        finally:
            s.close()


def main():
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(here, "build"))
    parser.add_argument("--clients", type=int, default=64)
    parser.add_argument("--config")
    options = parser.parse_args()

    token = secrets.token_hex(16)
    with tempfile.TemporaryDirectory() as folder:
        config = options.config or make_source(folder)
        env = dict(os.environ, TARV_TOKEN=token, TARV_INDEX_CACHE=os.path.join(folder, "cache"))
        service = subprocess.Popen([os.path.join(options.build, "tarv-service"), "--config", config],
                                   stdout=subprocess.PIPE, env=env)
        try:
            ready = json.loads(service.stdout.readline())
            port = ready["port"]
            print("service_stall: ready on port %d" % port)

            stallers = [Staller(port, trickle=(i % 2 == 1)) for i in range(options.clients)]
            for s in stallers:
                s.start()
            time.sleep(0.5)

            latencies = []
            deadline = time.monotonic() + 8.0
            while time.monotonic() < deadline:
                latencies.append(timed_status(port, token))
                time.sleep(0.2)
            for s in stallers:
                s.join(timeout=25)

            failures = []
            worst = max(latencies)
            if worst >= 1.0:
                failures.append("a well-behaved client waited %.3f s" % worst)
            drops = [s.dropped_after for s in stallers]
            never = sum(1 for d in drops if d is None)
            if never:
                failures.append("%d stalled clients were never dropped" % never)
            timely = [d for d in drops if d is not None]
            if timely and (min(timely) < TIMEOUT - 0.5 or max(timely) > TIMEOUT + 3):
                failures.append("drops after %.2f..%.2f s, expected about %.0f s" % (min(timely), max(timely), TIMEOUT))
            # Served again once the stalled clients are gone.
            after = timed_status(port, token)

            print("service_stall: %d stalled clients (%d silent, %d one byte/s)" %
                  (len(stallers), sum(1 for s in stallers if not s.trickle), sum(1 for s in stallers if s.trickle)))
            print("service_stall: %d status reads during the stall, worst %.1f ms, median %.1f ms; after: %.1f ms" %
                  (len(latencies), worst * 1000, sorted(latencies)[len(latencies) // 2] * 1000, after * 1000))
            if timely:
                print("service_stall: stalled clients dropped after %.2f..%.2f s" % (min(timely), max(timely)))
        finally:
            service.terminate()
            status = service.wait(timeout=70)
        if status != 0:
            failures.append("tarv-service exited with %d" % status)
        if failures:
            print("service_stall: FAILED: " + "; ".join(failures))
            return 1
        print("service_stall: passed")
        return 0


if __name__ == "__main__":
    sys.exit(main())
