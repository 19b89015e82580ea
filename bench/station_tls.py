#!/usr/bin/env python3
"""TLS figures of the station (not part of CI).

    station_tls.py STATION_BINARY [SECONDS]

Starts the station with the shipped configuration in a scratch folder and
prints: TLS 1.3 handshakes per second (sequential clients: connect, starttls,
handshake verified against tls/ca.pem, close), and the echo throughput of one
session in clear text and then, in the same session, over TLS.
"""
import os
import shutil
import socket
import ssl
import sys
import tempfile
import time

from station_proc import start_station, stop_station

PROMPT = b"station> "
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def until(sock, marker, data=b""):
    while not data.endswith(marker):
        chunk = sock.recv(262144)
        if not chunk:
            raise OSError("closed")
        data += chunk
    return data


def echo_rate(sock, seconds):
    line = b"echo " + b"x" * 1000 + b"\n"
    batch = 50
    sent = 0
    t0 = time.time()
    while time.time() - t0 < seconds:
        sock.sendall(line * batch)
        data = b""
        for _ in range(batch):
            data = until(sock, PROMPT, data)
            data = data[data.index(PROMPT) + len(PROMPT):] if data.count(PROMPT) > 1 else b""
        sent += batch * len(line)
    return sent / (time.time() - t0) / 1e6


def main():
    binary = os.path.abspath(sys.argv[1])
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 3
    work = tempfile.mkdtemp(prefix="station-tls-")
    for name in ("station.cfg", "station.acl"):
        shutil.copy(os.path.join(ROOT, "apps/station", name), work)
    proc, port = start_station(binary, work, "Station.UsersFile=none", "Server.RequireTLS=0",
                               "Server.MaxConnections=8")
    try:
        ctx = ssl.create_default_context(cafile=os.path.join(work, "tls/ca.pem"))
        ctx.minimum_version = ssl.TLSVersion.TLSv1_3
        n, t0 = 0, time.time()
        while time.time() - t0 < seconds:
            s = socket.create_connection(("127.0.0.1", port))
            until(s, PROMPT)
            s.sendall(b"starttls\n")
            until(s, b"\r\n")
            s = ctx.wrap_socket(s, server_hostname="localhost")
            until(s, PROMPT)
            s.close()
            n += 1
        print("TLS 1.3 handshakes per second (sequential, starttls included): %.0f" % (n / (time.time() - t0)))
        s = socket.create_connection(("127.0.0.1", port))
        until(s, PROMPT)
        plain = echo_rate(s, seconds)
        s.sendall(b"starttls\n")
        until(s, b"\r\n")
        s = ctx.wrap_socket(s, server_hostname="localhost")
        until(s, PROMPT)
        print("echo throughput of one session: clear %.1f MB/s, TLS %.1f MB/s (%s)" %
              (plain, echo_rate(s, seconds), s.version()))
    finally:
        stop_station(proc, work)


if __name__ == "__main__":
    main()
