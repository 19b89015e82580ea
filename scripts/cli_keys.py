#!/usr/bin/env python3
"""Line editing over a network session, as a raw-mode client sends keys.

    cli_keys.py CLISERVER_BINARY [STATION_BINARY STATION_SOURCE_DIR]

Starts `cliserver -e` (and, when given, the station, whose sessions switch
with "editing on") on a free port, sends each key sequence of the table below
over a TCP socket followed by Enter and checks the line that ran, then sends
100,000 keys in one burst, and ends the session with Ctrl-D on an empty line.
"""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

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

    def until_prompt(self):
        data = b""
        deadline = time.time() + 20
        while not PROMPT.search(data) and time.time() < deadline:
            chunk = self.sock.recv(65536)
            if not chunk:
                break
            data += chunk
        return data

    def run(self, keys):
        self.sock.sendall(keys + b"\r")
        return self.until_prompt()


def exercise(name, port, switch):
    s = Session(port)
    if switch:
        s.until_prompt()
        s.sock.sendall(switch)
    s.until_prompt()
    for keys, answer in CASES:
        got = s.run(keys)
        check(b"\r\n" + answer + b"\r\n" in got, "%s: %r -> %r, got %r" % (name, keys, answer, got[-200:]))
    got = s.run(b"x" * 100000 + b"\x03echo still here")
    check(b"\r\nstill here\r\n" in got, "%s: a burst of 100,000 keys" % name)
    s.sock.sendall(b"\x04")  # Ctrl-D on an empty line
    rest, deadline = b"", time.time() + 20
    while time.time() < deadline:
        chunk = s.sock.recv(65536)
        if not chunk:
            break
        rest += chunk
    check(time.time() < deadline, "%s: Ctrl-D on an empty line ends the session" % name)
    s.sock.close()


def start(argv, cwd):
    p = subprocess.Popen(argv, cwd=cwd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL)
    for _ in range(100):
        line = p.stdout.readline()
        m = re.match(rb"tcp port (\d+)", line)
        if m:
            return p, int(m.group(1))
    p.kill()
    sys.exit("FAIL: %s shows no port" % argv[0])


def stop(p):
    p.terminate()
    try:
        p.wait(timeout=20)
    except subprocess.TimeoutExpired:
        p.kill()
        p.wait()


def main():
    work = tempfile.mkdtemp(prefix="cli-keys-")
    try:
        p, port = start([sys.argv[1], "-e", "0"], work)
        try:
            exercise("cliserver", port, None)
        finally:
            stop(p)
        if len(sys.argv) > 3:
            for f in ("station.cfg", "station.acl"):
                shutil.copy(os.path.join(sys.argv[3], f), work)
            p, port = start([sys.argv[2], "Server.ListenPort=0"], work)
            try:
                exercise("station", port, b"editing on\n")
            finally:
                stop(p)
    finally:
        shutil.rmtree(work)
    for f in failures:
        print("FAIL:", f)
    print("cli-keys: %d failure(s), %d cases" % (len(failures), len(CASES) + 2))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
