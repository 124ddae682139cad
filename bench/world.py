"""What the measurements over the network share: a service with files, a client with its drive, and the link between."""
import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import sqlite3
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/bench").resolve()
USER, PASSWORD = "bench@example.org", "a measurement"
MIB = 1 << 20
ROUND_TRIP, MEGABITS = 20, 200


def wait_until(what, condition, seconds=60):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise SystemExit(f"gave up waiting for {what}")
        time.sleep(0.02)


class Lines:
    """The lines that a program writes, read as they come so that it never waits."""

    def __init__(self, stream):
        self.lines = []
        threading.Thread(target=lambda: self.lines.extend(stream), daemon=True).start()

    def count(self, text):
        return sum(text in line for line in list(self.lines))

    def first(self, pattern):
        wait_until(pattern, lambda: any(re.search(pattern, line) for line in list(self.lines)))
        return next(found for found in (re.search(pattern, line) for line in self.lines) if found)


class Usage:
    """Processor time of a program, and its memory at most, from here on."""

    def __init__(self, process):
        self.process = process
        self.start = self.seconds()
        pathlib.Path(f"/proc/{process.pid}/clear_refs").write_text("5")

    def seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def text(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        peak = int(re.search(r"VmHWM:\s+(\d+)", status)[1]) >> 10
        return f"{self.seconds() - self.start:.2f} s, {peak} MiB"


class World:
    """A service with files, a client with its drive, and the link between them."""

    def __init__(self, folder, slow):
        self.folder, self.slow = folder, slow
        self.home = folder / "home"
        self.drive = self.home / "Tarnwell"
        self.processes = []
        folder.mkdir()
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.service_port = probe.getsockname()[1]
        self.port, self.relay = self.service_port, None
        if slow:
            relay = self.start("relay", self.service_port, ROUND_TRIP, MEGABITS)
            self.relay = Lines(relay.stdout)
            self.port = int(self.relay.first(r"listening on (\d+)")[1])

    def environment(self):
        own = {"HOME": self.home, "XDG_DATA_HOME": self.home / "data", "XDG_CONFIG_HOME": self.home / "config",
               "XDG_CACHE_HOME": self.home / "cache", "XDG_RUNTIME_DIR": self.home / "run"}
        return {**os.environ, **{name: str(path) for name, path in own.items()}}

    def start(self, program, *arguments):
        process = subprocess.Popen([BUILD / "bin" / program, *map(str, arguments)], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                   env=self.environment())
        self.processes.append(process)
        return process

    def run(self, program, *arguments, text=None):
        return subprocess.run([BUILD / "bin" / program, *map(str, arguments)], input=text, text=True, check=True,
                              capture_output=True, env=self.environment()).stdout

    def serve(self, source):
        data = self.folder / "service"
        admin = lambda *arguments, text=None: self.run("tarnwell-service", "--data", data, *arguments, text=text)
        admin("domain", "add", "bench", "--address", f"bench.localhost:{self.port}")
        admin("user", "add", USER, "--domain", "bench", "--password-stdin", text=PASSWORD + "\n")
        admin("share", "add", "files", "--domain", "bench")
        admin("share", "import", "files", source)
        admin("share", "grant", "files", USER)
        self.service = self.start("tarnwell-service", "--data", data, "serve", "--port", self.service_port)
        self.log = Lines(self.service.stdout)
        self.log.first("listening on")

    def mount(self, files):
        for key, value in {"TWGlobalAddress": f"bench.localhost:{self.port}", "TWKeychainFile": self.home / "keychain",
                           "TWCertificateAuthority": self.folder / "service/tls/ca.pem"}.items():
            self.run("tarnwell", "settings", "set", key, value)
        self.run("tarnwell", "login", "--user", USER, "--password-stdin", text=PASSWORD + "\n")
        self.client = self.start("tarnwell", "--headless")
        Lines(self.client.stdout)
        wait_until("the drive", lambda: os.path.ismount(self.drive))
        wait_until("its tree", lambda: all(len(list((self.drive / "files" / name).glob("*"))) == count
                                           for name, count in files.items()), 120)

    def path(self, name):
        return f"{self.drive}/files/{name}"

    def idle(self):
        """Until no download is queued or running."""
        wait_until("the downloads", lambda: json.loads(self.run("tarnwell", "status", "--json"))["downloadQueueLen"] == 0,
                   180)

    def forget(self):
        """Makes every file an uncached one."""
        self.idle()
        for path in (self.home / "data/Tarnwell").glob("Files/**/*"):
            if path.is_file():
                path.unlink()

    def replies(self):
        """Bytes of every read.aspx so far."""
        return [int(found[1]) for found in (re.search(r"GET /read\.aspx \S+ 200 (\d+) B", line)
                                            for line in list(self.log.lines)) if found]

    def share_token(self):
        """A token that opens the share, for requests of other programs."""
        with contextlib.closing(self.database()) as database:
            return database.execute("SELECT token FROM acl_tokens ORDER BY rowid DESC LIMIT 1").fetchone()[0]

    def database(self):
        return sqlite3.connect(f"file:{self.folder}/service/service.db?mode=ro", uri=True)

    def curl(self, requests):
        """Seconds of one curl for requests one after the other, each the lines of its configuration, and what it
        printed."""
        script = self.folder / "curl.conf"
        script.write_text("next\n".join(f'{request}cacert = "{self.folder}/service/tls/ca.pem"\nfail\n'
                                        for request in requests))
        began = time.perf_counter()
        out = subprocess.run(["curl", "-sS", "-K", script], check=True, stdout=subprocess.PIPE, text=True).stdout
        return time.perf_counter() - began, out

    def close(self):
        for process in reversed(self.processes):
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(20)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        if os.path.ismount(self.drive):
            subprocess.run(["fusermount3", "-uz", self.drive], check=False)


def table(*rows):
    head, *rest = rows
    print("\n| " + " | ".join(head) + " |\n|---" + "|---:" * (len(head) - 1) + "|")
    for row in rest:
        print("| " + " | ".join(str(cell) for cell in row) + " |")
    sys.stdout.flush()
