"""Starting the station for a bench: in a scratch folder, on a free port."""
import os
import shutil
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tests", "station"))
from station_client import free_port, printed_port, start_in, stop  # noqa: E402,F401 (free_port: for the benches)


def web_port(work):
    """The port of the station's "web port N" line (after start_station)."""
    return printed_port(work, "web") or sys.exit("bench: the station serves no web page")


def start_station(binary, work, *args):
    """Starts `binary` in `work` with `args` (Server.ListenPort=0 added);
    (process, port) once it listens, or the script ends with its output."""
    return start_in(work, [binary, "Server.ListenPort=0"] + list(args))


def stop_station(proc, work):
    """Ends the station with SIGTERM and removes its scratch folder."""
    stop(proc)
    shutil.rmtree(work, ignore_errors=True)
