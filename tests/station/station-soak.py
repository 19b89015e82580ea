#!/usr/bin/env python3
"""Soak run of the station (not part of CI).

    station-soak.py [STATION_BINARY [SECONDS [CLIENTS]]]

Defaults: build-run/apps/station/station (build it with scripts/run.sh
first), 600 seconds, 50 clients. Starts the station in a scratch folder on
a free port; every client sends commands one after another and waits for
each answer (status, io, echo, config, crc, hash; now and then trace and
fit). The clients connect 50 ms apart: the server's listen backlog is
5, so a burst of connections would wait on TCP retransmissions. Memory (VmRSS) and the descriptor count are sampled every 10 seconds
after a 30-second warm-up. Prints the figures; fails when an answer went
missing, memory grew by more than 10 percent, or descriptors changed.
"""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from station_client import PROMPT, copy_in, kill, listening_port
from station_client import stop as stop_station

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
COMMANDS = ["status", "io get 1", "echo soak", "config", "crc station.cfg",
            "hash sha256 station.cfg", "io", "status"]


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))


def fds(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


class Stats:
    def __init__(self):
        self.lock = threading.Lock()
        self.answers = 0
        self.failures = []
        self.slowest = 0.0


def client(port, stop, stats, index):
    try:
        sock = socket.create_connection(("127.0.0.1", port), timeout=60)
        buf = b""

        def until_prompt():
            nonlocal buf
            while not buf.endswith(PROMPT):
                chunk = sock.recv(65536)
                if not chunk:
                    raise EOFError("connection closed")
                buf += chunk
            text, buf = buf, b""
            return text

        until_prompt()
        n = 0
        while not stop.is_set():
            n += 1
            cmd = COMMANDS[n % len(COMMANDS)]
            if n % 200 == index % 200:
                cmd = "fit"
            elif n % 97 == 0:
                cmd = "trace start" if n % 2 else "trace stop"
            began = time.time()
            sock.sendall(cmd.encode() + b"\n")
            answer = until_prompt()
            took = time.time() - began
            if cmd == "echo soak" and not answer.startswith(b"soak"):
                raise ValueError("wrong answer %r" % answer)
            with stats.lock:
                stats.answers += 1
                stats.slowest = max(stats.slowest, took)
        sock.sendall(b"exit\n")
        sock.close()
    except Exception as e:  # every failure is reported at the end
        with stats.lock:
            stats.failures.append("client %d: %s" % (index, e))


def main():
    binary = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else \
        os.path.join(ROOT, "build-run", "apps", "station", "station")
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 600
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 50
    work = tempfile.mkdtemp(prefix="station-soak-")
    copy_in(work, os.path.join(ROOT, "apps", "station"))
    proc = subprocess.Popen([binary, "Server.ListenPort=0", "Server.MaxConnections=%d" % (count + 8),
                             "Station.UsersFile=none", "Server.RequireTLS=0"],
                            cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
    try:
        port = listening_port(proc) or sys.exit("the station did not start")
        stats, stop = Stats(), threading.Event()
        threads = [threading.Thread(target=client, args=(port, stop, stats, i)) for i in range(count)]
        for t in threads:
            t.start()
            time.sleep(0.05)
        began = time.time()
        samples = []
        time.sleep(min(30, seconds / 4))
        while time.time() - began < seconds:
            samples.append((time.time() - began, rss_kb(proc.pid), fds(proc.pid), stats.answers))
            time.sleep(10)
        samples.append((time.time() - began, rss_kb(proc.pid), fds(proc.pid), stats.answers))
        stop.set()
        for t in threads:
            t.join(60)
        elapsed = time.time() - began
        rc = stop_station(proc)
    finally:
        kill(proc)
        shutil.rmtree(work, ignore_errors=True)

    first, last = samples[0], samples[-1]
    print("%d clients, %.0f s: %d answers (%.0f/s), slowest %.3f s, %d failures" %
          (count, elapsed, stats.answers, stats.answers / elapsed, stats.slowest, len(stats.failures)))
    print("VmRSS after warm-up %d kB, at the end %d kB, highest %d kB" %
          (first[1], last[1], max(s[1] for s in samples)))
    print("descriptors after warm-up %d, at the end %d (range %d..%d)" %
          (first[2], last[2], min(s[2] for s in samples), max(s[2] for s in samples)))
    print("station exit status %s" % rc)
    for f in stats.failures[:10]:
        print("  " + f)
    ok = not stats.failures and rc == 0 and last[1] <= first[1] * 1.10 and last[2] == first[2]
    print("soak: " + ("passed" if ok else "FAILED"))
    sys.exit(0 if ok else 1)


main()
