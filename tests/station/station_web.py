#!/usr/bin/python3
"""The station's web page in a real browser (headless Chromium through Selenium).

    station_web.py STATION STATIONCTL STATION_SOURCE_DIR SHOTS_DIR

Starts the station with Web.Listen on a free loopback port, users vic
(viewer), otto (operator), ada (admin) and lena (to be locked out), and a
[Point.sensor] section whose description and guidance hold markup. Checks,
reading the page's elements and data, never pixels: logins and their
failures, the lock-out, a log line with markup on the admin's overview, the overview against `stationctl --json points`, the
trend's series growing with the points' acquisition times, the levels on the
alarms, I/O and settings pages, a viewer's forged `io set` refused and
audited, markup shown as text, cross-site posts refused, the cookie's flags,
plain HTTP on the HTTPS port. Saves a screenshot of each page into
$ZQ_WEB_SHOTS (default SHOTS_DIR) and, with ZQ_WEB_README_SHOT=1, the trend
page's into docs/web-trend.png. Exits 77 (skipped) without Chromium.
"""
import http.server
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from station_client import (Checks, add_users, ca_context, https, log_text, no_secrets, printed_port,  # noqa: E402
                            start_in, stop, web_login)
from station_client import eventually as wait  # noqa: E402

SKIP = 77
STATION, CTL, SOURCE = (os.path.abspath(a) for a in sys.argv[1:4])
SHOTS = os.path.abspath(os.environ.get("ZQ_WEB_SHOTS") or sys.argv[4])
README_SHOT = os.path.join(SOURCE, "..", "..", "docs", "web-trend.png")
PASSWORDS = {"vic": "vic-Web-1", "otto": "otto-Web-2", "ada": "ada-Web-3", "lena": "lena-Web-4"}
LEVELS = {"vic": "viewer", "otto": "operator", "ada": "admin", "lena": "operator"}
# Markup that would run or make an element if the page inserted it as HTML.
DESCRIPTION = '<script>window.zqXss=1</script>"><img src=x onerror="window.zqXss=2">'
GUIDANCE = '"><img src=x onerror=window.zqXss=3> <script>window.zqXss=4</script>'
COMMENT = '<script>window.zqXss=5</script>"><img src=x onerror=window.zqXss=6>'
HOSTILE_USER = '<script>window.zqXss=7</script>"><img src=x onerror=window.zqXss=8>'
CSP = ("default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
       "frame-ancestors 'none'; base-uri 'none'; form-action 'self'")
check = Checks()


def skip(why):
    print("SKIPPED: " + why)
    sys.exit(SKIP)


try:
    from selenium import webdriver
    from selenium.common.exceptions import WebDriverException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
except ImportError:
    skip("python3-selenium is not installed (scripts/deps.sh installs it)")
CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
if not CHROMIUM or not DRIVER:
    skip("chromium or chromium-driver is not installed (scripts/deps.sh installs them)")


def eventually(what, test, seconds=10):
    """test()'s first true answer within `seconds` (a browser error counts as not yet)."""
    value = wait(test, seconds, (WebDriverException, OSError, ValueError, KeyError, TypeError))
    check(value, what)
    return value


class Web:
    """HTTPS requests to the station, verified against the station's own CA."""

    def __init__(self, port, work):
        self.port = port
        self.ctx = ca_context(work)
        self.ctx.check_hostname = False  # the certificate names the host, the tests use the address

    def request(self, method, path, body=None, headers=None, sid=None):
        cookie = {"Cookie": "zqsid=" + sid} if sid else {}
        return https(self.port, self.ctx, method, path, body, dict(headers or {}, **cookie))

    def login(self, user, password):
        return web_login(self.port, self.ctx, user, password)

    def session(self, user):
        """(session id, CSRF token) of a fresh login of `user`."""
        r, _ = self.login(user, PASSWORDS[user])
        m = re.match(r"zqsid=([0-9a-f]{64})", r.getheader("Set-Cookie") or "")
        check(r.status == 303 and m, "a login of " + user, (r.status, r.getheaders()))
        _, data = self.request("GET", "/api/session", sid=m.group(1))
        return m.group(1), json.loads(data)["csrf"]

    def command(self, sid, line, headers):
        return self.request("POST", "/api/command", json.dumps({"command": line}),
                            dict({"Content-Type": "application/json"}, **headers), sid=sid)


def start_station(work):
    shutil.copy(os.path.join(SOURCE, "station.acl"), work)
    with open(os.path.join(work, "station.cfg"), "w") as f:
        f.write(open(os.path.join(SOURCE, "station.cfg")).read())
        f.write("\n[Web]\nListen = 127.0.0.1:0\n\n[Point.sensor]\nUnit = \u00b0C\nDescription = %s\n"
                "Guidance = %s\nDisplayLow = 0\nDisplayHigh = 160\nHiHi = 130\nHiHiSeverity = high\n"
                % (DESCRIPTION, GUIDANCE))
    add_users(STATION, work, [(user, level, PASSWORDS[user]) for user, level in LEVELS.items()])
    proc, port = start_in(work, [STATION, "-f", "station.cfg", "Server.ListenPort=0", "Login.FirstDelay=50",
                                 "Login.MaxDelay=100"], seconds=90)
    web = printed_port(work, "web")
    check(web, "the station starts with its web page", open(os.path.join(work, "out.txt")).read())
    return proc, port, web


def stationctl(work, port, *args):
    env = {"HOME": work, "PATH": os.environ.get("PATH", ""), "STATIONCTL_PASSWORD": PASSWORDS["ada"]}
    r = subprocess.run([CTL, "--port", str(port), "--ca", "tls/ca.pem", "--user", "ada", "--json"] + list(args),
                       cwd=work, env=env, capture_output=True, text=True, timeout=30)
    check(r.returncode == 0, "stationctl " + " ".join(args), r.stderr + r.stdout)
    return json.loads(r.stdout)["lines"]


def protocol(web, work):
    """What station.web_smoke does not check already: the exact security headers, a
    wrong token, the API not cached, refused posts leaving no trace."""
    r, _ = web.request("GET", "/login.html")
    check(r.status == 200 and r.getheader("Content-Security-Policy") == CSP
          and r.getheader("X-Content-Type-Options") == "nosniff" and r.getheader("Referrer-Policy") == "same-origin",
          "the login page with the security headers", r.getheaders())
    sid, csrf = web.session("ada")
    check(web.request("GET", "/api/status", sid=sid)[0].getheader("Cache-Control") == "no-store",
          "API answers are not cached")
    r, _ = web.command(sid, "config set Station.Setpoint 77", {"X-CSRF-Token": "0" * 64})
    check(r.status == 403, "a post with a wrong token is refused", r.status)
    check("Station.Setpoint = 40" in "".join(stationctl(work, STATION_PORT, "config", "show")),
          "the refused post changed nothing")
    # Lock-out: the same throttling as TCP logins, per address and user.
    answers = [web.login("lena", "wrong")[0].getheader("Location", "") for _ in range(5)]
    check(all(re.search(r"\?(failed|locked)=1$", a) for a in answers) and "failed=1" in answers[0],
          "wrong passwords fail", answers)


class Browser:
    def __init__(self, base):
        self.base = base
        options = webdriver.ChromeOptions()
        for a in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1280,900",
                  "--ignore-certificate-errors", "--disable-gpu"):
            options.add_argument(a)
        options.accept_insecure_certs = True  # the station's own CA is no system CA
        options.binary_location = CHROMIUM
        self.d = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.d.set_page_load_timeout(30)

    def js(self, script, *args):
        return self.d.execute_script(script, *args)

    def find(self, css):
        return self.d.find_elements(By.CSS_SELECTOR, css)

    def text(self, css="body"):
        return " ".join(e.text for e in self.find(css))

    def open(self, page, ready_css):
        self.d.get(self.base + "/" + page)
        eventually(page + " shows " + ready_css, lambda: self.find(ready_css))
        self.no_markup_ran(page)

    def no_markup_ran(self, where):
        check(self.js("return window.zqXss === undefined && !document.querySelector('img[src=\"x\"]')"),
              "no markup from the station ran or became an element on " + where)

    def login(self, user, password):
        self.d.get(self.base + "/login.html")
        eventually("the login form", lambda: self.find("#login-form"))
        for field, value in (("#user", user), ("#password", password)):
            self.find(field)[0].clear()
            self.find(field)[0].send_keys(value)
        self.find("#login-submit")[0].click()
        eventually("an answer to the login of " + user[:20],
                   lambda: not self.d.current_url.endswith("/login.html") and self.js(
                       "return document.readyState") == "complete")
        return self.d.current_url

    def logout(self):
        self.find("#logout")[0].click()
        eventually("logout leads to the login page", lambda: "/login.html" in self.d.current_url)

    def shot(self, name):
        os.makedirs(SHOTS, exist_ok=True)
        path = os.path.join(SHOTS, name + ".png")
        self.d.save_screenshot(path)
        return path


def parse_points(lines):
    """{name: (value, unit, quality, alarm)} from the `points` command's lines."""
    points = {}
    for line in lines:
        m = re.match(r"(\S+) = (\S+) (\S*), ([\w-]+), age [\d.]+ s, (.+)$", line)
        if m:
            points[m.group(1)] = (float(m.group(2)), m.group(3), m.group(4), m.group(5))
    return points


def viewer(b, work, log):
    url = b.login("vic", "wrong")
    check("failed=1" in url and b.text("#login-error"), "a failed login says so", url)
    url = b.login("lena", PASSWORDS["lena"])
    check("locked=1" in url and b.text("#login-error"), "five failures lock the user out", url)
    b.login("vic", PASSWORDS["vic"])
    b.open("index.html", "#points tr[data-point=sensor]")
    check("vic" in b.text("#whoami") and "viewer" in b.text("#whoami"), "whoami", b.text("#whoami"))
    ctl = parse_points(stationctl(work, STATION_PORT, "points"))
    page = {}
    for row in b.find("#points tr[data-point]"):
        cell = {c: row.find_element(By.CSS_SELECTOR, "." + c).text.strip() for c in ("value", "unit", "quality")}
        page[row.get_attribute("data-point")] = (float(re.match(r"-?[\d.]+", cell["value"]).group(0)),
                                                 cell["unit"], cell["quality"])
    check(set(page) == set(ctl), "the overview lists the points stationctl lists", (page, ctl))
    for name, (value, unit, quality, _) in ctl.items():
        check(page[name][1:] == (unit, quality), "unit and quality of " + name, (page[name], ctl[name]))
    # The sensor sweeps 20..52 every 4 s: the two readings agree within the sweep.
    check(15 < page["sensor"][0] < 55 and 15 < ctl["sensor"][0] < 55, "the sensor's value", (page, ctl))
    check(DESCRIPTION in b.text("#points"), "a point's description shown as text", b.text("#points"))
    b.open("io.html", "#io tr[data-bit]")
    check(not b.find("#io .set, #io .clear, #io .toggle"), "a viewer's I/O page has no switch")
    forged = b.d.execute_async_script("""
        const done = arguments[arguments.length - 1];
        fetch('/api/session').then(r => r.json()).then(s => fetch('/api/command', {method: 'POST',
            headers: {'Content-Type': 'application/json', 'X-CSRF-Token': s.csrf},
            body: JSON.stringify({command: 'io set inject'})})).then(r => r.json()).then(done, e => done(String(e)));""")
    check(isinstance(forged, dict) and forged.get("result") == 403, "a viewer's forged io set is refused", forged)
    eventually("the refusal is audited with user and level",
               lambda: re.search(r"audit: .*io set inject \(user vic, viewer, result", log()))
    b.open("alarms.html", "#alarms")
    check(not b.find("#alarms .ack, #alarms .shelve"), "a viewer's alarms page has no ack or shelve")
    b.open("settings.html", "#settings tr[data-setting]")
    check(not b.find("#settings .edit, #settings .apply") and not b.find("#save")[0].is_displayed(),
          "a viewer's settings page changes nothing")
    b.logout()


def trend(b):
    """The trend's series grows, stamped with the points' acquisition times."""
    b.open("trend.html", "#trend-plot")
    series = lambda: b.js("return window.zqTrend && window.zqTrend.series && window.zqTrend.series.sensor || []")
    b.js("const o = document.querySelector('#points-select option[value=sensor]');"
         "if (o && !o.selected) { o.selected = true; o.parentNode.dispatchEvent(new Event('change')); }")
    eventually("the sensor's samples in the trend", lambda: len(series()) > 10)
    first = series()
    time.sleep(1.5)
    second = series()
    stamps = [t for t, _ in second]
    check(len(second) > len(first) > 0, "the trend's series grows", (len(first), len(second)))
    check(all(b > a for a, b in zip(stamps, stamps[1:])), "acquisition times rise")
    check(abs(stamps[-1] / 1e6 - time.time()) < 10, "acquisition times are UTC microseconds", stamps[-1])
    gaps = [b - a for a, b in zip(stamps, stamps[1:])]
    whole = sum(1 for g in gaps if abs(g - 1000 * round(g / 1000)) <= 300 and g >= 700) / len(gaps)
    check(whole > 0.5, "samples 1 ms apart at the source (gaps of whole milliseconds)", gaps[:20])
    print("trend: %d samples of sensor, median gap %d us, %.0f%% of gaps whole ms +- 0.3 ms"
          % (len(second), sorted(gaps)[len(gaps) // 2], 100 * whole))


def operator(b, log):
    b.login("otto", PASSWORDS["otto"])
    b.open("io.html", "#io tr[data-bit=inject] .set")
    b.find("#io tr[data-bit=inject] .set")[0].click()
    eventually("the operator sets inject", lambda: b.text("#io tr[data-bit=inject] .state").strip() in ("1", "on"))
    b.open("alarms.html", "#alarms tr[data-alarm=sensor] .ack")
    check(GUIDANCE in b.text("#alarms") or GUIDANCE in b.text(), "the guidance shown as text")
    b.find("#comment")[0].send_keys(COMMENT)
    b.find("#alarms tr[data-alarm=sensor] .ack")[0].click()
    eventually("the acknowledgement is audited", lambda: re.search(r"audit: .*ack sensor .*user otto", log()))

    def in_journal():
        b.find("#journal-load")[0].click()
        time.sleep(0.3)
        return "otto" in b.text("#journal") and COMMENT in b.text("#journal")

    eventually("the acknowledgement with its comment in the journal, as text", in_journal)
    b.no_markup_ran("the alarms page with the journal")
    b.open("io.html", "#io tr[data-bit=inject] .clear")
    b.find("#io tr[data-bit=inject] .clear")[0].click()
    eventually("the operator clears inject", lambda: b.text("#io tr[data-bit=inject] .state").strip() in ("0", "off"))
    b.logout()


def admin(b):
    # A user name with markup cannot exist; its failed login reaches the log,
    # which the overview shows to admins.
    url = b.login(HOSTILE_USER, "x")
    check("failed=1" in url or "locked=1" in url, "a user name with markup fails", url)
    b.no_markup_ran("the login page")
    b.login("ada", PASSWORDS["ada"])
    b.open("index.html", "#points tr[data-point]")
    eventually("the log line with the user name shown as text", lambda: HOSTILE_USER in b.text("#log"))
    b.no_markup_ran("the overview with the log")
    cookie = [c for c in b.d.get_cookies() if c["name"] == "zqsid"]
    check(cookie and cookie[0]["httpOnly"] and cookie[0]["secure"] and cookie[0].get("sameSite") == "Strict",
          "the browser holds the cookie HttpOnly, Secure, SameSite=Strict", cookie)
    check(b.js("return document.cookie.indexOf('zqsid') < 0"), "scripts cannot read the session cookie")
    b.open("settings.html", "#settings tr[data-setting='Station.Setpoint'] .edit")
    row = "#settings tr[data-setting='Station.Setpoint'] "
    b.find(row + ".edit")[0].clear()
    b.find(row + ".edit")[0].send_keys("41.5")
    b.find(row + ".apply")[0].click()
    eventually("an admin changes a setting, with config set's answer",
               lambda: "Station.Setpoint = 41.5" in b.text("#settings-message"))
    for page, ready in (("index.html", "#points tr[data-point]"), ("alarms.html", "#journal"),
                        ("io.html", "#io tr[data-bit]"), ("settings.html", "#settings tr[data-setting]"),
                        ("downloads.html", "#dl-trace")):
        b.open(page, ready)
        b.shot(page[:-5])
    trend(b)
    time.sleep(8 if os.environ.get("ZQ_WEB_README_SHOT") == "1" else 1)  # two sweeps of the sensor for the README
    path = b.shot("trend")
    if os.environ.get("ZQ_WEB_README_SHOT") == "1":
        shutil.copy(path, README_SHOT)
        print("trend screenshot copied to docs/web-trend.png")


class Evil(http.server.BaseHTTPRequestHandler):
    """A second origin whose page posts a command to the station, as a
    cross-site form does (text/plain carries a JSON-looking body)."""
    target = ""

    def do_GET(self):
        page = ('<form id=f method=POST enctype="text/plain" action="%s/api/command">'
                '<input name=\'{"command": "config set Station.Setpoint 77", "x": "\' value=\'"}\'></form>'
                '<script>document.getElementById("f").submit()</script>' % self.target)
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(page.encode())

    def log_message(self, *args):
        pass


def cross_site(b, work):
    b.login("ada", PASSWORDS["ada"])
    Evil.target = b.base
    evil = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Evil)  # Chromium keeps idle sockets open
    threading.Thread(target=evil.serve_forever, daemon=True).start()
    try:
        b.d.get("http://127.0.0.1:%d/" % evil.server_address[1])
        time.sleep(1)
    finally:
        evil.shutdown()
    check("Station.Setpoint = 41.5" in "".join(stationctl(work, STATION_PORT, "config", "show")),
          "a cross-site form post changes nothing")


STATION_PORT = 0


def main():
    global STATION_PORT
    work = tempfile.mkdtemp(prefix="station-web-")
    proc, b = None, None
    t0 = time.time()
    try:
        proc, STATION_PORT, web_port = start_station(work)
        web = Web(web_port, work)
        eventually("the station serves HTTPS on Web.Listen", lambda: web.request("GET", "/login.html")[0].status)
        protocol(web, work)
        b = Browser("https://127.0.0.1:%d" % web_port)
        log = lambda: log_text(work)
        viewer(b, work, log)
        operator(b, log)
        admin(b)
        cross_site(b, work)
        check(proc.poll() is None, "the station lives")
        no_secrets(check, work, list(PASSWORDS.values()))
        print("station web: %d checks passed in %.1f s; screenshots in %s" % (check.count, time.time() - t0, SHOTS))
    finally:
        if b is not None:
            b.d.quit()
        stop(proc)
        shutil.rmtree(work, ignore_errors=True)


main()
