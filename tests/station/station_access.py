#!/usr/bin/env python3
"""Who may do what at the station, over which channel, checked with
independent peers (Python's ssl module and the openssl command).

    station_access.py STATION_BINARY STATION_SOURCE_DIR

Starts the station with the shipped configuration (login throttling
shortened) in a scratch folder, where its first start makes the CA and the
server certificate, and checks: certificate TLS 1.3 verified against
tls/ca.pem, refused peers (another CA, anonymous suites, TLS 1.0/1.1),
mutual TLS, login answers and lock-out, the privilege matrix, private
session output, idle time-out, and that 64 silent starttls clients do not
delay a well-behaved one.
"""
import os
import re
import select
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from station_client import (PROMPT, Checks, Line, add_users, copy_in, kill, log_text,  # noqa: E402
                            no_secrets, other_ca, passwd, start_in, stop, unverified_context)

WORK = tempfile.mkdtemp(prefix="station-access-")
SANITIZED = bool(os.environ.get("ZQ_SANITIZE"))
check = Checks()


def Client(port, source="127.0.0.1"):
    return Line(port, source, check)


def status_times(client, n):
    """Seconds each of n `status` round trips took."""
    times = []
    for _ in range(n):
        t = time.time()
        client.ask("status")
        times.append(time.time() - t)
    return times


def client_ctx(ca="tls/ca.pem", cert=None):
    ctx = ssl.create_default_context(cafile=os.path.join(WORK, ca))
    if cert:
        ctx.load_cert_chain(os.path.join(WORK, cert + ".pem"), os.path.join(WORK, cert + ".key"))
    return ctx


def refused(port, ctx, host="localhost"):
    c = Client(port)
    try:
        c.starttls(ctx, host)
        c.ask("status")
        return False
    except (ssl.SSLError, OSError):
        return True


def relay_to(port):
    """A local port that takes one client, does the station's clear-text
    starttls exchange for it and then passes the bytes both ways, so that a
    peer without start-TLS support (openssl s_client) can handshake."""
    listener = socket.create_server(("127.0.0.1", 0))

    def run():
        peer, _ = listener.accept()
        station = Client(port)
        station.say("starttls", b"\r\n")
        pair = {peer: station.sock, station.sock: peer}
        open_ends = set(pair)
        while open_ends:
            for r in select.select(list(open_ends), [], [], 20)[0]:
                data = r.recv(65536)
                if not data:
                    open_ends.clear()
                    break
                pair[r].sendall(data)
        peer.close()
        station.sock.close()
        listener.close()

    threading.Thread(target=run, daemon=True).start()
    return listener.getsockname()[1]


def s_client(port, ca):
    args = ["s_client", "-connect", "127.0.0.1:%d" % relay_to(port), "-CAfile", ca, "-verify_return_error",
            "-verify_hostname", "localhost", "-ign_eof"]
    return subprocess.run(["openssl"] + args, cwd=WORK, input=b"help\nexit\n", capture_output=True, timeout=60)


def start(binary, *overrides):
    proc, port = start_in(WORK, [binary, "-f", "station.cfg", "Server.ListenPort=0", "Server.ACL=open.acl",
                                 "Login.FirstDelay=300", "Login.MaxDelay=1000", "Login.MaxFailures=3",
                                 "Access.MaxNotLoggedIn=100"] + list(overrides))
    return proc, port, open(os.path.join(WORK, "out.txt")).read()


# Every station command at every level: the lowest level that may run it.
MATRIX = [("status", 1), ("io", 1), ("io get 0", 1), ("io set 0", 2), ("io clear 0", 2), ("io toggle 0", 2),
          ("trace dump", 1), ("trace start", 2), ("trace stop", 2), ("fit", 2), ("hash sha256 station.cfg", 2),
          ("crc station.cfg", 2), ("config show", 1), ("config set Station.Setpoint 40", 3), ("config save", 3),
          ("alarms", 1), ("ack all", 2), ("shelve sensor 0", 2), ("alarm-history 1m", 1), ("outputs", 1),
          ("outputs resume", 2)]


def main():
    binary, source = os.path.abspath(sys.argv[1]), sys.argv[2]
    copy_in(WORK, source, ("station.cfg",), allow="127.0.0.0/8")
    check(passwd(binary, WORK, "eve", "viewer", "").returncode != 0, "--passwd refuses an empty password")
    add_users(binary, WORK, [(n, level, n + "#pw") for n, level in (("vic", "viewer"), ("otto", "operator"),
                                                                    ("ada", "admin"), ("carol", "viewer"))])
    check(os.stat(os.path.join(WORK, "station.users")).st_mode & 0o777 == 0o600, "the users file is 0600")

    proc, port, out = start(binary)
    try:
        check(re.search(r"SHA-256 ([0-9A-F]{2}:){31}[0-9A-F]{2}", out), "the CA's fingerprint is printed", out)
        check(os.stat(os.path.join(WORK, "tls/server.key")).st_mode & 0o777 == 0o600, "server.key is 0600")
        check(subprocess.run([binary, "--issue-client-cert", "carol"], cwd=WORK, capture_output=True,
                             timeout=60).returncode == 0, "--issue-client-cert")
        # Another CA, and a client certificate it signed for the same name.
        other_ca(WORK, "carol")

        # Clear text: nothing but starttls, help and exit.
        c = Client(port)
        check("refused before starttls" in c.ask("status"), "RequireTLS refuses commands in clear text")
        check("login: refused before starttls" in c.login("otto", "otto#pw"),
              "and login, its password taken and dropped")
        c.starttls(client_ctx())
        check(c.sock.version() == "TLSv1.3", "certificate TLS 1.3 verified against tls/ca.pem", c.sock.version())
        check("log in first" in c.ask("status"), "commands need a login")

        # Login answers: right, wrong, unknown (same answer, same wait per address).
        check("logged in as otto (operator)" in c.login("otto", "otto#pw"), "the right password logs in")
        waits = []
        for source, user in (("127.0.0.2", "otto"), ("127.0.0.3", "nobody")):
            d = Client(port, source)
            d.starttls(client_ctx())
            t = time.time()
            answer = d.login(user, "wrong")
            waits.append(time.time() - t)
            check("login failed" in answer, "a failed login of " + user, answer)
            d.sock.close()
        check(min(waits) >= 0.25 and abs(waits[0] - waits[1]) < 0.5, "unknown user and wrong password wait alike",
              waits)
        d = Client(port, "127.0.0.4")
        d.starttls(client_ctx())
        for _ in range(3):
            d.login("otto", "wrong")
        check("login failed" in d.login("otto", "otto#pw"), "three failures lock the address out")
        d.sock.close()

        # openssl s_client as a second peer, verifying the chain and the name.
        r = s_client(port, "tls/ca.pem")
        out = r.stdout.decode(errors="replace")
        check(r.returncode == 0 and "Verification: OK" in out and "TLSv1.3" in out and "Possible commands" in out,
              "openssl s_client verifies the station", out[-1500:])
        check(s_client(port, "other.pem").returncode != 0, "openssl s_client refuses another CA's station")

        # Peers that must not get through.
        check(refused(port, client_ctx("other.pem")), "a client trusting another CA fails")
        check(refused(port, client_ctx(), "otherhost"), "a host name the certificate lacks fails")
        for version in (ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1):
            check(refused(port, unverified_context("ALL:@SECLEVEL=0", version, version)), "%s is refused" % version)
        # The relay of old: anonymous DH towards the station cannot complete.
        adh = unverified_context("ADH:AECDH:@SECLEVEL=0", highest=ssl.TLSVersion.TLSv1_2)
        check(refused(port, adh), "anonymous DH suites are refused")

        # Mutual TLS: a certificate from the CA logs in as its name.
        m = Client(port)
        check("logged in as carol (viewer)" in m.starttls(client_ctx(cert="tls/carol")), "a client certificate logs in")
        check("not permitted" in m.ask("io set 0"), "as a viewer")

        # The privilege matrix from the network.
        for user, level in (("vic", 1), ("otto", 2), ("ada", 3)):
            u = Client(port)
            u.starttls(client_ctx())
            check("logged in" in u.login(user, user + "#pw"), "login " + user)
            check((re.search(r"\bhash\b", u.ask("help")) is not None) == (level >= 2),
                  "%s: help lists only what the level may run" % user)
            for line, need in MATRIX:
                answer = u.ask(line)
                check(("not permitted" in answer) == (level < need), "%s: %s" % (user, line), answer)
            if user == "otto":  # an operator acknowledges and shelves over TLS; the journal names him
                u.ask("io set inject")
                deadline = time.time() + 10
                while "active-unacked" not in u.ask("alarms") and time.time() < deadline:
                    time.sleep(0.1)
                check("1 alarm acknowledged" in u.ask("ack sensor over tls"), "ack over TLS")
                check("shelved until" in u.ask("shelve sensor 5 tls shelving"), "shelve over TLS")
                history = u.ask("alarm-history 10m")
                check(re.search(r"sensor ack active-unacked -> active-acked.* by otto: over tls", history)
                      and re.search(r"sensor shelve .* by otto: tls shelving", history),
                      "the journal names the TLS session's user", history)
                u.ask("shelve sensor 0")
                u.ask("io clear inject")
            u.sock.close()

        # Private output: one client's help and errors never reach the other.
        a, b = Client(port), Client(port)
        a.starttls(client_ctx())
        b.starttls(client_ctx())
        check("Possible commands" in a.ask("help") and "Unknown command: nosuch" in a.ask("help nosuch"),
              "help answers its own client")
        check("Possible commands" not in b.ask("echo") and "nosuch" not in b.ask("help status"),
              "and nobody else")
        check("Possible commands" not in open(os.path.join(WORK, "out.txt")).read(), "nor the station's output")

        # A 5 MB password line: refused with one line, the session kept.
        big = Client(port)
        big.starttls(client_ctx())
        big.say("login", b"user: ")
        big.say("otto", b"password: ")
        big.sock.sendall(b"x" * 5000000 + b"\n")
        answer = big.ask("status")
        check(answer.count("line too long") == 1 and "log in first" in answer, "a 5 MB line is refused", answer[:300])
        check("logged in" in big.login("otto", "otto#pw"), "and the session goes on")
        big.sock.close()
        check("logged in" in Client(port).starttls(client_ctx(cert="tls/carol")), "the station serves on")

        # 64 silent starttls clients do not hold up a well-behaved one.
        silent = [Client(port) for _ in range(16 if SANITIZED else 64)]
        for s in silent:
            s.sock.sendall(b"starttls\n")
        times = sorted(status_times(m, 100))
        p99 = times[98]
        print("p99 of status with %d silent handshakes: %.1f ms" % (len(silent), p99 * 1000))
        check(p99 < 1.0, "silent handshakes do not delay others", p99)
        for s in silent:
            s.sock.close()

        # Password checks (tens of milliseconds of scrypt each) run beside the
        # main loop: 24 wrong passwords at once do not hold up a working client.
        guessers = [Client(port, source="127.0.1.%d" % (i + 1)) for i in range(24)]
        for g in guessers:
            g.starttls(client_ctx())
            g.say("login", b"user: ")
            g.say("otto", b"password: ")
        for g in guessers:
            g.sock.sendall(b"wrong\n")
        times = status_times(m, 20)
        for g in guessers:
            check("login failed" in g.until(PROMPT), "each guess is answered")
            g.sock.close()
        print("slowest status while 24 passwords were checked: %.1f ms" % (max(times) * 1000))
        check(max(times) < 0.5, "password checks do not delay others", times)
        stop(proc, check)

        # Required client certificates; idle time-out.
        proc, port, out = start(binary, "TLS.VerifyPeer=require", "Access.IdleTimeout=1")
        check(refused(port, client_ctx()), "no client certificate is refused when required")
        check(refused(port, client_ctx(cert="other")), "one from another CA is refused")
        r = Client(port)
        check("logged in as carol" in r.starttls(client_ctx(cert="tls/carol")), "one from the CA is accepted")
        time.sleep(1.5)
        check("idle time-out" in r.until(b"closing\r\n"), "an idle session is closed")
        log = log_text(WORK)
        check("#pw" not in log and "wrong" not in log, "no password reaches the log")
        check("audit: carol logged in from 127.0.0.1 as viewer by certificate" in log, "logins are audited")
        check("audit: login of 'nobody' from 127.0.0.3 failed" in log, "failed logins are audited")
        check("audit: 127.0.0.1: io set 0 (user carol, viewer, result 1)" in log, "commands are audited")
        stop(proc, check)
        no_secrets(check, WORK, [n + "#pw" for n in ("vic", "otto", "ada", "carol")] + ["wrong"])
        print("station access: %d checks passed" % check.count)
    finally:
        kill(proc)
        if os.environ.get("KEEP") is None: shutil.rmtree(WORK, ignore_errors=True)


if __name__ == "__main__":
    main()
