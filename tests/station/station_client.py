"""What the station's test scripts share: checks, scratch folders, users,
free ports, starting and stopping a station, a line client, TLS contexts,
bounded waits, the station's logs and the search for leaked passwords."""
import http.client
import os
import re
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import time
import urllib.parse

PROMPT = b"station> "
SLOW = 3 if os.environ.get("ZQ_SANITIZE") else 1  # sanitizers slow the station down


class Checks:
    """check(ok, what, detail): counts what passed; the first failure ends the
    script (after the tail of the station's logs in `logs`, when given)."""

    def __init__(self, logs=None):
        self.count = 0
        self.logs = logs

    def __call__(self, ok, what, detail=""):
        if not ok:
            if self.logs and os.path.isdir(self.logs):
                sys.stderr.write(log_text(self.logs)[-3000:])
            sys.exit("FAIL: %s %s" % (what, str(detail)[:500]))
        self.count += 1


def copy_in(work, source, names=("station.cfg", "station.acl"), allow=None):
    """Copies `names` from `source` into `work`; with `allow`, writes open.acl allowing those addresses."""
    for name in names:
        shutil.copy(os.path.join(source, name), work)
    if allow:
        open(os.path.join(work, "open.acl"), "w").write("[hosts]\nallow = %s\n" % allow)


def passwd(binary, work, name, level, password):
    """Runs `station --passwd NAME LEVEL` in `work` with `password` on its input; the finished process."""
    return subprocess.run([binary, "--passwd", name, level], cwd=work, input=password.encode(),
                          capture_output=True, timeout=60)


def add_users(binary, work, users):
    """Adds each (name, level, password) of `users` to work's users file; a refusal ends the script."""
    for name, level, password in users:
        r = passwd(binary, work, name, level, password)
        if r.returncode != 0:
            sys.exit("FAIL: --passwd %s: %s" % (name, r.stderr.decode(errors="replace")))


def log_text(folder, prefix=""):
    """The text of every `prefix`*.log file in `folder`, in name order."""
    return "".join(open(os.path.join(folder, n), errors="replace").read() for n in sorted(os.listdir(folder))
                   if n.startswith(prefix) and n.endswith(".log"))


def eventually(test, seconds=10, errors=()):
    """test()'s first true value within `seconds` (longer under sanitizers; the
    exceptions in `errors` count as not yet), or its last value."""
    deadline = time.time() + seconds * SLOW
    while True:
        try:
            value = test()
        except errors:
            value = None
        if value or time.time() > deadline:
            return value
        time.sleep(0.05)


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


def start_in(work, argv, pattern=r"tcp port (\d+)", seconds=30, out="out.txt", **popen):
    """Starts `argv` in `work` (`popen`: more arguments for Popen), its output
    in `out` (relative to `work`); (process, the number `pattern` finds in
    that output) once it is there. Otherwise the process is killed and the
    script ends with the output."""
    out = open(os.path.join(work, out), "w+")
    proc = subprocess.Popen(argv, cwd=work, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                            **popen)
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


def printed_port(work, name, seconds=5):
    """The port of the "NAME port N" line in work/out.txt (see start_in), or None."""
    deadline = time.time() + seconds * SLOW
    while True:
        m = re.search(name + r" port (\d+)", open(os.path.join(work, "out.txt")).read())
        if m or time.time() > deadline:
            return int(m.group(1)) if m else None
        time.sleep(0.05)


def stop(proc, check=None, what="SIGTERM ends the station with 0", sig=signal.SIGTERM):
    """Sends `sig` to `proc` and waits for it (kills it after a while); with
    `check`, its exit status must be 0. The exit status (None when killed)."""
    if proc is None:
        return None
    proc.send_signal(sig)
    try:
        rc = proc.wait(timeout=30 * SLOW)
    except subprocess.TimeoutExpired:
        kill(proc)
        rc = None
    if check:
        check(rc == 0, what, rc)
    return rc


def kill(proc):
    """Kills `proc` (by its pid) if it still runs, and reaps it."""
    if proc is not None and proc.poll() is None:
        proc.kill()
        proc.wait()


def ca_context(folder):
    """A client TLS context that trusts the station CA in folder/tls/ca.pem."""
    return ssl.create_default_context(cafile=os.path.join(folder, "tls", "ca.pem"))


def other_ca(work, name):
    """other.pem and other.key in `work`: a self-signed certificate for CN=`name`, from no CA the station knows."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-days", "1", "-keyout", "other.key", "-out", "other.pem", "-subj", "/CN=" + name],
                   cwd=work, capture_output=True, timeout=60, check=True)


def unverified_context(ciphers=None, lowest=None, highest=None):
    """A client TLS context that checks no certificate, limited to `ciphers` and the versions lowest..highest."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname, ctx.verify_mode = False, ssl.CERT_NONE
    if lowest:
        ctx.minimum_version = lowest
    if highest:
        ctx.maximum_version = highest
    if ciphers:
        ctx.set_ciphers(ciphers)
    return ctx


class Line:
    """A client of the station's command port, connected from `source`; its
    greeting is read unless `greet` is false. With `check`, every ask() must
    end in the prompt and every starttls must be accepted."""

    def __init__(self, port, source="127.0.0.1", check=None, greet=True):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=20, source_address=(source, 0))
        self.check = check
        self.greeting = self.until(PROMPT) if greet else ""

    def until(self, marker):
        """What arrives up to and including `marker` (or the close)."""
        return read_until(self.sock, marker)

    def say(self, line, marker=PROMPT):
        """Sends `line`; what arrives up to and including `marker`."""
        self.sock.sendall(line.encode(errors="surrogateescape") + b"\n")
        return self.until(marker)

    def ask(self, line):
        """The answer to `line`, without the prompt."""
        answer = self.say(line)
        ended = answer.endswith(PROMPT.decode())
        if self.check:
            self.check(ended, "a prompt after " + line[:60], repr(answer[-200:]))
        return answer[: -len(PROMPT)] if ended else answer

    def starttls(self, ctx, host="localhost"):
        """starttls and the handshake with `ctx`; what arrives up to the next prompt."""
        answer = self.say("starttls", b"\r\n")
        if self.check:
            self.check(answer == "OK starting TLS\r\n", "starttls answers", repr(answer))
        self.sock = ctx.wrap_socket(self.sock, server_hostname=host)
        return self.until(PROMPT)

    def login(self, user, password, inline=False):
        """Logs in (with `login USER` on one line when `inline`); the answer to the password."""
        if inline:
            self.say("login " + user, b"password: ")
        else:
            self.say("login", b"user: ")
            self.say(user, b"password: ")
        return self.say(password)

    def close(self):
        self.sock.close()


def modbus_request(port, pdu, source="127.0.0.1", timeout=5):
    """One Modbus TCP request of `pdu` to unit 1 from `source`; the answer's bytes (empty when closed)."""
    c = socket.create_connection(("127.0.0.1", port), timeout=timeout, source_address=(source, 0))
    try:
        c.sendall(bytes([0, 7, 0, 0, 0, len(pdu) + 1, 1]) + pdu)
        return c.recv(300)
    except OSError:
        return b""
    finally:
        c.close()


def https(port, ctx, method, path, body=None, headers=None, timeout=20):
    """One request to the station's web port over TLS with `ctx`: (response, its body)."""
    c = http.client.HTTPSConnection("127.0.0.1", port, context=ctx, timeout=timeout)
    try:
        c.request(method, path, body, headers or {})
        r = c.getresponse()
        return r, r.read()
    finally:
        c.close()


def web_login(port, ctx, user, password):
    """The login form posted to /api/login: (response, its body)."""
    return https(port, ctx, "POST", "/api/login", urllib.parse.urlencode({"user": user, "password": password}),
                 {"Content-Type": "application/x-www-form-urlencoded"})
