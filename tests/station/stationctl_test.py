#!/usr/bin/env python3
"""stationctl against a real station (and against peers that are not one).

    stationctl_test.py STATIONCTL STATION STATION_SOURCE_DIR

Starts the station with the shipped configuration in a scratch folder (users
made with --passwd, a client certificate with --issue-client-cert) and checks
each way of verifying it, each way of logging in, the exit codes, --json,
-c, get and watch; then a peer that is not a station, one that never answers
starttls and one that drops the connection mid-answer: exit 3 with a clear
message, within --timeout.
"""
import hashlib
import json
import os
import pty
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from station_client import Checks, add_users, copy_in, no_secrets, other_ca, start_in, stop  # noqa: E402

WORK = tempfile.mkdtemp(prefix="stationctl-")
HOME = os.path.join(WORK, "home")
check = Checks()
CTL = STATION = None
PORT = 0


def ctl(*args, env=None, user="ada", timeout=30, stdin="", **kw):
    """Runs stationctl: (exit code, stdout, stderr)."""
    e = {"HOME": HOME, "PATH": os.environ.get("PATH", "")}
    if user:
        e["STATIONCTL_PASSWORD"] = user + "#pw"
        args = ("--user", user) + args
    e.update(env or {})
    p = subprocess.run([CTL, "--port", str(kw.get("port", PORT))] + list(args), cwd=WORK, env=e,
                       capture_output=True, timeout=timeout, text=True, input=stdin)
    return p.returncode, p.stdout, p.stderr


def start_station(*overrides, port=0):
    return start_in(WORK, [STATION, "-f", "station.cfg", "Server.ListenPort=%d" % port, "Server.ACL=open.acl",
                           "Login.FirstDelay=100", "Login.MaxDelay=300", "Login.MaxFailures=3"] + list(overrides))


def fake_peer(script):
    """A one-connection server on a free port running script(conn); its port."""
    listener = socket.create_server(("127.0.0.1", 0))

    def run():
        listener.settimeout(30)
        try:
            conn, _ = listener.accept()
            conn.settimeout(10)
            script(conn)
            time.sleep(3)
            conn.close()
        except OSError:
            pass
        listener.close()

    threading.Thread(target=run, daemon=True).start()
    return listener.getsockname()[1]


def until(conn, marker):
    data = b""
    while marker not in data:
        chunk = conn.recv(4096)
        if not chunk:
            break
        data += chunk
    return data


def station_like(conn, answer_starttls=True, drop_after=None):
    conn.sendall(b"station ready, type help\r\nstation> ")
    until(conn, b"mode machine\n")
    conn.sendall(b". 0\r\n")
    until(conn, b"starttls\n")
    if not answer_starttls:
        time.sleep(8)
        return
    conn.sendall(b"OK starting TLS\r\n. 0\r\n")
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(os.path.join(WORK, "tls/server.pem"), os.path.join(WORK, "tls/server.key"))
    conn = ctx.wrap_socket(conn, server_side=True)
    conn.sendall(b". 0\r\n")
    until(conn, b"status\n")
    conn.sendall(drop_after)
    conn.close()


def bad_peers():
    for what, script, expect in (
            ("a peer that is not a station", lambda c: c.sendall(b"SSH-2.0-OpenSSH_9.2\r\n"), "not a station"),
            ("a silent peer", lambda c: time.sleep(8), "does not greet like a station"),
            ("a peer that never answers starttls", lambda c: station_like(c, False), "no answer in time"),
            ("a peer that drops the connection mid-answer",
             lambda c: station_like(c, drop_after=b"cycles 1, period\r\nstart late"), "closed the connection")):
        port = fake_peer(script)
        t = time.time()
        rc, out, err = ctl("--ca", "tls/ca.pem", "--timeout", "2", "status", user=None, port=port)
        took = time.time() - t
        check(rc == 3 and expect in err, what + ": exit 3 with a clear message", (rc, err))
        check(took < 8, what + ": within --timeout", took)


def fingerprint(pem):
    der = ssl.PEM_cert_to_DER_cert(open(os.path.join(WORK, pem)).read())
    return ":".join("%02X" % b for b in hashlib.sha256(der).digest())


def password_prompt():
    """--user without a password elsewhere: asked on the terminal, not echoed."""
    pid, fd = pty.fork()
    if pid == 0:
        os.chdir(WORK)
        os.execve(CTL, [CTL, "--port", str(PORT), "--ca", "tls/ca.pem", "--user", "vic", "status"],
                  {"HOME": HOME})
    out = b""
    deadline = time.time() + 20
    while b"password for vic" not in out and time.time() < deadline:
        out += os.read(fd, 4096)
    os.write(fd, b"vic#pw\n")
    while time.time() < deadline:
        try:
            chunk = os.read(fd, 4096)
        except OSError:
            break
        if not chunk:
            break
        out += chunk
    rc = os.waitpid(pid, 0)[1]
    text = out.decode(errors="replace")
    check(os.WEXITSTATUS(rc) == 0 and "cycles" in text, "the password asked on the terminal logs in", text)
    check("vic#pw" not in text, "and is not echoed", text)


def main():
    global CTL, STATION, PORT
    CTL, STATION, source = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    copy_in(WORK, source, ("station.cfg",), allow="127.0.0.0/8")
    add_users(STATION, WORK, [(n, level, n + "#pw") for n, level in (("vic", "viewer"), ("otto", "operator"),
                                                                     ("ada", "admin"), ("carol", "viewer"))])
    proc, PORT = start_station()
    try:
        subprocess.run([STATION, "--issue-client-cert", "carol"], cwd=WORK, capture_output=True, timeout=60,
                       check=True)
        other_ca(WORK, "x")

        # Verifying the station.
        rc, out, err = ctl("--ca", "tls/ca.pem", "status")
        check(rc == 0 and "cycles" in out, "--ca with the station's CA", (rc, out, err))
        rc, out, err = ctl("--ca", "other.pem", "status")
        check(rc == 3 and "TLS handshake" in err, "--ca with another CA: exit 3", (rc, err))
        fp = fingerprint("tls/server.pem")
        check(ctl("--fingerprint", fp, "status")[0] == 0, "--fingerprint of the station's certificate")
        rc, out, err = ctl("--fingerprint", fingerprint("other.pem"), "status")
        check(rc == 3 and "not the one given" in err, "--fingerprint of another: exit 3", (rc, err))
        known = os.path.join(HOME, ".config/stationctl/known_stations")
        rc, out, err = ctl("status")
        check(rc == 0 and "first connection" in err and fp in err, "trust on first use says so", (rc, err))
        check(os.stat(known).st_mode & 0o777 == 0o600 and fp in open(known).read(), "known_stations 0600")
        rc, out, err = ctl("status")
        check(rc == 0 and "first connection" not in err, "the known station is trusted quietly", (rc, err))
        # The key of the station at that address changes.
        open(known, "w").write("127.0.0.1:%d %s\n" % (PORT, fingerprint("other.pem")))
        rc, out, err = ctl("status")
        check(rc == 3 and "HAS CHANGED" in err and "known_stations" in err, "a changed key is refused", (rc, err))
        check(ctl("--insecure-no-verify", "status")[0] == 0, "--insecure-no-verify")
        os.remove(known)
        check(ctl("--ca", "tls/ca.pem", "--fingerprint", fp, "status")[0] == 2, "--ca and --fingerprint exclude")

        # Logging in.
        password_prompt()
        pw = os.path.join(WORK, "pw")
        open(pw, "w").write("otto#pw\n")
        os.chmod(pw, 0o600)
        rc, out, err = ctl("--ca", "tls/ca.pem", "--password-file", pw, "io", user=None, env={"X": "1"})
        check(rc == 2 and "log in first" in out, "no --user: commands refused (exit 2)", (rc, out))
        rc, out, err = ctl("--ca", "tls/ca.pem", "--user", "otto", "--password-file", pw, "io", user=None)
        check(rc == 0 and "io 0x" in out, "--password-file 0600", (rc, out, err))
        os.chmod(pw, 0o644)
        rc, out, err = ctl("--ca", "tls/ca.pem", "--user", "otto", "--password-file", pw, "io", user=None)
        check(rc == 2 and "readable by group or others" in err, "--password-file 0644 refused", (rc, err))
        rc, out, err = ctl("--ca", "tls/ca.pem", "--cert", "tls/carol.pem", "--key", "tls/carol.key", "--json",
                           "status", user=None)
        check(rc == 0 and json.loads(out)["code"] == 0, "a client certificate logs in", (rc, out, err))

        # Exit codes and --json.
        rc, out, _ = ctl("--ca", "tls/ca.pem", "--json", "io", "set", "9")
        answer = json.loads(out)
        check(rc == 1 and answer["code"] == 1 and "usage" in answer["lines"][0], "a failed command: 1", out)
        rc, out, _ = ctl("--ca", "tls/ca.pem", "--json", "io", "set", "4", user="vic")
        check(rc == 2 and "not permitted" in json.loads(out)["lines"][0], "not permitted: 2", out)
        rc, out, _ = ctl("--ca", "tls/ca.pem", "--json", "status", user="vic")
        check(rc == 0 and any("cycles" in l for l in json.loads(out)["lines"]), "--json status", out)
        rc, out, err = ctl("--ca", "tls/ca.pem", "status", port=1)
        check(rc == 3 and "cannot connect" in err, "nothing listening: 3", err)
        # A named station from the settings file.
        os.makedirs(os.path.join(HOME, ".config/stationctl"), exist_ok=True)
        open(os.path.join(HOME, ".config/stationctl/config"), "w").write(
            "[lab7]\nport = %d\nca = %s\nuser = otto\n" % (PORT, os.path.join(WORK, "tls/ca.pem")))
        p = subprocess.run([CTL, "--timeout", "20", "-s", "lab7", "io"], cwd=WORK, capture_output=True, text=True, timeout=30,
                           env={"HOME": HOME, "STATIONCTL_PASSWORD": "otto#pw"})
        check(p.returncode == 0 and "io 0x" in p.stdout, "-s NAME from ~/.config/stationctl/config", p)

        # -c: a file of commands, up to the first failure.
        open(os.path.join(WORK, "cmds"), "w").write("# a comment\nio\nio set 9\nstatus\n")
        rc, out, err = ctl("--ca", "tls/ca.pem", "--json", "-c", "cmds")
        answers = [json.loads(line) for line in out.splitlines()]
        check(rc == 1 and [a["command"] for a in answers] == ["io", "io set 9"] and "cmds line 3" in err,
              "-c stops at the first failure", (out, err))
        rc, out, err = ctl("--ca", "tls/ca.pem", stdin="io\nio set 9\nstatus\n")
        check(rc == 1 and "io 0x" in out and "usage" in out and "cycles" not in out, "commands from a pipe", out)

        # get: a trace export, with its size and hash; nothing outside the data folder.
        ctl("--ca", "tls/ca.pem", "trace", "start")
        time.sleep(0.5)
        rc, out, _ = ctl("--ca", "tls/ca.pem", "trace", "dump")
        name = re.search(r"dumped to \./(\S+)", out).group(1)
        dest = os.path.join(WORK, "fetched")
        os.mkdir(dest)
        open(os.path.join(WORK, "random.bin"), "wb").write(os.urandom(200000) + b"\n.\n. 0\r\n")
        for what in (name, "random.bin"):  # the second in several pieces
            rc, out, err = ctl("--ca", "tls/ca.pem", "--json", "get", what, dest, user="otto")
            data = open(os.path.join(WORK, what), "rb").read()
            got = open(os.path.join(dest, what), "rb").read()
            reply = json.loads(out)
            check(rc == 0 and got == data and reply["size"] == len(data) and
                  reply["sha256"] == hashlib.sha256(data).hexdigest(), "get " + what + ", size and hash", (rc, err))
        os.symlink("/etc/hostname", os.path.join(WORK, "link"))
        for outside in ("/etc/hostname", "../" + os.path.basename(WORK) + "/../x", "link"):
            rc, out, err = ctl("--ca", "tls/ca.pem", "get", outside, dest, user="otto")
            check(rc == 1 and "cannot read" in out, "get refuses " + outside, (rc, out, err))
        rc, out, _ = ctl("--ca", "tls/ca.pem", "get", name, dest, user="vic")
        check(rc == 2, "get needs the operator level", out)

        # watch, drawn three times.
        rc, out, err = ctl("--ca", "tls/ca.pem", "watch", "reading", "--every", "0.2", "--count", "3", user="vic")
        check(rc == 0 and out.count("reading") == 3 and any(chr(0x2581 + i) in out for i in range(8)),
              "watch draws its trend", out)

        bad_peers()

        # Last: three failures lock the address out; the right password then fails too.
        for _ in range(3):
            ctl("--ca", "tls/ca.pem", "status", env={"STATIONCTL_PASSWORD": "wrong"})
        rc, out, err = ctl("--ca", "tls/ca.pem", "status")
        check(rc == 2 and "login failed" in err, "a locked-out address: exit 2", (rc, err))

        # The station comes back at the same address with a new key: refused like ssh.
        ctl("status")  # known now (trust on first use happens before the login)
        stop(proc)
        proc, port = start_station("Access.TLSFolder=tls2",
                                   "TLS.CertificateFile=tls2/server.pem", "TLS.KeyFile=tls2/server.key",
                                   "TLS.CAFile=tls2/ca.pem", port=PORT)
        rc, out, err = ctl("status")
        check(port == PORT and rc == 3 and "HAS CHANGED" in err and fingerprint("tls2/server.pem") in err,
              "a station with a new key at a known address is refused loudly", (rc, err))
    finally:
        stop(proc)
    # Logs, audit lines, the client's history and known-stations files: no password anywhere.
    no_secrets(check, WORK, [n + "#pw" for n in ("vic", "otto", "ada", "carol")], ignore=("pw",))
    shutil.rmtree(WORK, ignore_errors=True)
    print("stationctl: %d checks passed" % check.count)


if __name__ == "__main__":
    main()
