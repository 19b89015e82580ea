#!/usr/bin/python3
"""The station with real equipment: a Modbus TCP device and a Modbus RTU device
(pymodbus, the RTU one on a socat pseudo-terminal pair) and the station's own
Modbus TCP server, read and written by mbpoll and pymodbus.

    station_devices.py STATION_BINARY STATION_SOURCE_DIR PEER_SCRIPT
"""
import json
import logging
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from station_client import (Checks, Line, eventually, free_port, log_text, modbus_request,  # noqa: E402
                            start_in)

from pymodbus.client import ModbusTcpClient  # noqa: E402

logging.disable(logging.CRITICAL)  # the client logs every refused connection

STATION, SOURCE, PEER = os.path.abspath(sys.argv[1]), sys.argv[2], os.path.abspath(sys.argv[3])
WORK = tempfile.mkdtemp(prefix="station-devices-")
check = Checks()
children = []


def spawn(args, **kw):
    p = subprocess.Popen(args, cwd=WORK, stdin=subprocess.DEVNULL, **kw)
    children.append(p)
    return p


def client_socket(port):
    try:
        socket.create_connection(("127.0.0.1", port), 0.2).close()
        return True
    except OSError:
        return False


def client(port):
    c = ModbusTcpClient("127.0.0.1", port=port, timeout=3)
    return c if c.connect() else None


CONFIG = """
[Device.tank]
Url = modbus-tcp://127.0.0.1:{tcp}
PeriodMs = 50
TimeoutMs = 300
Recovery = command
Point.level = holding 0 u16 scale=0.1 unit=m
Point.temp = holding 8 f32 dcba unit=degC
Bit.0 = coil 3 safe=0
Bit.1 = discrete 0

[Device.meter]
Url = modbus-rtu://{pty}?baud=19200&parity=N
Unit = 7
PeriodMs = 50
TimeoutMs = 300
BackoffMs = 100
Point.flow = input 0 scale=0.01 unit=m3/h

[Point.tank.temp]
Unit = degC
Hi = 20

[ModbusServer]
Listen = 127.0.0.1:{server}
WritableCoils = 64
WriteFrom = 127.0.0.1/32
"""


def main():
    shutil.copy(os.path.join(SOURCE, "station.cfg"), WORK)
    open(os.path.join(WORK, "open.acl"), "w").write("[hosts]\nallow = 127.0.0.1/32 127.0.0.2/32\n")
    tcp, server = free_port(), free_port()
    spawn(["/usr/bin/python3", PEER, "--tcp", str(tcp)])
    ours, theirs = os.path.join(WORK, "ours"), os.path.join(WORK, "theirs")
    spawn(["socat", "pty,raw,echo=0,link=" + ours, "pty,raw,echo=0,link=" + theirs], stderr=subprocess.DEVNULL)
    check(eventually(lambda: os.path.exists(ours) and os.path.exists(theirs)), "socat made the pty pair")
    spawn(["/usr/bin/python3", PEER, "--rtu", theirs, "19200"])
    check(eventually(lambda: client(tcp) is not None), "the TCP device answers")
    peer = client(tcp)
    with open(os.path.join(WORK, "station.cfg"), "a") as f:
        f.write(CONFIG.format(tcp=tcp, pty=ours, server=server))

    args = ["-f", "station.cfg", "Server.ListenPort=0", "Server.ACL=open.acl", "Station.UsersFile=none",
            "Server.RequireTLS=0"]
    mapped = subprocess.run([STATION, "--modbus-map"] + args, cwd=WORK, capture_output=True, text=True, timeout=30)
    check(mapped.returncode == 0, "station --modbus-map", mapped.stderr)
    check("coil       64\tbit   writable   output image bit 64" in mapped.stdout, "the map: the writable coil",
          mapped.stdout)
    check(re.search(r"input +0-1\tf32 +read-only +tank.level \[m\]", mapped.stdout), "the map: tank.level",
          mapped.stdout)
    check(re.search(r"input +4-5\tf32 +read-only +meter.flow \[m3/h\]", mapped.stdout), "the map: meter.flow")

    # An anonymous mosquitto for the station's MQTT samples, read by mosquitto_sub.
    broker = free_port()
    with open(os.path.join(WORK, "mosquitto.conf"), "w") as f:
        f.write(("user root\n" if os.geteuid() == 0 else "") + "allow_anonymous true\nlistener %d 127.0.0.1\n" % broker)
    spawn(["mosquitto", "-c", "mosquitto.conf"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    check(eventually(lambda: client_socket(broker)), "mosquitto listens")
    subscribed = open(os.path.join(WORK, "mqtt.txt"), "w")
    spawn(["mosquitto_sub", "-p", str(broker), "-t", "+/+/samples", "-W", "120"], stdout=subscribed,
          stderr=subprocess.DEVNULL)

    station, port = start_in(WORK, [STATION] + args + ["MQTT.Host=127.0.0.1", "MQTT.Port=%d" % broker,
                                                        "MQTT.Commands=off"], seconds=30)
    children.append(station)
    check(f"modbus port {server}" in open(os.path.join(WORK, "out.txt")).read(), "the Modbus server listens")
    ask = Line(port).ask
    check(eventually(lambda: "meter.flow = 5 m3/h" in ask("device")), "values with scale and units", ask("device"))
    listing = ask("device")
    check("tank.level = 123.4 m" in listing and "tank.temp = 21.5 degC" in listing, "TCP device values", listing)

    # The device values are in the MQTT samples, with units and acquisition times.
    def sampled():
        for line in open(subscribed.name).read().splitlines():
            for p in json.loads(line).get("points", []):
                if p["name"] == "tank.level" and p["quality"] == "good":
                    return p
        return None
    level = eventually(sampled) and sampled()
    check(level and level["value"] == 123.4 and level["unit"] == "m" and isinstance(level["time_us"], int)
          and abs(level["time_us"] / 1e6 - time.time()) < 60, "a device value in the MQTT samples", level)

    # The station's server, as mbpoll reads it at the addresses of the map.
    poll = subprocess.run(["mbpoll", "-m", "tcp", "-0", "-1", "-p", str(server), "-t", "3:float", "-B", "-r", "0",
                           "-c", "3", "127.0.0.1"], capture_output=True, text=True, timeout=30).stdout
    check("[0]: \t123.4" in poll and "[2]: \t21.5" in poll and "[4]: \t5\n" in poll, "mbpoll reads the values", poll[-300:])
    st = client(server)
    check(st is not None, "pymodbus connects to the station")
    bits = st.read_discrete_inputs(64, 2)
    check(not bits.isError() and bits.bits[1] is True, "the TCP device's discrete input in the image (bit 65)")
    # Writes: a read-only coil and any register are refused with an exception.
    r = st.write_coil(0, True)
    check(r.isError() and r.exception_code == 2, "a read-only coil: illegal data address", r)
    r = st.write_register(0, 1)
    check(r.isError() and r.exception_code == 2, "a register: illegal data address", r)
    # The writable coil drives the TCP device's coil 3 through the I/O image.
    check(not st.write_coil(64, True).isError(), "the writable coil is written")
    check(eventually(lambda: peer.read_coils(3, 1).bits[0] is True), "the device's coil follows")

    # The values are process points; [Point.tank.temp] gave one of them limits.
    points = ask("points")
    check(re.search(r"tank\.level = 123\.4 m, good", points) and re.search(r"meter\.flow = 5 m3/h, good", points)
          and "tank.fault = 0 , good" in points, "device values and faults are points", points)
    check(re.search(r"tank\.temp = 21\.5 degC, good, age [\d.]+ s, active-unacked \(HI medium\)", points),
          "a device value alarms at the limit its [Point] section declares", points)

    # The TCP device stops answering: fault, logged, a process alarm;
    # recovery by command writes the safe state first.
    tank = children[0]
    tank.send_signal(signal.SIGSTOP)
    check(eventually(lambda: "tank: FAULT" in ask("device")), "a silent device faults", ask("device"))
    check(eventually(lambda: re.search(r"tank\.level = 123\.4 m, device-fault", ask("points"))),
          "its values turn to device fault", ask("points"))
    check(re.search(r"tank\.fault = 1 , good, age [\d.]+ s, active-unacked \(HI high\)", ask("alarms")),
          "the fault is an alarm", ask("alarms"))
    check("meter.flow = 5 m3/h" in ask("device") and "meter.flow = 5 m3/h (device fault)" not in ask("device"),
          "the other device keeps its values")
    check(re.search(r"meter\.flow = 5 m3/h, good", ask("points")), "and its points stay good")
    tank.send_signal(signal.SIGCONT)
    check("recovery asked for" in ask("device recover tank"), "device recover tank")
    check(eventually(lambda: "tank: running" in ask("device")), "the device recovers", ask("device"))
    check(eventually(lambda: re.search(r"tank\.level = 123\.4 m, good", ask("points"))), "its values are good again")
    check(eventually(lambda: "tank.fault" not in ask("alarms")), "the fault alarm has cleared", ask("alarms"))
    history = ask("alarm-history")
    check(re.search(r"tank\.fault raise normal -> active-unacked, HI high, value 1\b", history)
          and re.search(r"tank\.fault clear active-unacked -> normal, normal", history),
          "the journal holds the fault and the recovery", history)
    check(eventually(lambda: peer.read_coils(3, 1).bits[0] is False), "the safe state was written")
    check("is not faulted" in ask("device recover tank"), "recover on a running device is refused")

    # A client outside WriteFrom may read but not write; one outside the
    # access list gets nothing at all.
    def raw(source, pdu):
        return modbus_request(server, pdu, source)
    read = bytes([4, 0, 0, 0, 2])
    write = bytes([5, 0, 64, 0xFF, 0])
    check(len(raw("127.0.0.2", read)) == 13, "a reader outside WriteFrom reads")
    check(raw("127.0.0.2", write)[7:] == bytes([0x85, 1]), "and its write gets illegal function")
    check(raw("127.0.0.3", read) == b"", "an address the access list refuses gets nothing")
    # A write flood: a few audit lines, the rest counted.
    for k in range(300):
        st.write_coil(64, k % 2 == 0)

    station.send_signal(signal.SIGTERM)
    check(station.wait(timeout=30) == 0, "SIGTERM ends the station with 0")
    log = log_text(WORK, "station")
    check("device tank fault" in log and "device tank recovered" in log, "fault and recovery are in the log",
          log[-2000:])
    # Every write request has its audit line with the client, the coil or
    # register, the value and the result; a flood does not flood the log.
    for line in ("modbus client 127.0.0.1: write coil 0 = 1: refused, read-only",
                 "modbus client 127.0.0.1: write register 0 = 1: refused, read-only",
                 "modbus client 127.0.0.1: write coil 64 = 1: accepted",
                 "modbus client 127.0.0.2: write coil 64 = 1: refused, writes not allowed from this address"):
        check(line in log, "audit: " + line, log[-2000:])
    flood = len(re.findall(r"modbus client 127\.0\.0\.1: write coil 64", log)) - 1
    unlogged = sum(int(n) for n in re.findall(r"audit: modbus: (\d+) more write requests not logged", log))
    check(flood < 100 and flood + unlogged == 300, "a write flood: %d lines, %d counted" % (flood, unlogged))
    print("station devices: %d checks passed" % check.count)


try:
    main()
finally:
    for p in reversed(children):
        if p.poll() is None:
            p.send_signal(signal.SIGCONT)
            p.terminate()
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                p.kill()
    shutil.rmtree(WORK, ignore_errors=True)
