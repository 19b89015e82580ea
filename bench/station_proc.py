"""Starting the station for a bench: in a scratch folder, on a free port."""
import os
import re
import shutil
import signal
import subprocess
import sys
import time


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
