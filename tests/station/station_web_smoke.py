#!/usr/bin/python3
"""The station's web page, without a browser: HTTPS only, login and the
session cookie's flags, the CSRF token, one command at two levels (and
their audit lines), live samples over the WebSocket, lock-out.
Usage: station_web.py STATION_BINARY STATION_SOURCE_FOLDER"""
import asyncio
import json
import os
import re
import shutil
import socket
import sys
import tempfile
import time

import websockets

from station_client import (Checks, add_users, copy_in, https, log_text, no_secrets, start_in, stop,
                            unverified_context, web_login)

check = Checks()
WORK = tempfile.mkdtemp(prefix="station-web-")
TLS = unverified_context()


def start(binary):
    return start_in(WORK, [binary, "-f", "station.cfg", "Server.ListenPort=0", "Server.ACL=open.acl",
                           "Web.Listen=127.0.0.1:0", "Login.FirstDelay=100", "Login.MaxDelay=200",
                           "Login.MaxFailures=3"], r"web port (\d+)")


def request(port, method, path, body=None, headers=None):
    return https(port, TLS, method, path, body, headers, 30)


def login(port, user, password):
    return web_login(port, TLS, user, password)


async def samples(port, sid):
    async with websockets.connect("wss://127.0.0.1:%d/ws" % port, ssl=TLS,
                                  extra_headers={"Cookie": "zqsid=" + sid}) as ws:
        await ws.send(json.dumps({"subscribe": ["sensor"], "io": True}))
        got, io = [], None
        deadline = time.time() + 10
        while time.time() < deadline and (len(got) < 200 or io is None):
            m = json.loads(await asyncio.wait_for(ws.recv(), 10))
            if m["type"] == "samples":
                got += m["samples"]
            elif m["type"] == "io":
                io = m
        return got, io


async def refused_ws(port):
    try:
        async with websockets.connect("wss://127.0.0.1:%d/ws" % port, ssl=TLS):
            return False
    except Exception:
        return True


def main():
    binary, source = os.path.abspath(sys.argv[1]), sys.argv[2]
    copy_in(WORK, source, ("station.cfg",), allow="127.0.0.0/8")
    add_users(binary, WORK, [("vic", "viewer", "vic#pw"), ("otto", "operator", "otto#pw")])
    proc, port = start(binary)
    try:
        # HTTPS only: plain HTTP gets no page.
        with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
            s.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
            try:
                answer = s.recv(4096)
            except (ConnectionResetError, socket.timeout):
                answer = b""
        check(b"HTTP/1.1 200" not in answer and b"<html" not in answer, "plain HTTP gets no page", answer[:80])
        conn = socket.create_connection(("127.0.0.1", port), timeout=10)
        with TLS.wrap_socket(conn) as t:
            check(t.version() in ("TLSv1.2", "TLSv1.3"), "TLS 1.2 or newer", t.version())

        r, _ = request(port, "GET", "/")
        check(r.status == 303 and r.getheader("Location") == "/login.html", "a page without a session: to login")
        r, _ = request(port, "GET", "/api/points")
        check(r.status == 401, "the API without a session: 401", r.status)
        check("default-src 'self'" in (r.getheader("Content-Security-Policy") or ""), "the CSP header")
        check(asyncio.run(refused_ws(port)), "the WebSocket without a session is refused")

        r, _ = login(port, "otto", "wrong")
        check(r.getheader("Location") == "/login.html?failed=1", "a wrong password fails", r.getheader("Location"))
        r, _ = login(port, "otto", "otto#pw")
        cookie = r.getheader("Set-Cookie") or ""
        check(r.status == 303 and re.match(r"zqsid=[0-9a-f]{64}; Path=/; HttpOnly; Secure; SameSite=Strict$",
                                           cookie), "login sets the session cookie with its flags", cookie)
        sid = cookie.split(";")[0].split("=")[1]
        jar = {"Cookie": "zqsid=" + sid}
        r, body = request(port, "GET", "/api/session", headers=jar)
        session = json.loads(body)
        check(session["user"] == "otto" and session["level"] == "operator" and len(session["csrf"]) == 64,
              "the session", session)

        cmd = json.dumps({"command": "io set inject"})
        r, _ = request(port, "POST", "/api/command", cmd, jar)
        check(r.status == 403, "a command without the CSRF token is refused", r.status)
        r, _ = request(port, "POST", "/api/command", cmd,
                       dict(jar, **{"X-CSRF-Token": session["csrf"], "Origin": "https://evil.example"}))
        check(r.status == 403, "a command from another origin is refused", r.status)
        r, body = request(port, "POST", "/api/command", cmd, dict(jar, **{"X-CSRF-Token": session["csrf"]}))
        check(r.status == 200 and json.loads(body)["result"] == 0, "an operator sets a bit", body)

        got, io = asyncio.run(samples(port, sid))
        times = [t for _, t, _ in got]
        gaps = [b - a for a, b in zip(times, times[1:])]
        check(len(got) >= 200 and all(name == "sensor" for name, _, _ in got), "live samples", len(got))
        check(sorted(gaps)[len(gaps) // 2] in range(900, 1100), "samples 1 ms apart at the source",
              sorted(gaps)[len(gaps) // 2])
        check(io is not None and io["bits"]["inject"] == 1, "the I/O bits", io)

        r, _ = login(port, "vic", "vic#pw")
        vsid = r.getheader("Set-Cookie").split(";")[0].split("=")[1]
        vjar = {"Cookie": "zqsid=" + vsid}
        vcsrf = json.loads(request(port, "GET", "/api/session", headers=vjar)[1])["csrf"]
        r, body = request(port, "POST", "/api/command", cmd, dict(vjar, **{"X-CSRF-Token": vcsrf}))
        check(json.loads(body)["result"] == 403, "a viewer may not set a bit", body)
        check(json.loads(request(port, "GET", "/api/io", headers=vjar)[1])["can_set"] is False,
              "a viewer's I/O page offers no switch")
        log = log_text(WORK, "station")
        check("audit: 127.0.0.1: io set inject (user otto, operator, result 0)" in log, "audit: the command")
        check("audit: 127.0.0.1: io set inject (user vic, viewer, result 403)" in log, "audit: the refusal")
        check("audit: 127.0.0.1: POST /api/command refused: no valid CSRF token or a foreign origin (user otto, "
              "operator, result 403)" in log, "audit: the CSRF refusal")

        for _ in range(3):
            r, _ = login(port, "otto", "wrong")
        r, _ = login(port, "otto", "otto#pw")
        check(r.getheader("Location") == "/login.html?locked=1", "locked out after failures",
              r.getheader("Location"))
    finally:
        stop(proc, check)
    no_secrets(check, WORK, ["vic#pw", "otto#pw"])
    shutil.rmtree(WORK, ignore_errors=True)
    print("station web smoke: %d checks passed" % check.count)


main()
