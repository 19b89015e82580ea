"""Starting the station for a bench: in a scratch folder, on a free port."""
import os
import re
import shutil
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tests", "station"))
from station_client import free_port, start_in  # noqa: E402,F401 (free_port: for the benches)


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
    return start_in(work, [binary, "Server.ListenPort=0"] + list(args))


def stop_station(proc, work):
    """Ends the station with SIGTERM and removes its scratch folder."""
    proc.send_signal(signal.SIGTERM)
    proc.wait(timeout=30)
    shutil.rmtree(work, ignore_errors=True)
