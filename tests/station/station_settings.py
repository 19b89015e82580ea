#!/usr/bin/env python3
"""The station's settings from the operator's side.

    station_settings.py STATION_BINARY STATION_SOURCE_DIR

1. Values that do not read whole (in the file, on the command line), unknown
   sections and keys, and unknown options: the station lists every problem
   and does not start.
2. A packaged-style station (the main file and its folder read-only, no
   CAP_DAC_OVERRIDE, no memory lock and no SCHED_FIFO rights): it runs with a
   warning, reads the local file after the main one, saves only what was set
   at run time into the local file, merges hand edits, refuses a conflicting
   save, names the settings waiting for a restart and reads the local file
   again on SIGHUP.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from station_client import Checks, Line, kill, start_in, stop

check = Checks()


def refused_settings(binary, source, work):
    cfg = open(os.path.join(source, "station.cfg")).read()
    cfg = re.sub(r"^PeriodUs = 1000", "PeriodUs = 78l0", cfg, flags=re.M)
    cfg = re.sub(r"^Setpoint = 40", "Setpoint = 2,5x", cfg, flags=re.M)
    cfg = cfg.replace("[Network]\n", "[Network]\nBacklog = 5\n")
    open(os.path.join(work, "bad.cfg"), "w").write(cfg)
    lines = cfg.splitlines()
    line_of = lambda start: lines.index(next(l for l in lines if l.startswith(start))) + 1
    r = subprocess.run([binary, "-f", "bad.cfg", "Server.ListenPort=7x", "Nope.A=1", "Server.Nope=2",
                        "Network.Interface6="], cwd=work, capture_output=True, text=True, timeout=30)
    expected = ["bad.cfg:%d: Station.PeriodUs = '78l0': not an integer in 100..1000000" % line_of("PeriodUs"),
                "bad.cfg:%d: Station.Setpoint = '2,5x': not a number" % line_of("Setpoint"),
                "bad.cfg:%d: Network.Backlog = '5': no setting Backlog in [Network]" % line_of("Backlog"),
                "command line:3: Server.ListenPort = '7x': not an integer in 0..65535",
                "command line:4: Nope.A = '1': no section [Nope]",
                "command line:5: Server.Nope = '2': no setting Nope in [Server]"]
    for e in expected:
        check(e in r.stderr, "the problem is listed: " + e, r.stderr)
    check(r.returncode == 2 and "tcp port" not in r.stdout and "6 problem(s)" in r.stderr,
          "a station with bad settings does not start", r.stdout + r.stderr)
    r = subprocess.run([binary, "--no-such-option"], cwd=work, capture_output=True, text=True, timeout=30)
    check(r.returncode == 2 and "unknown option --no-such-option" in r.stderr and "Usage is:" in r.stderr
          and "tcp port" not in r.stdout, "an unknown option is refused with the usage", r.stdout + r.stderr)
    if os.environ.get("ZQ_SANITIZE"):
        return  # the sanitizers' mlockall does nothing and succeeds: no refusal to see
    r = subprocess.run(["prlimit", "--memlock=0:0", "setpriv", "--bounding-set=-ipc_lock", binary,
                        "Station.RealTime=required", "Server.ListenPort=0", "Station.UsersFile=none",
                        "TLS.CertificateFile=none"], cwd=work, stdin=subprocess.DEVNULL,
                       capture_output=True, text=True, timeout=30)
    check(r.returncode == 1 and "cannot initialize the sensor task: memory cannot be locked" in r.stderr
          and "initalize" not in r.stderr, "RealTime = required without the rights does not start", r.stderr)


def cycles(c):
    return int(re.search(r"cycles (\d+)", c.ask("status")).group(1))


def packaged(binary, source, work):
    etc, var = os.path.join(work, "etc"), os.path.join(work, "var")
    os.mkdir(etc)
    os.mkdir(var)
    local = os.path.join(var, "station.local.cfg")
    main = open(os.path.join(source, "station.cfg")).read()
    main = main.replace("[Station]\n", "[Station]\nLocalConfig = %s\n" % local)
    open(os.path.join(etc, "station.cfg"), "w").write(main)
    shutil.copy(os.path.join(source, "station.acl"), etc)
    open(local, "w").write("# this station's own values\n[Station]\nSetpoint = 45\n")
    os.chmod(os.path.join(etc, "station.cfg"), 0o444)
    os.chmod(etc, 0o555)
    before = os.stat(os.path.join(etc, "station.cfg"))
    # Root without the capabilities that pass over file modes, lock memory and
    # take real-time priorities, and without a locked-memory allowance.
    cmd = ["prlimit", "--memlock=0:0", "--rtprio=0:0", "setpriv",
           "--bounding-set=-dac_override,-dac_read_search,-fowner,-ipc_lock,-sys_nice",
           binary, "-f", os.path.join(etc, "station.cfg"), "Server.ListenPort=0", "Station.UsersFile=none",
           "Server.RequireTLS=0", "TLS.CertificateFile=none", "Server.ACL=" + os.path.join(etc, "station.acl")]
    proc, port = start_in(var, cmd)
    c = Line(port, check=check)
    try:
        first = cycles(c)
        time.sleep(0.3)
        s = c.ask("status")
        check(int(re.search(r"cycles (\d+)", s).group(1)) > first, "the task cycles without real-time rights", s)
        check("warning: no real-time rights" in s and "lateness max" in s, "status warns and counts lateness", s)
        err = open(os.path.join(var, "out.txt")).read()
        check(err.count("station: warning: no real-time rights") == 1 and "initalize" not in err,
              "one warning at start", err)
        check("Station.Setpoint = 45" in c.ask("config show"), "the local file is read after the main one")

        check(c.ask("config set Station.HighLimit 91").strip() == "Station.HighLimit = 91", "a live setting")
        s = c.ask("config set Station.PeriodUs 500")
        check(s.strip() == "Station.PeriodUs = 500 (takes effect at the next start)", "a restart-only setting", s)
        s = c.ask("status")
        check("settings waiting for a restart: Station.PeriodUs" in s, "status lists it", s)
        s = c.ask("config save")
        check(s.strip() == "saved " + local, "the save goes to the local file", s)
        saved = open(local).read()
        check(saved == "# this station's own values\n[Station]\nSetpoint = 45\nHighLimit = 91\nPeriodUs = 500\n",
              "only the values set at run time are added, nothing else", repr(saved))
        check(os.stat(os.path.join(etc, "station.cfg")).st_mtime_ns == before.st_mtime_ns, "the main file is untouched")

        open(local, "w").write(saved.replace("Setpoint = 45", "Setpoint = 46 # by hand"))
        c.ask("config set Station.LowLimit 1")
        s = c.ask("config save")
        check("had changed since it was read; the changes were merged" in s, "a save merges hand edits", s)
        saved = open(local).read()
        check("Setpoint = 46 # by hand\n" in saved and "LowLimit = 1\n" in saved, "both edits kept", saved)

        open(local, "w").write(saved.replace("HighLimit = 91", "HighLimit = 70"))
        c.ask("config set Station.HighLimit 92")
        s = c.ask("config save")
        check("Station.HighLimit was changed in %s since it was read (now '70'); not saved" % local in s,
              "a conflicting save is refused", s)
        check("HighLimit = 70\n" in open(local).read(), "the hand edit stays")
        proc.send_signal(signal.SIGHUP)
        for _ in range(100):
            s = c.ask("config show")
            if "Station.HighLimit = 70" in s:
                break
            time.sleep(0.1)
        check("Station.HighLimit = 70" in s and "Station.Setpoint = 46" in s, "SIGHUP reads the local file again", s)
        c.close()
        stop(proc, check)
    finally:
        kill(proc)
        os.chmod(etc, 0o755)


def main():
    binary, source = os.path.abspath(sys.argv[1]), sys.argv[2]
    work = tempfile.mkdtemp(prefix="station-settings-")
    try:
        refused_settings(binary, source, work)
        packaged(binary, source, work)
        print("station settings: %d checks passed" % check.count)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
