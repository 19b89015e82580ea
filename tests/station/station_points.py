#!/usr/bin/env python3
"""The station's points and alarms from a TCP client.

    station_points.py STATION_BINARY STATION_SOURCE_DIR

Raises the sensor's alarm through the inject output, acknowledges, shelves
and clears it, reads the alarm journal, exports the samples as CSV (header
with names and units, ISO 8601 UTC times, LF), changes a set-point and sees
it in the state file within a second, kills the station with SIGKILL and
sees set-points and journal survive, then tears the state file and sees the
backup taken and said so. Writes the task's timing as cyclictest --json
does and compares the keys with the tool's own output where it is installed.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from datetime import datetime

from station_client import Checks, Line, copy_in, eventually, start_in

check = Checks()


class Station:
    def __init__(self, binary, work, extra=()):
        self.out = os.path.join(work, "out.txt")
        self.proc, port = start_in(work, [binary, "-f", "station.cfg", "Server.ListenPort=0",
                                          "Station.UsersFile=none", "Server.RequireTLS=0", "Access.AnonymousTLS=1",
                                          "TLS.CertificateFile=none"] + list(extra))
        self.line = Line(port, check=check)
        self.ask = self.line.ask

    def output(self):
        return open(self.out).read()

    def wait_for(self, line, pattern, seconds=10):
        """The answer to `line` once it matches `pattern` (the last one after `seconds`)."""
        answers = []
        eventually(lambda: answers.append(self.ask(line)) or re.search(pattern, answers[-1]), seconds)
        return answers[-1]

    def stop(self, sig=signal.SIGTERM):
        self.line.close()
        self.proc.send_signal(sig)
        return self.proc.wait(timeout=30)


def first_run(st, work):
    points = st.ask("points")
    check("sensor = " in points and "\u00b0C" in points and "cycle_overrun = " in points and " us, " in points,
          "points show names, values and units", points)
    check("good" in points and "age " in points and "range 0..160" in points, "points show quality, age, range",
          points)
    check("overrun_trip" not in points and "overrun policy off" in st.ask("outputs")
          and "overrun policy" not in st.ask("status"), "no overrun policy by default")
    check("Station.Setpoint = 40 \u00b0C" in points and "heater on below" in points and "Station.HighLimit = 80" in points,
          "set-points are points with unit and description", points)
    st.ask("io set inject")
    alarms = st.wait_for("alarms", r"sensor = .*active-unacked \(HIHI high\)")
    check(re.search(r"sensor = .*active-unacked \(HIHI high\)", alarms) and "guidance: check the heater" in alarms,
          "the injected reading raises the sensor's HIHI alarm with its guidance", alarms)
    status = st.ask("status")
    check(re.search(r"alarms: 0 critical, 1 high", status), "status counts the alarm by severity", status)
    check("1 alarm acknowledged" in st.ask("ack sensor seen it"), "ack NAME")
    check("active-acked" in st.ask("alarms"), "the alarm is acknowledged")
    check("0 alarms acknowledged" in st.ask("ack all"), "ack all with nothing left")
    check("shelved until" in st.ask("shelve sensor 5 maintenance"), "shelve NAME MINUTES")
    alarms = st.ask("alarms")
    check("shelved until" in alarms and "active" not in alarms, "a shelved alarm is hidden", alarms)
    check("usage" in st.ask("shelve sensor soon"), "shelve checks its minutes")
    check("no point" in st.ask("ack nothing"), "ack of an unknown point")
    check("no longer shelved" in st.ask("shelve sensor 0"), "shelving ends")
    check("active-unacked" in st.ask("alarms"), "the alarm still present comes back unacknowledged")
    st.ask("io clear inject")
    st.wait_for("alarms", r"^0 alarms|\n0 alarms")
    history = st.ask("alarm-history 10m")
    for what in ("sensor raise normal -> active-unacked, HI", "-> active-unacked, HIHI high",
                 "sensor ack active-unacked -> active-acked",
                 ": seen it", "sensor shelve", ": maintenance", "sensor unshelve", "sensor clear"):
        check(what in history, "the journal holds " + what, history)
    check(re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ", history), "journal times in ISO 8601", history)
    check("usage" in st.ask("alarm-history yesterday"), "alarm-history checks SINCE")

    answer = st.ask("trace-csv")
    check("samples written to" in answer, "trace-csv", answer)
    data = open(os.path.join(work, "sensor-samples.csv"), "rb").read()
    check(b"\r" not in data, "CSV lines end in LF alone")
    lines = data.decode().splitlines()
    check(lines[0] == "time (UTC),cycle,sensor (\u00b0C),io,cycle_overrun (us)", "CSV header", lines[0])
    times = []
    for row in lines[1:]:
        m = re.match(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6})Z,\d+,-?\d+\.\d{4},0x[0-9a-f]{2},\d+\.\d{3}$", row)
        check(m, "a CSV row", row)
        times.append(datetime.fromisoformat(m.group(1)).timestamp())
    gaps = [b - a for a, b in zip(times, times[1:])]
    check(len(gaps) > 100 and min(gaps) > 0, "acquisition times rise", min(gaps) if gaps else None)
    within = sum(1 for g in gaps if 0.0008 <= g <= 0.0012) / len(gaps)
    check(abs(time.time() - times[-1]) < 60, "acquisition times are UTC", times[-1])
    print("acquisition times: %.1f%% of %d gaps within 1 ms +- 0.2 ms" % (100 * within, len(gaps)))

    answer = st.ask("timing-json")
    check("cycles written to" in answer, "timing-json", answer)
    timing = json.load(open(os.path.join(work, "task-timing.json")))
    for part in ("thread", "execution"):
        t = timing[part]["0"]
        check(sum(t["histogram"].values()) == t["cycles"] > 100 and t["min"] <= t["avg"] <= t["max"],
              "a consistent histogram of " + part, t)
    if shutil.which("cyclictest"):  # the same keys as the tool's own output
        out = os.path.join(work, "cyclictest.json")
        run = subprocess.run(["cyclictest", "-l", "50", "-i", "1000", "-q", "--json=" + out],
                             capture_output=True, timeout=30)
        if run.returncode == 0:
            theirs = json.load(open(out))
            check(set(theirs) <= set(timing) and set(theirs["thread"]["0"]) == set(timing["thread"]["0"]),
                  "the keys of cyclictest --json", (sorted(theirs), sorted(timing)))

    described = st.ask("config describe Station.PeriodUs")
    check(re.match(r"Station.PeriodUs = 1000 us; an integer in 100\.\.1000000; task period\r\n$", described),
          "config describe shows unit, range and description", described)
    check("Station.Setpoint = 42.5" in st.ask("config set Station.Setpoint 42.5"), "config set")
    state = os.path.join(work, "station.state")
    deadline = time.time() + 1.5
    while time.time() < deadline and "Station.Setpoint = 42.5" not in (open(state).read() if os.path.exists(state) else ""):
        time.sleep(0.05)
    text = open(state).read()
    check("Station.Setpoint = 42.5" in text and re.search(r"\nend \d+ [0-9a-f]{8}\n$", text),
          "the set-point reaches the state file within a second, with its end marker", text)
    check("Station.Setpoint = 42.5 \u00b0C" in st.wait_for("points", "Station.Setpoint = 42.5"),
          "the set-point's point follows config set")


def overrun_policy(binary, work):
    """Station.OverrunPolicy = safe: a stopped station's task catches up in a
    burst of overruns; the outputs go to their safe states (heater off, alarm
    on) and stay there until an operator resumes them; the trip is an alarm."""
    st = Station(binary, work, ["Station.OverrunPolicy=safe", "Station.OverrunLimit=30",
                                "Station.OverrunWindowMs=200"])
    st.ask("config set Station.Setpoint 1000")
    answer = st.wait_for("io", r"heater 1")
    check(re.search(r"heater 1", answer), "the heater is on below the set-point", answer)
    st.proc.send_signal(signal.SIGSTOP)
    time.sleep(0.5)
    st.proc.send_signal(signal.SIGCONT)
    answer = st.wait_for("outputs", "held in their safe states")
    check(re.search(r"overrun policy safe: 30 overruns within 200 ms trip it; [1-9]\d* trips", answer)
          and "held in their safe states" in answer, "the overrun burst trips the policy", answer)
    check(re.search(r"heater 0, alarm 1", st.ask("io")), "the outputs are in their safe states")
    check(re.search(r"overrun policy safe: .* [1-9]\d* trips; .*held in their safe states", st.ask("status")),
          "status tells the trips and the held outputs")
    alarms = st.ask("alarms")
    check(re.search(r"overrun_trip = 1 .*active-unacked \(HI high\)", alarms) and "outputs resume" in alarms,
          "the trip raises the overrun alarm with its guidance", alarms)
    answer = st.wait_for("outputs resume", "driven by the task", 20)
    check("driven by the task" in answer, "outputs resume releases the outputs", answer)
    check(re.search(r"heater 1", st.wait_for("io", "heater 1")), "the task drives the heater again")
    check("overrun_trip raise" in st.ask("alarm-history 10m"), "the trip is in the journal")
    st.stop()


def main():
    binary, source = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="station-points-")
    try:
        copy_in(work, source)
        st = Station(binary, work)
        first_run(st, work)
        st.stop(signal.SIGKILL)

        st = Station(binary, work)
        check("Station.Setpoint = 42.5" in st.ask("config show"), "the set-point survives kill -9")
        check("sensor ack" in st.ask("alarm-history 1h"), "the journal survives kill -9")
        check(st.stop() == 0, "SIGTERM ends the station with 0")

        state = os.path.join(work, "station.state")
        text = open(state).read()
        open(state, "w").write(text[: len(text) // 2])
        st = Station(binary, work)
        err = st.output()
        check("torn" in err and "restored from the backup" in err, "a torn state file: the backup, and says so", err)
        st.stop()
        os.unlink(state)
        os.unlink(state + ".bak")
        st = Station(binary, work)
        check("Station.Setpoint = 40" in st.ask("config show"), "no state file: the configuration")
        st.stop()
        overrun_policy(binary, work)
        print("station points: %d checks passed" % check.count)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
