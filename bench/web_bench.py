#!/usr/bin/python3
"""The station's web page under 20 browsers' worth of WebSocket clients (not
part of CI).

    web_bench.py STATION [CLIENTS [SECONDS]]

Starts a Modbus TCP device (tests/devices/modbus_peer.py) and the station
polling ten of its registers every 50 ms as points bench.p0..p9 (ten points
at 20 updates/s), with Web.Listen on a free loopback port. CLIENTS (20)
WebSocket clients (python3-websockets), each with its own login, subscribe to
the ten points for SECONDS (10). Prints the latency from a sample's
acquisition time (t_us) to its arrival, p50 and p99 (goal p99 <= 100 ms),
the updates per point and second each client saw, the station's CPU with
and without the clients (/proc/PID/stat; the difference is the web side's,
goal <= 10% of a core), and the first page load in headless Chromium through
the Navigation Timing API (goal <= 1 s on loopback). Ends with SUMMARY lines
for bench/run.sh.
"""
import asyncio
import http.client
import json
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
import time
import urllib.parse

import websockets

from station_proc import free_port, start_station, stop_station, web_port

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
POINTS = ["bench.p%d" % i for i in range(10)]
PASSWORD = "bench-Web-1"
HZ = os.sysconf("SC_CLK_TCK")


def percentile(values, p):
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100.0 * (len(v) - 1))))] if v else float("nan")


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / HZ  # utime, stime


def cpu_share(pid, seconds):
    c, t = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - c) / (time.monotonic() - t)


def login(port, ctx, user):
    c = http.client.HTTPSConnection("127.0.0.1", port, context=ctx, timeout=30)
    c.request("POST", "/api/login", urllib.parse.urlencode({"user": user, "password": PASSWORD}),
              {"Content-Type": "application/x-www-form-urlencoded"})
    cookie = (c.getresponse().getheader("Set-Cookie") or "").split(";")[0]
    c.close()
    if not cookie.startswith("zqsid="):
        sys.exit("bench: the web login of %s failed" % user)
    return cookie


async def client(port, ctx, cookie, seconds, latencies, counts):
    async with websockets.connect("wss://127.0.0.1:%d/ws" % port, ssl=ctx, origin="https://127.0.0.1:%d" % port,
                                  extra_headers={"Cookie": cookie}, max_size=None) as ws:
        await ws.send(json.dumps({"subscribe": POINTS}))
        end = time.time() + seconds
        while time.time() < end:
            try:
                text = await asyncio.wait_for(ws.recv(), timeout=max(0.01, end - time.time()))
            except asyncio.TimeoutError:
                break
            now_us = time.time() * 1e6
            message = json.loads(text)
            if message.get("type") != "samples":
                continue
            for name, t_us, _ in message["samples"]:
                if name in counts:
                    latencies.append((now_us - t_us) / 1000.0)
                    counts[name] += 1


async def clients(port, ctx, cookies, seconds, latencies, counts):
    await asyncio.gather(*(client(port, ctx, c, seconds, latencies, counts) for c in cookies))


def page_load(port):
    """Milliseconds from navigation start to the load event of the overview,
    the first page after a login in a fresh headless Chromium; None without it."""
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        return None
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        return None
    options = webdriver.ChromeOptions()
    for a in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--ignore-certificate-errors"):
        options.add_argument(a)
    options.accept_insecure_certs = True
    d = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    try:
        base = "https://127.0.0.1:%d" % port
        d.get(base + "/login.html")
        d.find_element("id", "user").send_keys("u0")
        d.find_element("id", "password").send_keys(PASSWORD)
        d.find_element("id", "login-submit").click()
        for _ in range(100):
            if not d.current_url.endswith("login.html"):
                break
            time.sleep(0.05)
        times = []
        for page in ("index.html", "trend.html"):
            d.get(base + "/" + page)
            times.append(d.execute_script(
                "const n = performance.getEntriesByType('navigation')[0]; return n.loadEventEnd - n.startTime;"))
        return times
    finally:
        d.quit()


def summary(work, peer_text, goal, ours, unit, smaller_better=True):
    ratio = goal / ours if smaller_better else ours / goal
    print("SUMMARY|%s|goal|%s|%.1f %s|%.2f|>=1x goal|%s|loopback" % (work, peer_text, ours, unit, ratio,
                                                                      "met" if ratio >= 1 else "NOT MET"))


def main():
    station = os.path.abspath(sys.argv[1])
    n = int(sys.argv[2]) if len(sys.argv) > 2 else 20
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 10
    work = tempfile.mkdtemp(prefix="web-bench-")
    tcp = free_port()
    shutil.copy(os.path.join(ROOT, "apps/station/station.cfg"), work)
    open(os.path.join(work, "open.acl"), "w").write("[hosts]\nallow = 127.0.0.0/8\n")
    with open(os.path.join(work, "station.cfg"), "a") as f:
        f.write("\n[Device.bench]\nUrl = modbus-tcp://127.0.0.1:%d\nPeriodMs = 50\nTimeoutMs = 300\n" % tcp)
        f.write("".join("Point.p%d = holding %d u16 unit=m\n" % (i, i) for i in range(10)))
    users = ["u%d" % i for i in range(n)]
    for u in users:
        subprocess.run([station, "--passwd", u, "viewer"], cwd=work, input=PASSWORD.encode(), check=True,
                       capture_output=True, timeout=60)
    peer = subprocess.Popen(["/usr/bin/python3", os.path.join(ROOT, "tests/devices/modbus_peer.py"), "--tcp", str(tcp)],
                            stdin=subprocess.DEVNULL)
    proc = None
    try:
        time.sleep(1)  # the device listens
        proc, _ = start_station(station, work, "-f", "station.cfg", "Server.ACL=open.acl", "Web.Listen=127.0.0.1:0")
        web = web_port(work)
        ctx = ssl.create_default_context(cafile=os.path.join(work, "tls/ca.pem"))
        ctx.check_hostname = False
        cookies = [login(web, ctx, u) for u in users]
        time.sleep(1)
        idle = cpu_share(proc.pid, seconds)
        latencies, counts = [], {p: 0 for p in POINTS}
        c0, t0 = cpu_seconds(proc.pid), time.monotonic()
        asyncio.run(clients(web, ctx, cookies, seconds, latencies, counts))
        busy = (cpu_seconds(proc.pid) - c0) / (time.monotonic() - t0)
        loads = page_load(web)
        if not latencies:
            sys.exit("bench: no samples of %s arrived" % ", ".join(POINTS))
        rate = sum(counts.values()) / len(POINTS) / n / seconds
        p50, p99 = percentile(latencies, 50), percentile(latencies, 99)
        web_cpu = 100 * (busy - idle)
        print("web: %d WebSocket clients, %d points polled every 50 ms, %.0f s:" % (n, len(POINTS), seconds))
        print("  %.1f updates per point and second at each client, %d samples in all" % (rate, len(latencies)))
        print("  acquisition to arrival: p50 %.1f ms, p99 %.1f ms, max %.1f ms (goal p99 <= 100 ms)"
              % (p50, p99, max(latencies)))
        print("  station CPU: %.1f%% of a core without clients, %.1f%% with them: web side %.1f%% (goal <= 10%%)"
              % (100 * idle, 100 * busy, web_cpu))
        if loads:
            print("  first page load after the login (Navigation Timing): overview %.0f ms, trend %.0f ms "
                  "(goal <= 1 s)" % tuple(loads))
        else:
            print("  first page load: not measured (no Chromium or Selenium)")
        summary("web: %d WebSocket clients, acquisition to arrival p99" % n, "100 ms", 100.0, p99, "ms")
        summary("web: station CPU for %d clients (%% of a core)" % n, "10 %", 10.0, max(web_cpu, 0.1), "%")
        if loads:
            summary("web: first page load in Chromium", "1000 ms", 1000.0, loads[0], "ms")
    finally:
        if proc is not None:
            stop_station(proc, work)
        shutil.rmtree(work, ignore_errors=True)
        peer.terminate()
        peer.wait(timeout=10)


if __name__ == "__main__":
    main()
