"""Starting the station for a bench: in a scratch folder, on a free port."""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time


def free_port():
    """A loopback port free at the moment (for a peer that cannot take port 0)."""
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def web_port(work):
    """The port of the station's "web port N" line (after start_station)."""
    for _ in range(100):
        m = re.search(r"web port (\d+)", open(os.path.join(work, "out.txt")).read())
        if m:
            return int(m.group(1))
        time.sleep(0.05)
    sys.exit("bench: the station serves no web page")


def start_station(binary, work, *args):
    """Starts `binary` in `work` with `args` (Server.ListenPort=0 added);
    (process, port) once it listens, or the script ends with its output."""
    out = open(os.path.join(work, "out.txt"), "w+")
    proc = subprocess.Popen([binary, "Server.ListenPort=0"] + list(args), cwd=work, stdin=subprocess.DEVNULL,
                            stdout=out, stderr=subprocess.STDOUT)
    for _ in range(600):
        m = re.search(r"tcp port (\d+)", open(out.name).read())
        if m:
            return proc, int(m.group(1))
        if proc.poll() is not None:
            break
        time.sleep(0.05)
    proc.kill()
    sys.exit("bench: the station did not start: " + open(out.name).read())


def stop_station(proc, work):
    """Ends the station with SIGTERM and removes its scratch folder."""
    proc.send_signal(signal.SIGTERM)
    proc.wait(timeout=30)
    shutil.rmtree(work, ignore_errors=True)
