"""What the station's test scripts share: checks, free ports, starting a
station and the port it listens on, reading a client's answer and the search
for leaked passwords."""
import os
import re
import socket
import subprocess
import sys
import time


class Checks:
    """check(ok, what, detail): counts what passed; the first failure ends the script."""

    def __init__(self):
        self.count = 0

    def __call__(self, ok, what, detail=""):
        if not ok:
            sys.exit("FAIL: %s %s" % (what, str(detail)[:500]))
        self.count += 1


def no_secrets(check, folder, secrets, ignore=()):
    """No password a script used in any file the stations and clients under
    `folder` wrote (logs with their audit lines, history files, dumps, their
    output), the users files, TLS keys and the files named in `ignore` (the
    script's own password files) aside."""
    for root, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(root, name)
            if (name.endswith(".users") or os.path.basename(root).startswith("tls") or name in ignore
                    or not os.path.isfile(path)):
                continue
            text = open(path, "rb").read()
            for secret in secrets:
                check(secret.encode() not in text, "no password in " + path, secret)


def read_until(sock, marker):
    """Bytes from `sock` up to and including `marker` (or the close), as text."""
    data = b""
    while not data.endswith(marker):
        chunk = sock.recv(65536)
        if not chunk:
            break
        data += chunk
    return data.decode(errors="replace")


def listening_port(proc, seconds=30):
    """The port from the station's "tcp port N" line on its standard output, or None."""
    deadline = time.time() + seconds
    while time.time() < deadline:
        line = proc.stdout.readline().decode()
        if not line:
            return None
        m = re.match(r"tcp port (\d+)", line)
        if m:
            return int(m.group(1))
    return None


def free_port():
    """A loopback port free at the moment (for a peer that cannot take port 0)."""
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def start_in(work, argv, pattern=r"tcp port (\d+)", seconds=30):
    """Starts `argv` in `work`, its output in work/out.txt; (process, the
    number `pattern` finds in that output) once it is there. Otherwise the
    process is killed and the script ends with the output."""
    out = open(os.path.join(work, "out.txt"), "w+")
    proc = subprocess.Popen(argv, cwd=work, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT)
    deadline = time.time() + seconds
    while time.time() < deadline:
        m = re.search(pattern, open(out.name).read())
        if m:
            return proc, int(m.group(1))
        if proc.poll() is not None:
            break
        time.sleep(0.05)
    proc.kill()
    sys.exit("FAIL: %s did not start: %s" % (argv[0], open(out.name).read()))
