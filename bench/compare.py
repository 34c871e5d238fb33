"""Measures the worker beside other FTP clients and writes the figures down. tools/bench calls it."""

import argparse
import filecmp
import json
import math
import os
import platform
import pwd
import random
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from picture import picture

MIB = 1 << 20
GIB = 1 << 30
PASSWORD = "secret"
DIGITS = {"wall": 2, "cpu": 1, "mib": 0}  # of the targets
FAR_MS = 20
PASSIVE_PORTS = 200
WINDOW_TARGETS = {"slower": 0.1, "delayMs": 100, "lastLineMs": 1000}
PATIENCE_SECONDS = 900
# Midnight, so that a listing that gives only the day gives it exactly.
FILE_TIME = 1714521600
CLIENTS = {"bare": "bare", "ours": "ours", "lftp": "lftp", "rclone": "rclone", "wget": "wget -m",
           "ncftp": "ncftpget"}
SOURCE = Path(__file__).resolve().parent.parent
PAGE = SOURCE / "docs/performance.md"
FIGURES = SOURCE / "docs/performance.json"
PICTURE = SOURCE / "docs/images/performance.svg"
BEGIN = "<!-- Written by tools/bench from here on, not by hand. -->"
END = "<!-- Down to here. -->"


class Row:
    """A piece of work: a tree, how it is served, and whether the mirror is there already."""

    def __init__(self, text, folders, files, size, targets, server="pure-ftpd", tls=False, there=False,
                 tree=None, excused=None):
        self.text = text
        self.folders = folders  # 0: the files lie in the tree's root
        self.files = files
        self.size = size
        self.targets = targets  # wall and CPU as ratios to the bare client, MiB
        self.server = server
        self.tls = tls
        self.there = there
        self.tree = tree
        self.excused = excused or {}  # clients that do not do this work, with the reason

    @property
    def bytes(self):
        return self.files * self.size


NO_TLS = {"ncftp": "no TLS"}


def all_rows(quick):
    def amount(full, small):
        return small if quick else full

    big, secured = amount(2 * GIB, 256 * MIB), amount(GIB, 128 * MIB)
    many, some = amount(5000, 300), amount(200, 20)
    same, folders, wide = amount(20000, 1000), amount(400, 20), amount(200000, 5000)

    def size_text(count):
        return f"{count // GIB} GiB" if count >= GIB else f"{count // MIB} MiB"

    return {
        "a": Row(f"one file of {size_text(big)}, plain", 0, 1, big, (1.15, 1.2, 20)),
        "b": Row(f"one file of {size_text(secured)}, FTPS", 0, 1, secured, (1.10, 1.2, 22), tls=True,
                 excused=NO_TLS),
        "c": Row(f"{many:,} files of 4 KiB, first mirror", 0, many, 4096, (2.2, 3.5, 20)),
        "d": Row(f"{same:,} files in {folders} folders, nothing to do", folders, same, 16, (1.9, 3, 20),
                 there=True),
        "e": Row(f"one folder of {wide:,} files, nothing to do", 0, wide, 16, (2.0, 3.5, 70), there=True),
        "f": Row(f"{some} files of 4 KiB, {FAR_MS} ms round trip", 0, some, 4096, (1.02, None, 20),
                 server="far"),
        "g": Row(f"{some} files of 4 KiB, FTPS", 0, some, 4096, (1.3, 2.5, 22), tls=True, tree="f",
                 excused=NO_TLS),
        "h": Row(f"vsftpd, LIST and one MDTM a file, {same:,} files, nothing to do", folders, same, 16,
                 (1.5, 2.5, 20), server="vsftpd", there=True, tree="d",
                 excused={"wget": "asks no times"}),
    }


# Trees


def make_tree(root, row):
    block = random.Random(1).randbytes(MIB)
    folders = [root / f"folder {i:04}" for i in range(row.folders)] or [root]
    for folder in folders:
        folder.mkdir(parents=True)
        folder.chmod(0o755)
        for i in range(row.files // len(folders)):
            path = folder / f"file {i:06}.bin"
            with open(path, "wb") as file:
                for start in range(0, row.size, MIB):
                    file.write(block[: min(MIB, row.size - start)])
                file.seek(0)
                file.write(path.name.encode()[: row.size])  # so that no two are alike
            os.utime(path, (FILE_TIME, FILE_TIME))
            path.chmod(0o644)
    for folder in {root, *folders}:
        folder.chmod(0o755)


def files_below(folder):
    for entry in os.scandir(folder):
        if entry.is_dir(follow_symlinks=False):
            yield from files_below(entry.path)
        elif entry.name != ".listing":  # which wget -m leaves in each folder
            yield entry


def is_like(entry, original):
    """Whether a mirrored file has the bytes and the time of the served one."""
    return (abs(entry.stat().st_mtime - FILE_TIME) < 1 and original.is_file() and
            filecmp.cmp(entry.path, original, shallow=False))


def fault_of(mirror, served, row, started):
    """What is wrong with a mirror; None if nothing is."""
    count, size, fresh = 0, 0, 0
    if mirror.is_dir():
        for entry in files_below(mirror):
            status = entry.stat(follow_symlinks=False)
            count += 1
            size += status.st_size
            fresh += status.st_ctime >= started
    if (count, size) != (row.files, row.bytes):
        return f"{count:,} files of {size:,} bytes instead of {row.files:,} of {row.bytes:,}"
    if row.there and fresh:
        return f"wrote {fresh:,} files again"
    if not row.there:
        filecmp.clear_cache()  # which believes size and time
        unlike = sum(not is_like(entry, served / Path(entry.path).relative_to(mirror))
                     for entry in files_below(mirror))
        if unlike:
            return f"{unlike:,} files differ from the served ones in bytes or time"
    return None


# Servers


def free_port():
    """One that the system gives to nobody who leaves the choice to it."""
    while True:
        with socket.socket() as probe:
            try:
                port = random.randrange(20000, 31000)
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue


class Process:
    """A helper that ends with this script, however that ends: its shell sees its input end."""

    def __init__(self, command, env=None, output=subprocess.DEVNULL):
        guard = '("$@"; kill 0) & read -r line; kill 0'
        self.process = subprocess.Popen(["/bin/sh", "-c", guard, "sh", *map(str, command)], env=env,
                                        stdin=subprocess.PIPE, stdout=output,
                                        stderr=subprocess.DEVNULL, start_new_session=True)

    def stop(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def await_greeting(address, port, name):
    for _ in range(200):
        try:
            with socket.create_connection((address, port), 5) as probe:
                if probe.recv(3) == b"220":
                    return
        except OSError:
            pass
        time.sleep(0.05)
    sys.exit(f"bench: {name} does not answer")


class Servers:
    """Started when first asked for. Each is an address, a port, a user, and its name for a tree."""

    def __init__(self, unpacked, shim, base, served):
        self.unpacked = unpacked
        self.base = base
        self.served = served
        self.running = {}
        self.processes = []
        self.env = dict(os.environ, LD_LIBRARY_PATH=str(unpacked / "libs"))
        if os.geteuid() != 0:  # pure-ftpd wants another user to become, and is told it has one
            self.env["LD_PRELOAD"] = str(shim)
        self.user = "nobody" if os.geteuid() == 0 else pwd.getpwuid(os.geteuid()).pw_name

    def get(self, kind):
        if kind not in self.running:
            start = {"pure-ftpd": self.pure_ftpd, "far": self.far, "vsftpd": self.vsftpd}[kind]
            self.running[kind] = start()
        return self.running[kind]

    def stop(self):
        for process in self.processes:
            process.stop()

    def start(self, command, **options):
        process = Process(command, **options)
        self.processes.append(process)
        return process

    def certificate(self):
        both = self.base / "both.pem"
        if not both.exists():
            key, cert = self.base / "key.pem", self.base / "cert.pem"
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                            "/CN=127.0.0.1", "-keyout", key, "-out", cert], check=True, capture_output=True)
            both.write_bytes(key.read_bytes() + cert.read_bytes())
            both.chmod(0o600)
        return both

    def pure_ftpd(self, port=None, options=()):
        port = port or free_port()
        users = self.base / "users"
        if not users.exists():
            digest = subprocess.run(["openssl", "passwd", "-6", "-stdin"], input=PASSWORD + "\n", text=True,
                                    check=True, capture_output=True).stdout.strip()
            owner = os.stat(self.served)
            identity = (65534, 65534) if os.geteuid() == 0 else (owner.st_uid, owner.st_gid)
            users.write_text(f"kim:{digest}:{identity[0]}:{identity[1]}::{self.served}::::::::::::\n")
            subprocess.run([self.unpacked / "usr/bin/pure-pw", "mkdb", self.base / "users.pdb", "-f", users],
                           env=self.env, check=True, capture_output=True)
        # No look-ups of names, nobody unknown, no log, and listings of any length.
        self.start([self.unpacked / "usr/sbin/pure-ftpd", "-S", f"127.0.0.1,{port}", "-H", "-E", "-f", "none",
                    "-u", "1", "-l", f"puredb:{self.base}/users.pdb", "-g", self.base / f"pid-{port}",
                    "-L", "1000000:10", "-Y", "1", "-2", self.certificate(), *options], env=self.env)
        await_greeting("127.0.0.1", port, "pure-ftpd")
        return "127.0.0.1", port, "kim"

    def far(self):
        port = free_port()
        first, last = port + 1, port + PASSIVE_PORTS
        self.pure_ftpd(port, ["-p", f"{first}:{last}", "-P", "127.0.0.2"])
        relay = self.start([sys.executable, SOURCE / "bench/relay.py", FAR_MS, port, last],
                           output=subprocess.PIPE)
        if relay.process.stdout.readline() != b"ready\n":
            sys.exit("bench: the relay does not run")
        return "127.0.0.2", port, "kim"

    def vsftpd(self):
        port = free_port()
        passwords, config = self.base / "passwords", self.base / "vsftpd.conf"
        passwords.write_text(PASSWORD + "\n")
        config.write_text(f"""listen=YES
listen_address=127.0.0.1
listen_port={port}
background=NO
run_as_launching_user=YES
ftp_username={self.user}
anonymous_enable=YES
local_enable=NO
anon_root={self.served}
anon_world_readable_only=NO
secure_email_list_enable=YES
email_password_file={passwords}
delay_failed_login=0
seccomp_sandbox=NO
xferlog_enable=NO
""")
        self.start([self.unpacked / "usr/sbin/vsftpd", config], env=self.env)
        await_greeting("127.0.0.1", port, "vsftpd")
        return "127.0.0.1", port, "ftp"


# Clients


def lftp_script(where, tls, remote, local):
    host, port, user = where
    security = ("set ftp:ssl-force yes; set ftp:ssl-protect-data yes; set ssl:verify-certificate no"
                if tls else "set ftp:ssl-allow no")
    return (f"set net:connection-limit 1; set net:max-retries 1; set net:timeout 60; {security}; "
            f"open -u {user},{PASSWORD} -p {port} {host}; mirror --parallel=1 {remote} {local}")


def command_of(client, build, where, tls, tree, served, local):
    """Makes the folder `local` equal to the served tree of that name."""
    host, port, user = where
    remote = f"{served}/{tree}"
    if client in ("ours", "bare"):
        program = {"ours": "bench_worker", "bare": "bare_client"}[client]
        security = "tls" if tls else "plain"
        return [build / "bench" / program, host, port, security, user, PASSWORD, remote, local]
    if client == "lftp":
        return ["lftp", "--norc", "-c", lftp_script(where, tls, remote, local)]
    if client == "rclone":
        return ["rclone", "copy", f"bench:{remote}", local, "--transfers", "1", "--checkers", "1",
                "--multi-thread-streams", "0"]
    if client == "wget":
        return ["wget", "-m", "-nv", "-nH", "--cut-dirs=1", "-P", local, "--no-check-certificate",
                "--tries=1", f"--user={user}", f"--password={PASSWORD}",
                f"{'ftps' if tls else 'ftp'}://{host}:{port}/{tree}/"]
    return ["ncftpget", "-R", "-V", "-t", "60", "-r", "0", "-u", user, "-p", PASSWORD, "-P", str(port), host,
            str(local.parent), remote]


def environment_of(home, where, tls):
    """The user's own settings are out of reach, and rclone is told by variables where to go."""
    host, port, user = where
    obscured = subprocess.run(["rclone", "obscure", PASSWORD], text=True, capture_output=True).stdout.strip()
    config = {"TYPE": "ftp", "HOST": host, "PORT": port, "USER": user, "PASS": obscured,
              "EXPLICIT_TLS": str(tls).lower(), "NO_CHECK_CERTIFICATE": "true"}
    return {"PATH": os.environ["PATH"], "HOME": str(home), "XDG_CONFIG_HOME": str(home), "TZ": "UTC",
            "LC_ALL": "C.UTF-8", "RCLONE_CONFIG": "/dev/null",
            **{f"RCLONE_CONFIG_BENCH_{key}": str(value) for key, value in config.items()}}


class Bench:
    def __init__(self, options, base):
        self.build = options.build.resolve()
        self.base = base
        self.served = base / "served"
        self.mirrors = base / "mirrors"
        self.home = base / "home"
        for folder in (self.served, self.mirrors, self.home):
            folder.mkdir()
            folder.chmod(0o755)
        self.home.chmod(0o700)
        shim = next(self.build.glob("tests/support/libkelpwharf_server_shim.*"), "")
        self.servers = Servers(options.servers.resolve(), shim, base, self.served)

    def measure(self, client, name, row):
        """One run: what it took, or why it counts as failed."""
        tree = row.tree or name
        local = self.mirrors / tree
        where = self.servers.get(row.server)
        command = command_of(client, self.build, where, row.tls, tree, self.served, local)
        if not row.there:
            shutil.rmtree(local, ignore_errors=True)
        report = self.base / "report.json"
        report.unlink(missing_ok=True)
        env = environment_of(self.home, where, row.tls)
        time.sleep(0.02)  # the clock of the file system is a coarse one
        started = time.time()
        with open(self.base / "output", "wb+") as output:
            process = subprocess.Popen([self.build / "bench/measured", report, *map(str, command)], env=env,
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                       start_new_session=True)
            try:
                status = process.wait(PATIENCE_SECONDS)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
                return {"failed": f"not done after {PATIENCE_SECONDS} s"}
            output.seek(0, os.SEEK_END)
            output.seek(max(0, output.tell() - 300))
            said = output.read().decode(errors="replace").strip()
        fault = fault_of(local, self.served / tree, row, started - 0.01)
        if fault:
            self.prepare(name, row, afresh=True)
        if status != 0:
            return {"failed": f"exit status {status}: {said}"}
        return {"failed": fault} if fault else json.loads(report.read_text())

    def prepare(self, name, row, afresh=False):
        served = self.served / (row.tree or name)
        local = self.mirrors / (row.tree or name)
        if not served.exists():
            make_tree(served, row)
        if afresh or not row.there:
            shutil.rmtree(local, ignore_errors=True)
        if row.there and not local.exists():
            shutil.copytree(served, local)

    def run_row(self, name, row, clients, runs):
        self.prepare(name, row)
        taking_part = [client for client in clients if client not in row.excused]
        samples = {client: [] for client in taking_part}
        failed = {}
        self.measure("bare", name, row)  # does not count: whoever comes first finds everything cold
        for run in range(runs):
            turn = run % max(len(taking_part), 1)
            for client in taking_part[turn:] + taking_part[:turn]:
                if client in failed:
                    continue
                sample = self.measure(client, name, row)
                if "failed" in sample:
                    failed[client] = sample["failed"]
                    print(f"bench: row {name}: {client} failed: {sample['failed']}", file=sys.stderr)
                else:
                    samples[client].append(sample)
        shutil.rmtree(self.mirrors, ignore_errors=True)
        self.mirrors.mkdir()
        outcome = {client: {"excused": reason} for client, reason in row.excused.items() if client in clients}
        for client in taking_part:
            outcome[client] = ({"failed": failed[client]} if client in failed else
                               {key: [sample[key] for sample in samples[client]]
                                for key in ("wall", "cpu", "mib")})
        return {"work": row.text, "targets": dict(zip(("wall", "cpu", "mib"), row.targets)),
                "clients": outcome}

    def run_window(self, files, rounds):
        """The whole program; its own program measures it."""
        env = environment_of(self.home, ("", "", ""), False)
        env.update(QT_QPA_PLATFORM="offscreen", TMPDIR=str(self.base), XDG_RUNTIME_DIR=str(self.home))
        command = [self.build / "tests/kelpwharf_load", "window", str(files), str(rounds)]
        done = subprocess.run(command, env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if done.returncode != 0:
            return {"failed": f"exit status {done.returncode}: {done.stderr[-300:].strip()}"}
        return json.loads(done.stdout)


# Figures


def median(row, client, key):
    values = row["clients"].get(client, {}).get(key)
    return statistics.median(values) if values else None


def ratio(row, client, key):
    value, bare = median(row, client, key), median(row, "bare", key)
    return value / bare if value is not None and bare else None


def target_text(row, key):
    target = row["targets"][key]
    return "-" if target is None else f"{target:.{DIGITS[key]}f}"


def cell(row, client, key):
    entry = row["clients"].get(client)
    if entry is None:
        return ""
    if "excused" in entry:
        return entry["excused"]
    if "failed" in entry:
        return "failed"
    value = median(row, client, key) if key == "mib" else ratio(row, client, key)
    if value is None:
        return "-"
    digits = 0 if value >= 100 else 1 if key == "mib" or value >= 10 else 2
    text = f"{value:.{digits}f}"
    target = row["targets"][key]
    return f"**{text}**" if client == "ours" and target is not None and round(value, 2) > target else text


def spread(row, client):
    """How far the wall times of one client lie apart, in hundredths of the middle one."""
    values = row["clients"].get(client, {}).get("wall")
    if not values or len(values) < 2:
        return ""
    return f"{100 * (max(values) - min(values)) / statistics.median(values):.0f} %"


def table(rows, key, clients):
    """As Markdown, and readable as it is."""
    others = [client for client in clients if client not in ("bare", "ours")]
    unit = {"wall": "bare, seconds", "cpu": "bare, CPU seconds", "mib": "bare"}[key]
    lines = [["work", unit, "ours", "target", *(CLIENTS[client] for client in others)]]
    if key == "wall":
        lines[0] += ["spread of bare", "of ours"]
    lines.append(["---", *["---:"] * (len(lines[0]) - 1)])
    for name, row in rows.items():
        bare = median(row, "bare", key)
        line = [f"{name}. {row['work']}", cell(row, "bare", key) if bare is None else
                f"{bare:.1f}" if key == "mib" else f"{bare:.3f}",
                cell(row, "ours", key), target_text(row, key),
                *(cell(row, client, key) for client in others)]
        lines.append(line + ([spread(row, "bare"), spread(row, "ours")] if key == "wall" else []))
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    return "\n".join("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths)) + " |"
                     for line in lines)


def window_table(window):
    if "failed" in window:
        return f"Failed: {window['failed']}"

    def against(value, target, text):
        return f"**{text}**" if value > target else text

    alone = statistics.median(window["alone"]["seconds"])
    lines = [f"| {window['files']:,} files of 4 KiB, first mirror | worker, seconds | "
             "longest time without an answer, ms | last line shown after the end, ms |",
             "| --- | ---: | ---: | ---: |",
             f"| no window | {alone:.3f} | | |"]
    for key, text, slowest in (("quiet", "window", WINDOW_TARGETS["slower"]),
                               ("verbose", "window that shows the protocol", math.inf)):
        part = window[key]
        seconds = statistics.median(part["seconds"])
        slower = seconds / alone - 1
        delay, last_line = max(part["delayMs"]), max(part["lastLineMs"])
        lines.append(f"| {text} | {seconds:.3f} ({against(slower, slowest, f'{100 * slower:+.0f} %')}) | "
                     f"{against(delay, WINDOW_TARGETS['delayMs'], str(delay))} | "
                     f"{against(last_line, WINDOW_TARGETS['lastLineMs'], str(last_line))} |")
    lines.append(f"| target | {100 * WINDOW_TARGETS['slower']:+.0f} % without the protocol | "
                 f"{WINDOW_TARGETS['delayMs']} | {WINDOW_TARGETS['lastLineMs']} |")
    return "\n".join(lines)


def output_of(*command):
    try:
        done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              stdin=subprocess.DEVNULL)
        return done.stdout if done.returncode == 0 else ""
    except OSError:
        return ""


def version(*command):
    """The first number with dots in what a program says."""
    found = re.search(r"\d+(\.\d+)+", output_of(*command))
    return found[0] if found else "?"


def versions(servers):
    def server(program, words):
        return version("env", f"LD_LIBRARY_PATH={servers}/libs", "sh", "-c",
                       f"{servers}/usr/sbin/{program} {words}")

    commit = output_of("git", "-C", str(SOURCE), "describe", "--always", "--dirty").strip()
    return {"Kelpwharf": commit or "?", "Qt": version("qmake6", "-query", "QT_VERSION"),
            "OpenSSL": version("openssl", "version"),
            "GCC": version("g++", "-dumpfullversion"), "lftp": version("lftp", "--version"),
            "rclone": version("rclone", "version"), "wget": version("wget", "--version"),
            "ncftp": version("dpkg-query", "--show", "--showformat=${Version}", "ncftp"),
            "pure-ftpd": server("pure-ftpd", "--help"), "vsftpd": server("vsftpd", "-v 0>&1")}


def system_field(path, key):
    for line in Path(path).read_text().splitlines():
        if line.startswith(key):
            return line.split(":", 1)[1].strip()
    return "?"


def memory_bytes(key):
    return int(system_field("/proc/meminfo", key).split()[0]) * 1024


def machine():
    system = platform.freedesktop_os_release().get("PRETTY_NAME", "?")
    return {"processor": system_field("/proc/cpuinfo", "model name"), "cores": os.cpu_count(),
            "memory": f"{memory_bytes('MemTotal') / GIB:.0f} GiB", "system": system,
            "kernel": platform.release()}


def was_busy(result):
    return result["load"][0] > result["machine"]["cores"] / 2


def runs_text(result):
    return "1 run" if result["runs"] == 1 else f"{result['runs']} runs"


def figures_text(result):
    rows, clients, m = result["rows"], result["clients"], result["machine"]
    about = (f"Measured on {result['date']} with `{result['command']}`, {runs_text(result)} of each; "
             f"load of the machine before {result['load'][0]:.1f}, after {result['load'][1]:.1f}.\n"
             f"Machine: {m['processor']}, {m['cores']} cores, {m['memory']}; {m['system']}, "
             f"Linux {m['kernel']}.\n"
             f"Versions: " + ", ".join(f"{name} {text}" for name, text in result["versions"].items()) + ".\n"
             f"The files lie in {result['where']}.")
    parts = [about]
    if was_busy(result):
        parts.append("The machine was busy with other things: **times of this measurement say little.**")
    for key, title in (("wall", "Time on the clock"), ("cpu", "CPU time"),
                       ("mib", "Peak memory, MiB")):
        if rows:
            suffix = "" if key == "mib" else ", as a multiple of the bare client's"
            parts += [f"### {title}{suffix}", table(rows, key, clients)]
    if "window" in result:
        parts += ["### With the window", window_table(result["window"])]
    failures = [f"- {name}, {CLIENTS[client]}: {' '.join(entry['failed'].split())}"
                for name, row in rows.items()
                for client, entry in row["clients"].items() if "failed" in entry]
    if failures:
        parts += ["### Failed", "\n".join(failures)]
    return "\n\n".join(parts)


def footnote(result):
    m = result["machine"]
    busy = "; the machine was busy, so this says little" if was_busy(result) else ""
    return (f"{result['date']}, {m['processor']}, {m['cores']} cores, {m['system']}; "
            f"median of {runs_text(result)}{busy}")


def write_page(result, text):
    FIGURES.write_text(json.dumps(result, indent=1) + "\n")
    PICTURE.parent.mkdir(exist_ok=True)
    PICTURE.write_text(picture(result, CLIENTS, ratio, footnote(result)))
    page = PAGE.read_text()
    head, rest = page.split(BEGIN, 1)
    tail = rest.split(END, 1)[1]
    PAGE.write_text(f"{head}{BEGIN}\n\n{text}\n\n{END}{tail}")


def arguments():
    parser = argparse.ArgumentParser(prog="tools/bench")
    parser.add_argument("--build", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--servers", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rows", default="")
    parser.add_argument("--only", default="")
    parser.add_argument("--runs", type=int)
    parser.add_argument("--no-page", action="store_true")
    options = parser.parse_args()
    known = set(all_rows(False))
    if unknown := set(filter(None, options.rows.split(","))) - known:
        parser.error(f"no row {', '.join(sorted(unknown))}")
    if unknown := set(filter(None, options.only.split(","))) - {*CLIENTS, "window"}:
        parser.error(f"no client {', '.join(sorted(unknown))}")
    options.runs = options.runs or (1 if options.quick else 5)
    return options


def workplace(needed):
    """A new folder in memory, if there is room, or else below the build folder."""
    memory = Path("/dev/shm")
    if memory.is_dir() and min(shutil.disk_usage(memory).free, memory_bytes("MemAvailable")) > needed:
        parent, where = memory, "memory (/dev/shm)"
    else:
        parent, where = SOURCE / "build", "the build folder"
    base = Path(tempfile.mkdtemp(prefix="kelpwharf-bench.", dir=parent))
    base.chmod(0o755)
    return base, where


def main():
    options = arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("bench: ended"))
    os.umask(0o022)
    chosen = set(filter(None, options.rows.split(",")))
    wanted = set(filter(None, options.only.split(",")))
    rows = {name: row for name, row in all_rows(options.quick).items() if not chosen or name in chosen}
    clients = [client for client in CLIENTS if not wanted or client in wanted]
    if not clients:
        rows = {}
    with_window = "window" in wanted if wanted else not chosen
    load_before = os.getloadavg()[0]
    base, where = workplace(GIB if options.quick else 7 * GIB)
    bench = Bench(options, base)
    result = {"date": time.strftime("%Y-%m-%d"),
              "command": " ".join(["tools/bench", *sys.argv[5:]]),
              "runs": options.runs, "where": where, "clients": clients, "machine": machine(),
              "versions": versions(options.servers.resolve()), "rows": {}}
    try:
        for name, row in rows.items():
            print(f"bench: {name}. {row.text}", file=sys.stderr)
            result["rows"][name] = bench.run_row(name, row, clients, options.runs)
        if with_window:
            print("bench: the whole program", file=sys.stderr)
            result["window"] = bench.run_window(500 if options.quick else 5000, options.runs)
    finally:
        bench.servers.stop()
        shutil.rmtree(base, ignore_errors=True)
    result["load"] = [load_before, os.getloadavg()[0]]
    text = figures_text(result)
    print(text)
    if not (options.quick or options.no_page or chosen or wanted):
        write_page(result, text)
    own = [row["clients"].get(client, {}) for row in result["rows"].values() for client in ("bare", "ours")]
    if any("failed" in entry for entry in [*own, result.get("window", {})]):
        sys.exit("bench: our own programs failed")


if __name__ == "__main__":
    main()
