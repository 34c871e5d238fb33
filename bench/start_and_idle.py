"""How long the program takes to show its window with 100 jobs, and what it takes while it waits.

start_and_idle.py PROGRAM RUNS

Prints medians. Needs Xvfb and xdotool; the settings are made up and lie in a temporary folder.
"""

import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

JOBS = 100
SETTLED_SECONDS = 5  # the window is painted, and what a start takes once is over
IDLE_SECONDS = 10


def write_settings(home):
    lines = ["[General]", "checkForUpdates=false", "runOnStart=true", "", "[jobs]", f"size={JOBS}"]
    for job in range(1, JOBS + 1):
        lines += [
            f"{job}\\name=Job {job}",
            f"{job}\\host=127.0.0.1",
            f"{job}\\port=9",
            f'{job}\\localDir="{home}/mirror {job}"',
            f"{job}\\enabled=true",
            f"{job}\\scheduleMode=0",
            f"{job}\\intervalMins=10000",
            f"{job}\\lastRun=2999-01-01T00:00:00",
        ]
    path = pathlib.Path(home, "config/Orrinvale/Kelpwharf.ini")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("\n".join(lines) + "\n")


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_mib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    raise RuntimeError("no VmRSS")


def one_run(program, home, display):
    write_settings(home)
    environment = {
        "HOME": home,
        "XDG_CONFIG_HOME": f"{home}/config",
        "DISPLAY": display,
        "QT_QPA_PLATFORM": "xcb",
        "PATH": os.environ["PATH"],
        "LANG": "C.UTF-8",
    }
    start = time.monotonic()
    process = subprocess.Popen([program], env=environment, stderr=subprocess.DEVNULL)
    try:
        search = ["xdotool", "search", "--onlyvisible", "--pid", str(process.pid), "--name", "^Kelpwharf$"]
        # Its own --sync would look but twice a second.
        while subprocess.run(search, env=environment, capture_output=True, timeout=20).returncode != 0:
            if process.poll() is not None or time.monotonic() - start > 20:
                raise RuntimeError("no window")
        shown = time.monotonic() - start
        time.sleep(SETTLED_SECONDS)
        before = cpu_seconds(process.pid)
        time.sleep(IDLE_SECONDS)
        idle = (cpu_seconds(process.pid) - before) / IDLE_SECONDS
        return shown * 1000, idle * 100, memory_mib(process.pid)
    finally:
        process.terminate()
        process.wait(10)


def main():
    program, runs = sys.argv[1], int(sys.argv[2])
    with tempfile.TemporaryDirectory() as home:
        read, write = os.pipe()
        server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
            pass_fds=[write],
            stderr=subprocess.DEVNULL,
        )
        try:
            display = ":" + os.read(read, 16).decode().strip()
            results = [one_run(program, home, display) for _ in range(runs)]
        finally:
            server.terminate()
            server.wait()
    shown, idle, memory = (statistics.median(column) for column in zip(*results))
    print(f"{JOBS} jobs, AUTO on, medians of {runs}:")
    print(f"  window shown after  {shown:6.0f} ms")
    print(f"  idle                {idle:6.2f} % of a core")
    print(f"  memory              {memory:6.1f} MiB")


main()
