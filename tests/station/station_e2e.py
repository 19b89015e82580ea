#!/usr/bin/env python3
"""End-to-end check of the station as its TCP clients see it.

    station_e2e.py STATION_BINARY STATION_SOURCE_DIR

Starts the station without a terminal (standard input at end of file, as
under a service manager) on a free port in a scratch folder with the shipped
configuration, runs every command from real clients and checks the answers,
is refused from 127.0.0.2 (the shipped list allows 127.0.0.1 only), switches
a client to TLS with Python's ssl module, stops the station with SIGTERM and
checks that it exits 0, that its log holds the session, and that it ended
with one thread and no descriptor beyond its log file.
"""
import hashlib
import os
import re
import shutil
import ssl
import subprocess
import sys
import tempfile
import time
import zlib

from station_client import PROMPT, Checks, Line, copy_in, kill, log_text, start_in, stop, unverified_context

WORK = tempfile.mkdtemp(prefix="station-e2e-")
check = Checks(logs=WORK)


def main():
    binary, source = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = WORK
    copy_in(work, source)
    # The command line alone: usage, and a setting that does not exist.
    usage = subprocess.run([binary, "-h"], cwd=work, capture_output=True, text=True, timeout=30)
    check(usage.returncode == 0 and "Usage is:" in usage.stderr and "Section.Key=VALUE" in usage.stderr,
          "-h prints the usage and exits", usage.stderr)
    bad = subprocess.run([binary, "-f", "station.cfg", "Station.Nothing=1"], cwd=work,
                         capture_output=True, text=True, timeout=30)
    check(bad.returncode == 2 and "command line:3: Station.Nothing = '1': no setting Nothing in [Station]" in bad.stderr,
          "unknown settings are refused", bad.stderr)

    proc, port = start_in(work, [binary, "-d", "1", "-f", "station.cfg", "Server.ListenPort=0",
                                 # the open, anonymous-TLS station of old: no login, no certificates
                                 "Station.UsersFile=none", "Server.RequireTLS=0", "Access.AnonymousTLS=1",
                                 "TLS.CertificateFile=none"])
    try:
        run_clients(port, work, proc.pid)
        stop(proc, check)
        check_log(work)
        print("station e2e: %d checks passed" % check.count)
    finally:
        kill(proc)
        shutil.rmtree(work, ignore_errors=True)


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def run_clients(port, work, pid):
    # Idle with its input at end of file, the station must not spin: the
    # 1 kHz task and a 20 ms poll cost a few percent of one processor.
    before = cpu_seconds(pid)
    time.sleep(2)
    used = (cpu_seconds(pid) - before) / 2
    check(used < 0.5, "no spinning on the closed input", "%.0f%% of a processor" % (used * 100))

    a = Line(port, check=check)
    check("station ready" in a.greeting, "the greeting")
    b = Line(port, check=check)

    s = a.ask("status")
    check(re.search(r"cycles \d+, period 1000 us, cycle length min/avg/max [\d.]+/[\d.]+/[\d.]+ us", s),
          "status shows the cycle statistics", s)
    check("sensor_high: NONE" in s and "log: " in s and "clients 2" in s, "status shows records and counts", s)

    s = a.ask("io")
    check(re.search(r"io 0x[0-9a-f]{2}: heater [01], alarm 0, inject 0", s), "io shows the bits", s)
    check(a.ask("io set 4").strip() == "bit 4 = 1", "io set")
    check(b.ask("io get 4").strip() == "bit 4 = 1", "a second client sees the bit")
    time.sleep(0.5)  # injected readings: 100 warnings promote to an error
    s = a.ask("status")
    check(re.search(r"sensor_high: ERROR, \d+ reports now", s), "out-of-range readings promote", s)
    check(re.search(r"io 0x1[0-9a-f]", s), "the alarm and inject bits are out", s)
    check(a.ask("io clear 4").strip() == "bit 4 = 0", "io clear")
    check("usage" in a.ask("io set 9"), "io refuses a bit outside the board")

    check(a.ask("trace start").startswith("trace started"), "trace start")
    time.sleep(0.3)
    s = a.ask("trace stop")
    n = int(re.search(r"(\d+) samples", s).group(1))
    check(n > 50, "the trace sampled", s)
    s = a.ask("trace dump")
    check(re.match(r"\d+ samples dumped to \./sensor-trace\.csv", s), "trace dump", s)
    with open(os.path.join(work, "sensor-trace.csv")) as f:
        rows = f.read().splitlines()
    # The sensor's rows, then the I/O byte's rows in the second column.
    check(len(rows) >= 2 * n and re.match(r"^\d+;\d+;[\d.-]+$", rows[0]), "sensor rows", rows[:2])
    check(re.match(r"^\d+;\d+;;\d+\.0000$", rows[-1]), "I/O rows in the second column", rows[-1:])

    # The fit wants a whole run of the sensor's curve (four seconds).
    for _ in range(100):
        if int(re.search(r"cycles (\d+)", a.ask("status")).group(1)) > 4500:
            break
        time.sleep(0.1)
    s = a.ask("fit")
    m = re.search(r"mean squared residual ([\d.e+-]+)", s)
    check(m and float(m.group(1)) < 0.05, "fit matches the curve", s)

    cfg = os.path.join(work, "station.cfg")
    data = open(cfg, "rb").read()
    s = a.ask("hash sha256 station.cfg")
    check(s.strip() == "sha256 (station.cfg) = " + hashlib.sha256(data).hexdigest(), "hash", s)
    check("unknown method" in a.ask("hash nosuch station.cfg"), "hash of an unknown method")
    s = a.ask("crc station.cfg")
    # The library's CRC-32 starts from 0 and has no final XOR.
    crc = zlib.crc32(data, 0xFFFFFFFF) ^ 0xFFFFFFFF
    check("crc32 (station.cfg) = %08x" % crc in s, "crc", s)
    check("cannot read" in a.ask("crc /nonexistent"), "crc of a missing file")

    s = a.ask("config")
    check("Server.ListenPort = 0" in s and "Station.PeriodUs = 1000" in s, "config shows", s)
    check(a.ask("config set Station.HighLimit 90").strip() == "Station.HighLimit = 90", "config set")
    check("cannot set" in a.ask("config set Station.Nothing 1"), "config set of an unknown key")
    shipped = open(cfg, "rb").read()
    check(a.ask("config save").strip() == "saved station.cfg", "config save")
    saved = open(cfg, "rb").read()
    # Only the value set at run time changes: line ends, comments and the file's
    # own ListenPort (0 came from the command line) stay; no markers.
    check(saved == shipped.replace(b"HighLimit = 80 ", b"HighLimit = 90 "), "the save changes one value only",
          saved.decode())

    check("status" in a.ask("help") and "starttls" in a.ask("help"), "help lists the commands")
    check("bogus: command not found" in a.ask("bogus"), "unknown commands")
    check(a.ask("echo hello").strip() == "hello", "echo")

    # Refused from an address the list does not allow.
    d = Line(port, "127.0.0.2", greet=False)
    refusal = d.until(b"never")  # the whole answer, up to the close
    check(refusal == "Your IP is not allowed to connect\r\n\0", "refusal from 127.0.0.2", repr(refusal))
    d.close()

    # TLS in the middle of a session.
    tls12 = ssl.TLSVersion.TLSv1_2
    check(b.starttls(unverified_context("ADH:@SECLEVEL=0", tls12, tls12), None).endswith(PROMPT.decode()),
          "a prompt over TLS")
    check(b.sock.version() == "TLSv1.2", "TLS 1.2", b.sock.version())
    s = b.ask("status")
    check("cycles" in s, "status over TLS", s)
    b.sock.sendall(b"exit\n")
    check(b.until(b"\n") == "bye\r\n", "exit over TLS")
    b.close()

    # A few clients at once, each with its own session.
    many = [Line(port) for _ in range(8)]
    for i, c in enumerate(many):
        c.sock.sendall(("echo client %d\n" % i).encode())
    for i, c in enumerate(many):
        check(c.until(PROMPT).startswith("client %d" % i), "concurrent client %d" % i)
    for c in many:
        c.close()

    threads = len(os.listdir("/proc/%d/task" % pid))
    check(threads >= 3, "main, accept and sensor threads while running", threads)
    a.sock.sendall(b"exit\n")
    check(a.until(b"\n") == "bye\r\n", "exit")
    a.close()


def check_log(work):
    text = log_text(work, "station")
    check(text, "a log file")
    for want in ("station starting, configuration station.cfg, debug level 1", "127.0.0.1 connected", "127.0.0.1: status", "TLS started",
                 "sensor_high: ERROR", "configuration saved", "stopping"):
        check(want in text, "the log holds " + want)
    m = re.search(r"stopped: (\d+) thread\(s\) \((\d+) at start\), (\d+) descriptors "
                  r"\((\d+) at start, (\d+) for the log\)", text)
    check(m, "the log holds the final counts")
    threads, threads_start, fds, start, logfd = map(int, m.groups())
    # ThreadSanitizer's runtime starts a background thread of its own.
    extra = 1 if "thread" in os.environ.get("ZQ_SANITIZE", "") else 0
    check(threads == threads_start + extra, "no thread left at the end", m.group(0))
    check(fds == start + logfd, "no descriptor left behind", m.group(0))


main()
