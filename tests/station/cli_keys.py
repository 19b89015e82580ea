#!/usr/bin/env python3
"""Line editing over a network session, as a raw-mode client sends keys.

    cli_keys.py CLISERVER_BINARY [STATION_BINARY STATION_SOURCE_DIR]

Starts `cliserver -e` (and, when given, the station, whose sessions log in
and switch with "editing on", once in clear text and once after starttls) on
a free port, sends each key sequence of the table below over a TCP socket
followed by Enter and checks the line that ran, then sends 100,000 keys in
one burst, and ends the session with Ctrl-D on an empty line. In the
station's TLS session it also checks that login is refused while editing,
that help follows the session's level, and that keys typed slowly for longer
than the idle time-out keep the session open.
"""
import os
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import time

from station_client import add_users, ca_context, copy_in, listening_port, no_secrets, stop

# A prompt on a line of its own (a redraw after Ctrl-C is not one).
PROMPT = re.compile(rb"(\A|\n)\r?\w+(:/[#>]|>) (\x1b\[J)?\Z")
# keys -> what `echo` answers when the edited line runs
CASES = [
    (b"echo helo\x1b[Dl", b"hello"),                        # insert in the middle
    (b"cho mid\x01e\x05 end", b"mid end"),                  # Ctrl-A, Ctrl-E
    (b"cho x\x1b[1~e\x1b[4~y", b"xy"),                      # Home, End
    (b"xecho z\x1bOH\x1b[3~\x1bOFz", b"zz"),                # Delete, SS3 Home/End
    (b"echo wrong words\x17\x17fine", b"fine"),             # Ctrl-W
    (b"\x12hel", b"hello"),                                 # Ctrl-R runs an earlier line
    (b"echo gr\xc3\xbc\xc3\x9fe\x1b[D\x1b[D\x7f", "grße".encode()),  # UTF-8
    (b"echo one two\x1bb\x0b\x19\x19", b"one twotwo"),  # Alt-B, Ctrl-K, Ctrl-Y
    (b"echo x\x03echo y", b"y"),                            # Ctrl-C clears
    (b"ec\tdone", b"done"),                                 # Tab completes the command
    (b"echo a\xff\xc3(\x1b[99~\x1b[12\x05b", b"a(b"),       # bad UTF-8, unknown and cut escapes
]
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)


class Session:
    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=20)

    def until(self, pattern):
        data = b""
        deadline = time.time() + 20
        while not pattern.search(data) and time.time() < deadline:
            try:
                chunk = self.sock.recv(65536)
            except (ssl.SSLError, OSError):
                chunk = b""
            if not chunk:
                break
            data += chunk
        return data

    def until_prompt(self):
        return self.until(PROMPT)

    def ask(self, line, marker):
        self.sock.sendall(line + b"\n")
        return self.until(re.compile(re.escape(marker)))

    def run(self, keys):
        self.sock.sendall(keys + b"\r")
        return self.until_prompt()

    def login(self, user, password):
        self.ask(b"login", b"user: ")
        self.ask(user, b"password: ")
        return self.ask(password, b"station> ")


def exercise(name, s, extra=None):
    for keys, answer in CASES:
        got = s.run(keys)
        check(b"\r\n" + answer + b"\r\n" in got, "%s: %r -> %r, got %r" % (name, keys, answer, got[-200:]))
    got = s.run(b"x" * 100000 + b"\x03echo still here")
    check(b"\r\nstill here\r\n" in got, "%s: a burst of 100,000 keys" % name)
    if extra:
        extra(s)
    s.sock.sendall(b"\x04")  # Ctrl-D on an empty line
    started = time.time()
    s.until(re.compile(b"(?!)"))  # everything up to the close
    check(time.time() - started < 15, "%s: Ctrl-D on an empty line ends the session" % name)
    s.sock.close()


def station_checks(s):
    """What a viewer in editing mode over TLS sees (the station's own rules)."""
    got = s.run(b"login")
    check(b"login: not in editing mode" in got, "login is refused while editing: %r" % got[-200:])
    got = s.run(b"help")
    check(b"status" not in got, "and the line after it is dropped as the password: %r" % got[-200:])
    got = s.run(b"help")
    check(b"status" in got and b"  fit" not in got, "help lists only the viewer's commands: %r" % got[-600:])
    got = s.run(b"help io fit")
    check(b"viewer    all but io clear, io set, io toggle\r\n  operator  all of it\r\n" in got
          and b"Unknown command: fit" in got, "help io shows each level's row: %r" % got[-400:])
    # Keys typed slowly for longer than the idle time-out keep the session.
    try:
        for _ in range(IDLE_S + 2):
            s.sock.sendall(b"x")
            time.sleep(1)
        got = s.run(b"\x03echo alive")
    except OSError as e:  # closed by the idle time-out
        got = repr(e).encode()
    check(b"\r\nalive\r\n" in got, "typing in editing mode is activity: %r" % got[-200:])


def start(argv, cwd):
    p = subprocess.Popen(argv, cwd=cwd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL)
    port = listening_port(p)
    if port is None:
        p.kill()
        sys.exit("FAIL: %s shows no port" % argv[0])
    return p, port


IDLE_S = 4


def station(binary, source, work):
    copy_in(work, source, ("station.cfg",), allow="127.0.0.0/8")
    add_users(binary, work, [("ada", "admin", "ada-pw"), ("vic", "viewer", "vic-pw")])
    p, port = start([binary, "Server.ListenPort=0", "Server.ACL=open.acl", "Server.RequireTLS=0",
                     "Access.IdleTimeout=%d" % IDLE_S], work)
    try:
        s = Session(port)
        s.until_prompt()
        check(b"logged in as ada" in s.login(b"ada", b"ada-pw"), "station: login in clear text")
        s.sock.sendall(b"editing on\n")
        s.until_prompt()
        exercise("station", s)
        t = Session(port)
        t.until_prompt()
        check(b"OK starting TLS" in t.ask(b"starttls", b"\r\n"), "station: starttls")
        t.sock = ca_context(work).wrap_socket(t.sock, server_hostname="localhost")
        t.until_prompt()
        check(b"logged in as vic" in t.login(b"vic", b"vic-pw"), "station: login over TLS")
        t.sock.sendall(b"editing on\n")
        t.until_prompt()
        exercise("station over TLS", t, station_checks)
    finally:
        stop(p)


def main():
    work = tempfile.mkdtemp(prefix="cli-keys-")
    try:
        p, port = start([sys.argv[1], "-e", "0"], work)
        try:
            s = Session(port)
            s.until_prompt()
            exercise("cliserver", s)
        finally:
            stop(p)
        if len(sys.argv) > 3:
            try:
                station(os.path.abspath(sys.argv[2]), sys.argv[3], work)
            except OSError as e:  # the station closed a session it should have kept (ssl errors too)
                failures.append("station: %r" % e)
            no_secrets(lambda ok, what, detail="": ok or failures.append("%s: %s" % (what, detail)),
                       work, ["ada-pw", "vic-pw"])
    finally:
        shutil.rmtree(work)
    for f in failures:
        print("FAIL:", f)
    print("cli-keys: %d failure(s), %d cases" % (len(failures), len(CASES) + 2))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
