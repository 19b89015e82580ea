#!/usr/bin/env python3
"""`stationctl status` from start to exit against the same sequence in
Python's ssl module (not part of CI).

    stationctl_bench.py STATIONCTL STATION [RUNS]

Starts the station with the shipped configuration (TLS required, a user
`ada`) in a scratch folder and runs RUNS times (default 100), one after the
other, each as a new process: `stationctl --user ada --ca tls/ca.pem status`,
and a Python client doing the same (connect, mode machine, starttls, TLS 1.3
verified against tls/ca.pem, login, status). Prints median and p99 of both,
the share of the login's password check (the station's scrypt, measured as
the login's round trip less a plain command's) and, for comparison, stationctl
with a client certificate (no password). Ends with a SUMMARY line for
bench/run.sh.
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from station_proc import start_station, stop_station

CLIENT = r'''
import socket, ssl, sys, time
port, ca, password = int(sys.argv[1]), sys.argv[2], sys.argv[3]
def frame(s, data=b""):
    while not (data.endswith(b"\n") and (data.startswith(b". ") or b"\n. " in data)):
        data += s.recv(65536)
    return data.decode()
t = [time.perf_counter()]
s = socket.create_connection(("127.0.0.1", port))
while b"station ready" not in s.recv(4096):
    pass
s.sendall(b"mode machine\n"); frame(s)
s.sendall(b"starttls\n"); frame(s)
ctx = ssl.create_default_context(cafile=ca)
s = ctx.wrap_socket(s, server_hostname="127.0.0.1")
frame(s)
t.append(time.perf_counter())
s.sendall(b"help\n"); frame(s)
t.append(time.perf_counter())
s.sendall(b"login ada\n"); frame(s)
s.sendall(password.encode() + b"\n")
assert "logged in" in frame(s)
t.append(time.perf_counter())
s.sendall(b"status\n")
out = frame(s)
assert "cycles" in out
sys.stdout.write(out)
s.close()
print("PHASES %f %f %f" % (t[1] - t[0], t[2] - t[1], t[3] - t[2]))
'''


def percentile(values, p):
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100.0 * (len(v) - 1))))]


def timed(cmd, env, cwd):
    t = time.perf_counter()
    p = subprocess.run(cmd, env=env, cwd=cwd, capture_output=True, text=True, timeout=60)
    took = time.perf_counter() - t
    if p.returncode != 0 or "cycles" not in p.stdout:
        sys.exit("bench: %s failed (%d): %s%s" % (" ".join(cmd), p.returncode, p.stdout, p.stderr))
    return took, p.stdout


def main():
    ctl, station = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 100
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    work = tempfile.mkdtemp(prefix="stationctl-bench-")
    shutil.copy(os.path.join(root, "apps/station/station.cfg"), work)
    open(os.path.join(work, "open.acl"), "w").write("[hosts]\nallow = 127.0.0.0/8\n")
    password = "bench#pw"
    for user in ("ada", "carol"):  # carol logs in by her certificate
        subprocess.run([station, "--passwd", user, "admin"], cwd=work, input=password.encode(), check=True,
                       capture_output=True, timeout=60)
    proc, port = start_station(station, work, "-f", "station.cfg", "Server.ACL=open.acl")
    try:
        subprocess.run([station, "--issue-client-cert", "carol"], cwd=work, check=True, capture_output=True,
                       timeout=60)
        env = {"HOME": work, "PATH": os.environ.get("PATH", ""), "STATIONCTL_PASSWORD": password}
        base = [ctl, "--port", str(port), "--ca", "tls/ca.pem"]
        ours, cert, peer, phases = [], [], [], []
        for _ in range(runs):
            ours.append(timed(base + ["--user", "ada", "status"], env, work)[0])
            cert.append(timed(base + ["--cert", "tls/carol.pem", "--key", "tls/carol.key", "status"], env, work)[0])
            took, text = timed([sys.executable, "-c", CLIENT, str(port), "tls/ca.pem", password], env, work)
            peer.append(took)
            phases.append([float(x) for x in text.split("PHASES ")[1].split()])
        med = statistics.median
        hash_s = med(p[2] for p in phases) - med(p[1] for p in phases)
        print("stationctl status, %d runs, start to exit (connect, TLS 1.3, login, command):" % runs)
        print("  stationctl --user (password) median %.1f ms, p99 %.1f ms" % (med(ours) * 1e3, percentile(ours, 99) * 1e3))
        print("  stationctl --cert (no password)  median %.1f ms, p99 %.1f ms" % (med(cert) * 1e3, percentile(cert, 99) * 1e3))
        print("  Python ssl client (a process)    median %.1f ms, p99 %.1f ms" % (med(peer) * 1e3, percentile(peer, 99) * 1e3))
        print("  in the Python client: connect+TLS %.1f ms, a plain command %.1f ms, login %.1f ms" %
              tuple(med(p[i] for p in phases) * 1e3 for i in range(3)))
        print("  the password check (login less a plain command) %.1f ms: %.0f%% of stationctl's median" %
              (hash_s * 1e3, 100 * hash_s / med(ours)))
        ratio = med(peer) / med(ours)
        print("SUMMARY|stationctl status, start to exit (median)|Python ssl client|%.1f ms|%.1f ms|%.2f|>=1x Python"
              "|%s|password check %.0f ms" % (med(peer) * 1e3, med(ours) * 1e3, ratio,
                                               "met" if ratio >= 1 else "NOT MET", hash_s * 1e3))
    finally:
        stop_station(proc, work)


if __name__ == "__main__":
    main()
