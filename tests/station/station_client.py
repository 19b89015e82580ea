"""What the station's test scripts share: checks, the port a station listens
on and reading a client's answer."""
import re
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
