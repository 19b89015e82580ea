#!/usr/bin/python3
"""The station in a fleet, against a real mosquitto on a free loopback port.

    fleet_broker_test.py STATION_BINARY STATION_SOURCE_DIR

The broker gets a generated configuration (password file, access list,
persistence, TLS listeners with a test CA, one requiring client
certificates); paho-mqtt subscribers check the
retained birth, the schema of every topic, a command round trip with
correlation data, refused requests, the will after kill -9, every sequence
number once across a broker restart, drops with a tiny queue, the metrics
(parsed with prometheus_client), a broker that never answers and a wrong CA.
A second, anonymous mosquitto (anyone may publish anything) carries signed
requests (MQTT.Commands = signed): unsigned, tampered, replayed, expired,
unknown-key, too-low and retained requests change nothing; answers go only
under the reply prefix; a signed operator request works. MQTT.Commands =
broker runs over TLS only, capped at MQTT.MaxLevel.
"""
import importlib.machinery
import glob
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from prometheus_client.parser import text_string_to_metric_families

STATION, SOURCE = sys.argv[1], sys.argv[2]
SLOW = 3 if os.environ.get("ZQ_SANITIZE") else 1  # sanitizer builds run slower
WORK = tempfile.mkdtemp(prefix="fleet-test-")
USERS = {"station": "st-pw", "viewer": "vw-pw", "watch": "wa-pw"}
TIME = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
SCHEMA = {"state": {"state"}, "samples": {"samples"}, "errors": {"record", "severity", "count"},
          "log": {"type", "text"},
          "status": {"cycles", "period_us", "cycle_min_us", "cycle_avg_us", "cycle_max_us", "overruns", "clients", "log",
                     "dropped", "queued"}}
procs = []
SIGNER = importlib.machinery.SourceFileLoader(
    "signer", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts", "zq-sign-command")
).load_module()


def fail(what, detail=""):
    for path in sorted(glob.glob(os.path.join(WORK, "*", "station*.log"))):
        sys.stderr.write("---- %s\n%s" % (path, open(path, errors="replace").read()[-2500:]))
    sys.exit("FAIL: %s %s" % (what, detail))


def check(ok, what, detail=""):
    if not ok:
        fail(what, detail)


def wait_for(done, seconds, step=0.05):
    end = time.time() + seconds * SLOW
    while time.time() < end:
        if done():
            return True
        time.sleep(step)
    return done()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def run(*args):
    subprocess.run(args, check=True, capture_output=True, cwd=WORK)


def make_certificates():
    """A test CA with a server certificate for 127.0.0.1, and a second, unrelated CA."""
    for ca in ("ca", "other-ca"):
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=" + ca,
            "-keyout", ca + ".key", "-out", ca + ".pem")
    run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-keyout", "server.key",
        "-out", "server.csr")
    with open(os.path.join(WORK, "san.ext"), "w") as f:
        f.write("subjectAltName=IP:127.0.0.1\n")
    run("openssl", "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
        "-days", "2", "-extfile", "san.ext", "-out", "server.pem")
    # The station's own certificate: its name is the broker user "station".
    run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=station", "-keyout", "client.key",
        "-out", "client.csr")
    run("openssl", "x509", "-req", "-in", "client.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
        "-days", "2", "-out", "client.pem")


class Broker:
    def __init__(self, anonymous=False):
        self.port, self.tls_port, self.mtls_port = free_port(), free_port(), free_port()
        self.conf = os.path.join(WORK, "mosquitto-anonymous.conf" if anonymous else "mosquitto.conf")
        self.proc = None
        if anonymous:
            with open(self.conf, "w") as f:
                f.write(("user root\n" if os.geteuid() == 0 else "") +
                        "allow_anonymous true\nlistener %d 127.0.0.1\n" % self.port)
            return
        pw = os.path.join(WORK, "passwords")
        open(pw, "w").close()
        for user, password in USERS.items():
            run("mosquitto_passwd", "-b", pw, user, password)
        with open(os.path.join(WORK, "acl"), "w") as f:
            f.write("user station\ntopic readwrite zq/#\ntopic write reply/#\n"
                    "user viewer\ntopic read zq/#\ntopic write zq/+/cmd/viewer\ntopic read reply/viewer/#\n"
                    "user watch\ntopic read zq/#\n")
        with open(self.conf, "w") as f:
            if os.geteuid() == 0:
                f.write("user root\n")  # root would switch to the mosquitto user, who cannot read WORK
            f.write("per_listener_settings false\nallow_anonymous false\npassword_file %s\nacl_file %s\n"
                    "persistence true\npersistence_location %s/\nautosave_interval 1\n"
                    "listener %d 127.0.0.1\nlistener %d 127.0.0.1\ncafile %s/ca.pem\ncertfile %s/server.pem\n"
                    "keyfile %s/server.key\n" % (pw, os.path.join(WORK, "acl"), WORK, self.port, self.tls_port,
                                                WORK, WORK, WORK))
            f.write("listener %d 127.0.0.1\ncafile %s/ca.pem\ncertfile %s/server.pem\nkeyfile %s/server.key\n"
                    "require_certificate true\nuse_identity_as_username true\n" % (self.mtls_port, WORK, WORK, WORK))

    def start(self):
        self.proc = subprocess.Popen(["mosquitto", "-c", self.conf], stdout=subprocess.DEVNULL,
                                     stderr=open(os.path.join(WORK, "mosquitto.log"), "a"))
        procs.append(self.proc)
        check(wait_for(lambda: self.listening(), 10), "mosquitto listens")

    def listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 0.2).close()
            return True
        except OSError:
            return False

    def stop(self):
        os.kill(self.proc.pid, signal.SIGTERM)
        self.proc.wait(20)


class Station:
    def __init__(self, name, *settings, users="none"):
        self.dir = os.path.join(WORK, name)
        os.makedirs(self.dir)
        for f in ("station.cfg", "station.acl"):
            shutil.copy(os.path.join(SOURCE, f), self.dir)
        with open(os.path.join(self.dir, "pw"), "w") as f:
            f.write(USERS["station"] + "\n")
        args = [STATION, "Server.ListenPort=0", "Station.UsersFile=" + users, "Server.RequireTLS=0",
                "MQTT.ClientId=" + name, "MQTT.User=station",
                "MQTT.PasswordFile=pw", "MQTT.KeepAlive=5"] + list(settings)
        self.proc = subprocess.Popen(args, cwd=self.dir, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)
        procs.append(self.proc)
        self.ports = {}
        expect = {"tcp"} | ({"metrics"} if any(a.startswith("Metrics.") for a in settings) else set())
        while not expect <= set(self.ports):
            line = self.proc.stdout.readline().decode(errors="replace")
            check(line, "the station starts", name)
            m = re.match(r"(tcp|metrics) port (\d+)", line)
            if m:
                self.ports[m.group(1)] = int(m.group(2))

    def log(self):
        return "".join(open(p, errors="replace").read() for p in sorted(glob.glob(self.dir + "/station*.log")))

    def ask(self, line):
        with socket.create_connection(("127.0.0.1", self.ports["tcp"]), 10 * SLOW) as s:
            s.sendall(line.encode() + b"\nexit\n")
            data = b""
            while not data.endswith(b"bye\r\n"):
                chunk = s.recv(65536)
                if not chunk:
                    break
                data += chunk
            return data.decode(errors="replace")

    def metrics(self):
        text = urllib.request.urlopen("http://127.0.0.1:%d/metrics" % self.ports["metrics"], timeout=10).read()
        return {f.name: f for f in text_string_to_metric_families(text.decode())}

    def stop(self, sig=signal.SIGTERM):
        os.kill(self.proc.pid, sig)
        rc = self.proc.wait(30)
        check(sig == signal.SIGKILL or rc == 0, "the station stops cleanly", rc)


CLIENTS = []  # every observer, so the end can look through all they received


class Client:
    """A paho MQTT 5 client that keeps every message it receives."""

    def __init__(self, user, port, topics=(), persistent=None):
        self.messages, self.lock = [], threading.Lock()
        CLIENTS.append(self)
        self.c = mqtt.Client(client_id=persistent or "", protocol=mqtt.MQTTv5)
        if user:
            self.c.username_pw_set(user, USERS[user])
        self.c.reconnect_delay_set(1, 2)
        self.topics = topics
        self.c.on_connect = lambda c, u, f, rc, p=None: [c.subscribe(t, qos=1) for t in self.topics]
        self.c.on_message = self.on_message
        props = None
        if persistent:
            props = Properties(PacketTypes.CONNECT)
            props.SessionExpiryInterval = 600
        self.c.connect("127.0.0.1", port, 30, clean_start=not persistent, properties=props)
        self.c.loop_start()

    def on_message(self, c, u, msg):
        with self.lock:
            self.messages.append(msg)

    def take(self, topic_end):
        with self.lock:
            return [m for m in self.messages if m.topic.endswith(topic_end)]

    def records(self, topic_end):
        return [json.loads(m.payload) for m in self.take(topic_end)]

    def close(self):
        self.c.loop_stop()
        self.c.disconnect()


def check_schema(client, station):
    for topic, keys in SCHEMA.items():
        recs = client.records("/" + topic)
        check(recs, "records on " + topic)
        for r in recs:
            check(r["station"] == station and TIME.match(r["time"]) and isinstance(r["seq"], int),
                  "the envelope on " + topic, r)
            check(keys <= set(r), "the fields of " + topic, r)
        if topic == "samples":
            r = recs[-1]
            times = [item[3] for item in r["samples"]]
            check(r["columns"] == ["cycle", "sensor", "io", "time_us"] and r["units"][1] == "\u00b0C",
                  "samples name their columns and units", r)
            check(all(isinstance(t, int) for t in times) and times == sorted(times)
                  and abs(times[-1] / 1e6 - time.time()) < 60, "samples carry exact acquisition times", times[:5])
        if topic != "state":
            seqs = [r["seq"] for r in recs]
            check(seqs == list(range(seqs[0], seqs[0] + len(seqs))), "consecutive numbers on " + topic, seqs)


def publish(client, station, user, payload, corr, reply=None, retain=False):
    props = Properties(PacketTypes.PUBLISH)
    props.ResponseTopic = reply or "reply/%s/%s" % (user, corr.hex())
    props.CorrelationData = corr
    client.c.publish("zq/%s/cmd/%s" % (station, user), payload, qos=1, retain=retain,
                     properties=props).wait_for_publish(10)


def request(client, station, user, payload, corr):
    publish(client, station, user, payload, corr)
    check(wait_for(lambda: client.take("/" + corr.hex()), 10), "an answer to", payload[:60])
    answer = client.take("/" + corr.hex())[0]
    check(answer.properties.CorrelationData == corr, "the correlation data returned", answer.properties)
    return json.loads(answer.payload)


def station_cli(*args, stdin=""):
    return subprocess.run([STATION] + list(args), cwd=WORK, input=stdin.encode(), capture_output=True, timeout=60)


def signed_commands():
    """MQTT.Commands = signed on an anonymous broker, where anyone may publish anything."""
    broker = Broker(anonymous=True)
    broker.start()
    keys = {}
    for name, level in (("alice", "operator"), ("vic", "viewer"), ("adm", "admin"), ("mallory", None)):
        run("openssl", "genpkey", "-algorithm", "ed25519", "-out", name + ".key")
        run("openssl", "pkey", "-in", name + ".key", "-pubout", "-out", name + ".pub")
        with open(os.path.join(WORK, name + ".key"), "rb") as f:
            keys[name] = SIGNER.serialization.load_pem_private_key(f.read(), None)
        if level:
            done = station_cli("Station.UsersFile=users", "--passwd", name, level, stdin="pw-" + name + "\n")
            check(done.returncode == 0, "--passwd", done.stderr)
            done = station_cli("Station.UsersFile=users", "--add-command-key", name, name + ".pub")
            check(done.returncode == 0 and b"added to users.keys" in done.stdout, "--add-command-key", done)
    check(os.stat(os.path.join(WORK, "users.keys")).st_mode & 0o777 == 0o600, "the keys file is private")
    done = station_cli("--add-command-key", "bob", "ca.pem")
    check(done.returncode != 0 and b"not an Ed25519 public key" in done.stderr, "a wrong key file refused", done)

    def signed(user, line, key=None, **kw):
        return json.dumps(SIGNER.sign(keys[key or user], user, "s7", line, **kw))

    def stamp(offset):
        return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + offset))

    anyone = Client(None, broker.port, ["reply/#", "zq/+/cmd/#", "zq/s7/state"])
    time.sleep(0.3)
    # A retained request published before the station starts is never run.
    publish(anyone, "s7", "adm", signed("adm", "config set Station.Setpoint 78"), b"retained", retain=True)
    users = os.path.join(WORK, "users")
    s7 = Station("s7", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.port, "MQTT.Commands=signed", users=users)
    check(wait_for(lambda: anyone.take("/state"), 10), "s7 online")
    time.sleep(1)
    check(not anyone.take("/" + b"retained".hex()), "a retained request not run")

    ok = signed("alice", "io set inject")
    answer = request(anyone, "s7", "alice", ok, b"inject")
    check(answer["result"] == 0 and "io set 4 by mqtt:alice" in s7.log(), "a signed operator request works",
          answer)
    # The injected reading's alarm: a viewer may not acknowledge or shelve it, an
    # operator may; the journal names the request's user.
    for line in ("ack all", "shelve sensor 5"):
        answer = request(anyone, "s7", "vic", signed("vic", line), line.encode())
        check(answer["result"] == 403, "a viewer's MQTT " + line + " refused", answer)
    answer = request(anyone, "s7", "alice", signed("alice", "ack sensor seen over mqtt"), b"ack")
    check(answer["result"] == 0 and "1 alarm acknowledged" in answer["output"], "ack through MQTT", answer)
    answer = request(anyone, "s7", "alice", signed("alice", "shelve sensor 5 mqtt shelving"), b"shelve")
    check(answer["result"] == 0 and "shelved until" in answer["output"], "shelve through MQTT", answer)
    history = request(anyone, "s7", "vic", signed("vic", "alarm-history 10m"), b"history")["output"]
    check(re.search(r"sensor ack active-unacked -> active-acked.* by \S*alice: seen over mqtt", history)
          and re.search(r"sensor shelve .* by \S*alice: mqtt shelving", history), "the journal names alice", history)
    tampered = json.loads(signed("adm", "config show"))
    tampered["cmd"] = "config set Station.Setpoint 77"
    bad = [("unsigned", json.dumps({"cmd": "config set Station.Setpoint 77", "station": "s7"}), 401),
           ("tampered", json.dumps(tampered), 401),
           ("replayed", ok, 401),
           ("expired", signed("adm", "config set Station.Setpoint 77", stamp=stamp(-120)), 401),
           ("unknown key", signed("adm", "config set Station.Setpoint 77", key="mallory"), 401),
           ("unregistered", signed("mallory", "config set Station.Setpoint 77"), 401),
           ("viewer", signed("vic", "config set Station.Setpoint 77"), 403),
           ("operator", signed("alice", "config set Station.Setpoint 77"), 403),
           ("oversized", json.dumps({"cmd": "status", "pad": "x" * 5000}), 400)]
    for what, payload, code in bad:
        answer = request(anyone, "s7", "adm", payload, what.encode())
        check(answer["result"] == code and "output" not in answer, "refused: " + what, answer)
    # An answer aimed at another station's command topic is not sent, nor the request run.
    publish(anyone, "s7", "adm", signed("adm", "config set Station.Setpoint 79"), b"hijack", reply="zq/s8/cmd/x")
    # A packet over the Maximum Packet Size the station asked for never reaches it.
    publish(anyone, "s7", "adm", json.dumps({"cmd": "status", "pad": "x" * 100000}), b"huge")
    # Control characters of a command line reach the log escaped.
    answer = request(anyone, "s7", "alice", signed("alice", "nosuch \x1b[2J\x07"), b"esc")
    check(answer["result"] == 127, "an unknown command answered", answer)
    time.sleep(1)
    check(not anyone.take("zq/s8/cmd/x") and not anyone.take("/" + b"huge".hex()), "no answer off the reply prefix")
    shown = request(anyone, "s7", "adm", signed("adm", "config show"), b"show")["output"]
    check("Station.Setpoint = 40\r\n" in shown, "nothing changed", shown)
    log = s7.log()
    check("\x1b" not in log and "\x07" not in log and "nosuch \\x1b[2J\\x07" in log, "escaped in the log")
    check("payload of 100" not in log, "the huge packet never arrived")
    check(log.count("MQTT request from adm refused") == 1, "refusals logged once a minute per sender",
          log.count("MQTT request from adm refused"))
    s7.stop()
    anyone.c.publish("zq/s7/cmd/adm", b"", qos=1, retain=True).wait_for_publish(10)
    anyone.close()

    # broker mode trusts the broker, so only over TLS with a login.
    done = subprocess.run([STATION, "Server.ListenPort=0", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.port,
                           "MQTT.Commands=broker"], cwd=s7.dir, stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=30)
    check(done.returncode != 0 and b"MQTT.CAFile" in done.stderr, "broker mode without TLS refused", done.stderr)
    broker.stop()


def main():
    make_certificates()
    broker = Broker()
    broker.start()

    # Birth, schema, commands, metrics and the will.
    s1 = Station("s1", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.port, "MQTT.StatusPeriod=1",
                 "Station.HighLimit=22", "Metrics.Listen=127.0.0.1:0", "Station.OverrunPolicy=count")
    watch = Client("watch", broker.port, ["zq/s1/#"])
    check(wait_for(lambda: watch.take("/state"), 10), "the birth")
    late = Client("watch", broker.port, ["zq/s1/state"])
    check(wait_for(lambda: late.take("/state"), 10), "the retained birth")
    late.close()
    birth = late.take("/state")[0]
    check(birth.retain and json.loads(birth.payload)["state"] == "online", "a retained online birth", birth.payload)
    check({"version", "start", "settings"} <= set(json.loads(birth.payload)), "the birth's fields", birth.payload)
    check(wait_for(lambda: len(watch.take("/status")) >= 2 and watch.take("/errors"), 10), "status and errors")
    check_schema(watch, "s1")
    overrun = watch.records("/status")[-1].get("overrun")
    check(overrun and overrun["policy"] == "count" and isinstance(overrun["trips"], int)
          and overrun["outputs_held"] is False, "with a policy set, the status has its state", overrun)
    # MQTT.Commands is off unless set: nothing subscribed, nothing answered.
    viewer = Client("viewer", broker.port, ["reply/viewer/#"])
    time.sleep(0.3)
    publish(viewer, "s1", "viewer", json.dumps({"cmd": "status"}), b"off")
    time.sleep(1.5)
    check(not viewer.take("/" + b"off".hex()), "no answer with commands off")
    check(s1.log().count("MQTT.Commands = off") == 1, "commands off said once in the log")
    m = s1.metrics()
    buckets = [s for s in m["zq_cycle_lateness_seconds"].samples if s.name.endswith("_bucket")]
    check(len(buckets) == 17 and buckets[-1].labels["le"] == "+Inf", "the lateness histogram", buckets)
    check(m["zq_mqtt_connected"].samples[0].value == 1, "connected in the metrics")
    check(any(s.labels == {"point": "sensor", "unit": "\u00b0C"} for s in m["zq_point_value"].samples)
          and "zq_point_alarm_state" in m and m["zq_build_info"].samples[0].value == 1, "point gauges and build_info")
    check(m["process_cpu_seconds"].samples[0].value > 0, "process metrics")
    check(any(s.labels.get("type") == "warning" and s.value > 0 for s in m["zq_log_entries"].samples),
          "log entries by type")
    s1.stop(signal.SIGKILL)
    check(wait_for(lambda: json.loads(watch.take("/state")[-1].payload)["state"] == "offline", 10),
          "offline after kill -9")
    watch.close()
    viewer.close()
    signed_commands()

    # MQTT.Commands = broker: over TLS with a login, the topic's user at its
    # level from the users file (here admin), never above MQTT.MaxLevel.
    done = station_cli("Station.UsersFile=broker-users", "--passwd", "viewer", "admin", stdin="pw-v\n")
    check(done.returncode == 0, "--passwd", done.stderr)
    s9 = Station("s9", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.tls_port, "MQTT.CAFile=%s/ca.pem" % WORK,
                 "MQTT.Commands=broker", "MQTT.MaxLevel=operator", users=os.path.join(WORK, "broker-users"))
    viewer = Client("viewer", broker.port, ["reply/viewer/#", "zq/s9/state"])
    check(wait_for(lambda: viewer.take("/state"), 10), "s9 online over TLS")
    answer = request(viewer, "s9", "viewer", json.dumps({"cmd": "io set inject"}), b"b-io")
    check(answer["result"] == 0, "broker mode: an operator command", answer)
    answer = request(viewer, "s9", "viewer", json.dumps({"cmd": "config set Station.Setpoint 77"}), b"b-cfg")
    check(answer["result"] == 403, "broker mode: capped at MQTT.MaxLevel", answer)
    s9.stop()
    viewer.close()

    # A broker restart: a persistent QoS 1 subscriber sees every number once.
    persist = Client("watch", broker.port, ["zq/s2/samples", "zq/s2/status"], persistent="persist")
    time.sleep(0.5)
    s2 = Station("s2", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.port, "MQTT.StatusPeriod=1",
                 "MQTT.QueueDir=queue")
    time.sleep(1.5)
    broker.stop()
    time.sleep(2)
    broker.start()
    # Back-off doubles from 1 s: the link is back within about 4 s.
    check(wait_for(lambda: len(persist.take("/status")) >= 6, 15), "status after the restart")
    s2.stop()
    time.sleep(1)
    for topic in ("samples", "status"):
        # Every number arrives; a second copy only as the broker's own
        # redelivery (DUP set), which QoS 1 permits across its restart.
        msgs = [(json.loads(m.payload)["seq"], m.dup) for m in persist.take("/" + topic)]
        seqs = sorted({n for n, _ in msgs})
        fresh = sorted(n for n, dup in msgs if not dup)
        check(seqs and seqs == list(range(seqs[-1] + 1)) and len(fresh) == len(set(fresh)),
              "every %s number once" % topic, "%d distinct, max %s, sent twice %s" % (
                  len(seqs), seqs[-1] if seqs else None, [n for n in set(fresh) if fresh.count(n) > 1]))
        print("%s: %d records across the broker restart, each once (%d redelivered by the broker)"
              % (topic, len(seqs), len(msgs) - len(fresh)))
    persist.close()

    # A tiny queue while the broker is away: the drops are counted and reported.
    dead = free_port()
    s3 = Station("s3", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % dead, "MQTT.QueueLimit=1024",
                 "MQTT.StatusPeriod=1", "MQTT.LogMask=31", "MQTT.QueueDir=queue", "Metrics.Listen=127.0.0.1:0")
    check(wait_for(lambda: s3.metrics()["zq_mqtt_dropped"].samples[0].value > 0, 10, 0.5), "drops counted")
    # Idle connections hold no worker a scrape needs.
    idle = [socket.create_connection(("127.0.0.1", s3.ports["metrics"]), 5) for _ in range(8)]
    for _ in range(20):
        s3.ask("status")  # log lines, published at LogMask 31
    check(s3.metrics()["zq_mqtt_connected"].samples[0].value == 0, "a scrape beside idle connections")
    for c in idle:
        c.close()
    size = os.path.getsize(os.path.join(s3.dir, "queue", "s3.queue"))
    check(size < 3 * 65536, "the queue file stays bounded while the broker is away", size)
    s3.stop()

    # A peer that accepts and never answers CONNECT, and a broker with another CA.
    silent = socket.socket()
    silent.bind(("127.0.0.1", 0))
    silent.listen(8)
    s4 = Station("s4", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % silent.getsockname()[1])
    s5 = Station("s5", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.tls_port, "MQTT.CAFile=%s/other-ca.pem" % WORK)
    s6 = Station("s6", "MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker.mtls_port, "MQTT.CAFile=%s/ca.pem" % WORK,
                 "MQTT.CertificateFile=%s/client.pem" % WORK, "MQTT.KeyFile=%s/client.key" % WORK)
    tls = Client("watch", broker.port, ["zq/s6/state"])
    check(wait_for(lambda: tls.take("/state"), 10), "a birth over TLS with the station's certificate")
    time.sleep(3)
    for st in (s4, s5):
        text = st.ask("status")
        check("cycles" in text, "the station answers while its broker does not", text)
        overruns = int(re.search(r"(\d+) overruns", text).group(1))
        cycles = int(re.search(r"cycles (\d+)", text).group(1))
        check(overruns < cycles / 20 + 20, "the task stays on time", text)
    check(s5.log().count("MQTT:") == 1, "the TLS failure logged once", s5.log().count("MQTT:"))
    # No CONNACK: libmosquitto gives up after the keep-alive (5 s) and says so.
    check(wait_for(lambda: "MQTT:" in s4.log(), 10), "the silent broker logged")
    check(s4.log().count("MQTT:") == 1, "the silent broker logged once", s4.log().count("MQTT:"))
    for st in (s4, s5, s6):
        st.stop()
    tls.close()
    silent.close()
    broker.stop()
    # No password the test used in any MQTT record received (log, status,
    # answers) nor in any file the stations wrote; password files aside.
    secrets = [p for p in USERS.values()] + ["pw-" + n for n in ("alice", "vic", "adm")] + ["pw-v"]
    for client in CLIENTS:
        with client.lock:
            payloads = [m.payload for m in client.messages]
        for payload in payloads:
            for secret in secrets:
                check(secret.encode() not in payload, "no password in an MQTT record", secret)
    for root, _, names in os.walk(WORK):
        for name in names:
            path = os.path.join(root, name)
            if name in ("passwords", "pw") or name.endswith("users") or not os.path.isfile(path):
                continue
            data = open(path, "rb").read()
            for secret in secrets:
                check(secret.encode() not in data, "no password in " + path, secret)
    print("fleet broker test passed")


try:
    main()
finally:
    for p in procs:
        if p.poll() is None:
            p.kill()
            p.wait()
    if not os.environ.get("FLEET_KEEP"): shutil.rmtree(WORK, ignore_errors=True)
