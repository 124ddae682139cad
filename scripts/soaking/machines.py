"""The programs under test, each started, killed and asked from here."""
import ctypes
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
PASSWORD = "a long soak"
SHARES = ("Papers", "Plans")
PR_SET_PDEATHSIG = 1
PROGRAM_DEADLINE = 60
_libc = ctypes.CDLL(None, use_errno=True)


class Failure(Exception):
    """The campaign itself cannot continue."""


def end_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def run(*command, text=None, environment=None, check=True):
    try:
        done = subprocess.run([str(part) for part in command], input=text, capture_output=True, text=True,
                              env=environment, timeout=PROGRAM_DEADLINE, check=False)
    except subprocess.TimeoutExpired as late:
        raise Failure(f"{' '.join(map(str, command))}: no end within {PROGRAM_DEADLINE} s") from late
    if check and done.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))}: {done.stderr.strip() or done.stdout.strip()}")
    return done


def wait_until(done, seconds, pause=0.05):
    deadline = time.monotonic() + seconds
    while not done():
        if time.monotonic() > deadline:
            return False
        time.sleep(pause)
    return True


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Program:
    """A program that runs until it is told to end. `ended()` is true when it ended without that."""

    def __init__(self, folder, name):
        self.name, self.output = name, folder / f"{name}.out"
        self.process, self.expected_end = None, True
        self.starting = threading.RLock()

    def launch(self, command, environment=None):
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output, env=environment, start_new_session=True,
                                            preexec_fn=end_with_parent)
        self.expected_end = False

    def running(self):
        return self.process is not None and self.process.poll() is None

    def ended(self):
        return not self.expected_end and self.process is not None and self.process.poll() is not None

    def kill(self):
        with self.starting:
            self.expected_end = True
            if self.running():
                self.process.kill()
                self.process.wait(30)


class Service(Program):
    def __init__(self, programs, folder):
        super().__init__(folder, "service")
        self.program, self.data, self.port = programs / "tarnwell-service", folder / "service", free_port()

    def admin(self, *arguments, text=None):
        return run(self.program, "--data", self.data, *arguments, text=text).stdout

    def start(self):
        with self.starting:
            before = self.output.stat().st_size if self.output.exists() else 0
            self.launch([self.program, "--data", self.data, "serve", "--port", self.port])

            def listening():
                if self.ended():
                    raise Failure(f"the service ended with status {self.process.returncode}")
                return b"listening on" in self.output.read_bytes()[before:]
            if not wait_until(listening, 30):
                raise Failure("the service does not listen")


class Relay(Program):
    """The process of relay.py."""

    def __init__(self, folder, target, seed):
        super().__init__(folder, "relay")
        self.lock = threading.Lock()
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen([sys.executable, HERE / "relay.py", str(target), str(seed)],
                                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=output, text=True,
                                            start_new_session=True, preexec_fn=end_with_parent)
        self.port = int(self.process.stdout.readline())

    def order(self, **order):
        with self.lock:
            self.process.stdin.write(json.dumps(order) + "\n")
            self.process.stdin.flush()


class Client(Program):
    """One machine of a user: home folder, settings, keychain and drive of its own."""

    def __init__(self, programs, folder, name, user, relay, preload):
        super().__init__(folder, name)
        self.program, self.user, self.relay, self.preload = programs / "tarnwell", user, relay, preload
        self.home = folder / name
        self.drive = self.home / "Tarnwell"
        self.kept = self.home / "data" / "Tarnwell" / "Kept"
        self.ahead = 0           # seconds of its clock
        self.home.mkdir()

    def environment(self):
        own = {"HOME": self.home, "XDG_DATA_HOME": self.home / "data", "XDG_CONFIG_HOME": self.home / "config",
               "XDG_CACHE_HOME": self.home / "cache", "XDG_RUNTIME_DIR": self.home / "run",
               "DBUS_SESSION_BUS_ADDRESS": "", "DISPLAY": ""}
        if self.ahead and self.preload:
            own |= {"LD_PRELOAD": self.preload, "SOAK_AHEAD": self.ahead}
        return {**os.environ, **{name: str(value) for name, value in own.items()}}

    def tarnwell(self, *arguments, text=None, check=True):
        return run(self.program, *arguments, text=text, environment=self.environment(), check=check)

    def prepare(self, address, authority):
        for key, value in {"TWGlobalAddress": address, "TWCertificateAuthority": authority,
                           "TWKeychainFile": self.home / "keychain", "Fern Disk.storeFiles": 0, "Tarnwell.storeFiles": 0}.items():
            self.tarnwell("settings", "set", key, value)
        self.login()

    def login(self):
        self.tarnwell("login", "--user", self.user, "--password-stdin", text=PASSWORD + "\n")

    def start(self):
        with self.starting:
            self.launch([self.program, "--headless"], self.environment())
            self.relay.order(client=self.name, pid=self.process.pid)
            wait_until(lambda: self.mounted() or not self.running(), 30)

    def quit(self):
        """In order; the second signal answers the question about open files. False: it had to be killed."""
        with self.starting:
            self.expected_end = True
            for seconds in (3, 60):
                if not self.running():
                    break
                self.process.send_signal(signal.SIGTERM)
                try:
                    self.process.wait(seconds)
                except subprocess.TimeoutExpired:
                    pass
            if not self.running():
                return True
            self.kill()
            return False

    def mounted(self):
        """A drive that answers, not the dead mount of a killed client."""
        try:
            return os.path.ismount(self.drive)
        except OSError:
            return False

    def status(self):
        done = self.tarnwell("status", "--json", check=False)
        try:
            return json.loads(done.stdout)
        except ValueError:
            return {}

    def refresh(self):
        return self.tarnwell("refresh", check=False).returncode == 0

    def unmount(self):
        self.quit()
        with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
            if f" {self.drive} " in mounts.read():
                command = ["umount", "-l"] if os.geteuid() == 0 else ["fusermount3", "-uz"]
                subprocess.run([*command, str(self.drive)], stderr=subprocess.DEVNULL, check=False)

    def logs(self):
        return [self.output, *sorted((self.home / "data/Tarnwell/Logs").glob("*"))]
