"""What the station's test scripts share: checks and reading a client's answer."""
import sys


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
