#!/usr/bin/env python3
"""The station under a service manager, with logrotate and reloads.

    station_service_test.py STATION_BINARY STATION_SOURCE_DIR

This script is the service manager: it binds a Unix datagram socket, starts
the station with NOTIFY_SOCKET and WATCHDOG_USEC and checks READY=1, STATUS=,
WATCHDOG=1 every half period, that the pings stop while the sensor task is
suspended (its thread's suspend signal, sent with tgkill) and come back after
it resumes, RELOADING=1/READY=1 around SIGHUP and STOPPING=1 on SIGTERM.
Meanwhile a client writes log lines at a steady rate and logrotate -f runs the
shipped snippet: every line is in the old or the new file, once and whole.
A reload changes a live setting, reports one needing a restart, and a broken
file keeps the running settings. Prints the notifications and line counts.
"""
import ctypes
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

from station_client import Checks, Line, free_port, listening_port

STATION, SOURCE = sys.argv[1], sys.argv[2]
WORK = tempfile.mkdtemp(prefix="station-service-")
HALF = 0.25  # the watchdog's half period (WATCHDOG_USEC = 500 ms)
slow = 3 if os.environ.get("ZQ_SANITIZE") else 1
proc = None
check = Checks(logs=WORK)


def fail(what, detail=""):
    check(False, what, detail)


class Manager:
    """The notification socket, read all the time as systemd does (a full
    queue would block the sender), and everything received on it, timed."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.path = os.path.join(WORK, "notify")
        self.sock.bind(self.path)
        self.sock.settimeout(0.1)
        self.seen = []  # (time, message)
        self.read = 0  # how many of them until() and pings() took
        self.cond = threading.Condition()
        self.done = False
        self.reader = threading.Thread(target=self.receive, daemon=True)
        self.reader.start()

    def receive(self):
        while not self.done:
            try:
                msg = self.sock.recv(4096).decode()
            except socket.timeout:
                continue
            with self.cond:
                self.seen.append((time.monotonic(), msg))
                self.cond.notify()

    def next(self, end):
        with self.cond:
            while self.read == len(self.seen) and time.monotonic() < end:
                self.cond.wait(end - time.monotonic())
            if self.read == len(self.seen):
                return None
            self.read += 1
            return self.seen[self.read - 1]

    def until(self, pattern, timeout):
        end = time.monotonic() + timeout * slow
        while (got := self.next(end)) is not None:
            if re.search(pattern, got[1]):
                return got[1]
        fail("no notification " + pattern, [m for _, m in self.seen[-5:]])

    def pings(self, seconds):
        """The WATCHDOG=1 times received in the next `seconds`."""
        end = time.monotonic() + seconds
        return [t for t, m in iter(lambda: self.next(end), None) if m == "WATCHDOG=1"]


def tgkill(tid, sig):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.syscall(234, proc.pid, tid, sig) != 0:  # SYS_tgkill on x86-64
        fail("tgkill", os.strerror(ctypes.get_errno()))


def sensor_thread():
    for tid in os.listdir("/proc/%d/task" % proc.pid):
        if open("/proc/%d/task/%s/comm" % (proc.pid, tid)).read().strip() == "sensor":
            return int(tid)
    fail("no thread named sensor")


def log_text():
    return open(os.path.join(WORK, "station.log"), errors="replace", newline="").read()


def write_cfg(replacements):
    text = open(os.path.join(SOURCE, "station.cfg")).read()
    for old, new in replacements:
        text = re.sub(old, new, text, flags=re.M)
    open(os.path.join(WORK, "station.cfg"), "w").write(text)


def rotate_while_writing(client):
    """Steady lines from a client; logrotate -f with the shipped snippet halfway."""
    snippet = open(os.path.join(SOURCE, "station.logrotate")).read()
    snippet = snippet.replace("/var/log/station/*.log", os.path.join(WORK, "station.log"))
    snippet = re.sub(r"\n\s*su station station", "", snippet).replace(" station station", "")
    snippet = re.sub(r"systemctl kill [^\n]*", "kill -HUP %d" % proc.pid, snippet)
    conf = os.path.join(WORK, "logrotate.conf")
    open(conf, "w").write(snippet)
    stop, after = threading.Event(), 0

    def rotate():
        time.sleep(0.5 * slow)
        r = subprocess.run(["logrotate", "-f", "-s", os.path.join(WORK, "state"), conf],
                           capture_output=True, text=True, timeout=60)
        if r.returncode != 0:
            print("logrotate failed:", r.stderr)
        stop.set()

    rotator = threading.Thread(target=rotate)
    rotator.start()
    count = 0  # lines before, during and 200 after the rotation
    while count < 20000 and (not stop.is_set() or count < after + 200):
        after = count if not stop.is_set() else after
        client.ask("echo line-%05d" % count)
        count += 1
        time.sleep(0.002)
    rotator.join()
    check(stop.is_set() and os.path.exists(os.path.join(WORK, "station.log.1")), "logrotate rotates")
    old = open(os.path.join(WORK, "station.log.1"), errors="replace", newline="").read()
    new = log_text()
    whole = re.compile(r"^\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3};I;00000000;audit: 127\.0\.0\.1: echo line-(\d{5}) \(user -, admin, result 0\)\r$")
    found = {}
    for name, text in (("old", old), ("new", new)):
        for line in text.split("\n"):
            if "echo line-" in line:
                m = whole.match(line)
                check(m, "no broken line in the %s file" % name, repr(line))
                found.setdefault(int(m.group(1)), []).append(name)
    missing = [i for i in range(count) if i not in found]
    twice = [i for i, where in found.items() if len(where) != 1]
    check(not missing and not twice, "no line lost or doubled", (missing[:5], twice[:5]))
    n_old = sum(1 for w in found.values() if w == ["old"])
    check(0 < n_old < count, "the rotation falls within the writing", n_old)
    print("logrotate: %d lines written, %d in station.log.1, %d in station.log, none lost or doubled"
          % (count, n_old, count - n_old))


def socket_activation():
    """systemd-socket-activate binds the port and starts the station at the
    first connection; the station serves that socket."""
    global proc
    port = free_port()
    os.remove(os.path.join(WORK, "station.log"))
    write_cfg([])
    proc = subprocess.Popen(["systemd-socket-activate", "-l", "127.0.0.1:%d" % port, STATION, "-f", "station.cfg",
                             "Station.UsersFile=none", "Server.RequireTLS=0", "Server.ListenPort=%d" % port, "Log.AutoDate=0", "Log.CreatePermissions=0600"],
                            cwd=WORK, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    for _ in range(100):  # until systemd-socket-activate listens
        try:
            client = Line(port)  # the first connection starts the station
            break
        except ConnectionRefusedError:
            time.sleep(0.1)
    check("cycles" in client.ask("status"), "status through the socket systemd passed")
    client.sock.close()
    proc.send_signal(signal.SIGTERM)
    check(proc.wait(timeout=30 * slow) == 0 and re.search(
        r"listening on 127\.0\.0\.1:%d \(socket passed by the service manager\)" % port, log_text()),
        "socket activation", log_text()[-500:])
    print("socket activation: served port %d from systemd-socket-activate" % port)


def unwritable_log_folder():
    """The log folder replaced by a plain file (which binds root too): the
    reopen on SIGHUP fails, the station keeps serving, the lost lines are
    reported at most once per report period, and writing resumes once the
    folder is back, and again after the file is deleted."""
    global proc
    folder, away = os.path.join(WORK, "logs"), os.path.join(WORK, "logs.away")
    os.mkdir(folder)
    write_cfg([])
    errors = open(os.path.join(WORK, "stderr"), "w+")
    period = 1
    proc = subprocess.Popen([STATION, "-f", "station.cfg", "Station.UsersFile=none", "Server.RequireTLS=0",
                             "Server.ListenPort=0", "Log.AutoDate=0", "Log.FileBase=logs/station", "Log.Pmask=7",
                             "Station.LogLossReportS=%d" % period],
                            cwd=WORK, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors)
    client = Line(listening_port(proc) or fail("no tcp port line"))
    os.rename(folder, away)
    open(folder, "w").close()
    os.kill(proc.pid, signal.SIGHUP)
    start = time.monotonic()
    served = 0
    while time.monotonic() - start < 4 * period * slow:
        check("lost-%d" % served in client.ask("echo lost-%d" % served),
              "the station serves while its log folder is gone")
        served += 1
        time.sleep(0.02)
    window = time.monotonic() - start
    errors.seek(0)
    echoed = errors.read()
    reports = echoed.count("could not take")
    os.remove(folder)
    os.rename(away, folder)
    back = os.path.join(folder, "station.log")
    for _ in range(100):
        client.ask("echo back")
        text = open(back, errors="replace").read() if os.path.exists(back) else ""
        if "echo back" in text and "could not take" in text:
            break
        time.sleep(0.1)
    else:
        fail("writing resumes when the folder is back", text[-500:])
    os.remove(back)  # deleted under the station: a new file under the name
    for _ in range(100):
        client.ask("echo again")
        if os.path.exists(back) and "echo again" in open(back, errors="replace").read():
            break
        time.sleep(0.1)
    else:
        fail("a new file after the log file was deleted")
    client.sock.close()
    proc.send_signal(signal.SIGTERM)
    proc.wait(timeout=30 * slow)
    errors.close()
    check("cannot be opened" in echoed and 1 <= reports <= window / period + 1, "lost lines reported once per period",
          (reports, window))
    print("unwritable log folder: %d commands served in %.1f s, %d loss reports (period %d s), "
          "writing resumed, also after the file was deleted" % (served, window, reports, period))


def main():
    global proc
    shutil.copy(os.path.join(SOURCE, "station.acl"), WORK)
    write_cfg([])
    manager = Manager()
    env = dict(os.environ, NOTIFY_SOCKET=manager.path, WATCHDOG_USEC=str(int(HALF * 2e6)),
               JOURNAL_STREAM="8:12345")  # echoed log lines carry journald priorities
    env.pop("WATCHDOG_PID", None)
    proc = subprocess.Popen([STATION, "-f", "station.cfg", "Station.UsersFile=none", "Server.RequireTLS=0",
                             "Server.ListenPort=0", "Log.AutoDate=0",
                             "Log.MaxFileSize=0", "Log.CreatePermissions=0600"],
                            cwd=WORK, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
    port = listening_port(proc) or fail("no tcp port line")
    manager.until(r"^READY=1$", 20)
    status = manager.until(r"^STATUS=cycles \d+, clients \d+, ", 5)
    pings = manager.pings(8 * HALF * slow)
    gaps = [b - a for a, b in zip(pings, pings[1:])]
    check(len(pings) >= 4 and max(gaps) <= 4 * HALF * slow and min(gaps) >= 0.5 * HALF,
          "watchdog pings every half period", gaps)

    tid = sensor_thread()
    tgkill(tid, signal.SIGRTMIN + 4)  # the thread's suspend signal
    manager.pings(2 * HALF)  # a ping already under way may still come
    stalled = manager.pings(6 * HALF * slow)
    tgkill(tid, signal.SIGRTMIN + 5)  # resume
    resumed = manager.pings(6 * HALF * slow)
    check(not stalled and resumed, "pings stop while the task stands still and resume after", (stalled, resumed))
    check("the sensor task is stalled" in log_text(), "the stall is logged")
    print("watchdog: %d pings in %.1f s, gaps %.3f-%.3f s; none in %.1f s while the task was suspended, "
          "%d in %.1f s after it resumed" % (len(pings), 8 * HALF * slow, min(gaps), max(gaps),
                                              6 * HALF * slow, len(resumed), 6 * HALF * slow))

    client = Line(port)
    rotate_while_writing(client)
    manager.until(r"^RELOADING=1$", 5)
    manager.until(r"^READY=1$", 5)

    changes = [(r"^Setpoint = 40", "Setpoint = 45"), (r"^MaxConnections = 64", "MaxConnections = 8"),
               (r"\Z", "\n[Metrics]\nListen = 127.0.0.1:0\n")]
    write_cfg(changes)
    os.kill(proc.pid, signal.SIGHUP)
    manager.until(r"^READY=1$", 5)
    write_cfg(changes + [(r"^Setpoint = 45", "Setpoint = 50"), (r"^HighLimit = 80", "HighLimit = hot")])
    os.kill(proc.pid, signal.SIGHUP)
    manager.until(r"^READY=1$", 5)
    shown = client.ask("config show")
    log = log_text()
    for pattern in (r"changed Station\.Setpoint 40\S* -> 45", r"needing a restart \(not applied\): Server\.MaxConnections, Metrics\.Listen\r",
                    r";E;00000004;reload: station\.cfg:\d+: Station\.HighLimit = 'hot': not a number.*; running settings kept"):
        check(re.search(pattern, log), "the reload's report", pattern)
    check(re.search(r"Station\.Setpoint = 45", shown) and re.search(r"Station\.HighLimit = 80\b", shown)
          and re.search(r"Server\.MaxConnections = 64\b", shown), "the settings after the reloads", shown)
    status = client.ask("status")
    check("settings waiting for a restart: Metrics.Listen, Server.MaxConnections" in status,
          "status lists the settings a reload left for the restart", status)

    client.sock.close()
    proc.send_signal(signal.SIGTERM)
    manager.until(r"^STOPPING=1$", 10)
    check(proc.wait(timeout=30 * slow) == 0, "exit status", proc.returncode)
    echoed = proc.stderr.read().decode(errors="replace")
    check(re.search(r"^<3>\S+ \S+;E;00000003;the sensor task is stalled", echoed, re.M),
          "the journal priority on an echoed error", echoed[-500:])
    manager.done = True
    manager.reader.join()
    kinds = []
    for _, m in manager.seen:
        kind = m.split("=")[0]
        if not kinds or kinds[-1][0] != kind:
            kinds.append([kind, 0])
        kinds[-1][1] += 1
    print("notifications: " + " ".join(k if n == 1 else "%s x%d" % (k, n) for k, n in kinds))
    print("first status: " + status)
    socket_activation()
    unwritable_log_folder()


try:
    main()
finally:
    if proc is not None and proc.poll() is None:
        proc.kill()
        proc.wait()
    shutil.rmtree(WORK, ignore_errors=True)
print("station service: passed")
