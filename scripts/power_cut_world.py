"""What scripts/power-cuts sets up: a service, clients whose data folders lie on disks that forget, and a line that can
be cut."""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import threading
import time

from demo import Failure, Machine, end, run, start, wait_until

USER, PASSWORD = "ann@example.org", "a power cut"


class Disk:
    """A forgetful disk, mounted at a folder."""

    def __init__(self, program, mounted, folder, hostile=False):
        self.program, self.mounted, self.folder, self.hostile = program, mounted, folder, hostile
        self.process = self.control = None

    def mount(self, source=None):
        self.mounted.mkdir(parents=True, exist_ok=True)
        path = self.folder / f"{self.mounted.parent.name}.disk"
        path.unlink(missing_ok=True)
        command = [self.program, self.mounted, path]
        if source:
            command += ["--from", source]
        if self.hostile:
            command += ["--hostile"]
        self.process = start(path.with_suffix(".disklog"), *command)
        wait_until("the disk is mounted", lambda: os.path.ismount(self.mounted) and path.exists(), 20)
        connection = socket.socket(socket.AF_UNIX)
        connection.connect(str(path))
        self.control = connection.makefile("rw")

    def tell(self, *words):
        self.control.write(" ".join(str(word) for word in words) + "\n")
        self.control.flush()
        answer = self.control.readline().split()
        if not answer or answer[0] != "ok":
            raise Failure(f"disk: {' '.join(map(str, words))}: {' '.join(answer)}")
        return answer[1:]

    def unmount(self):
        if not self.process:
            return
        unmount(self.mounted)
        end(self.process, [signal.SIGTERM, signal.SIGKILL], 5)
        self.process = None


class Line:
    """Hands connections on to the service while it is up; cuts them when it goes down."""

    def __init__(self, port):
        self.port, self.up, self.open = port, False, set()
        self.lock = threading.Lock()
        self.listening = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.own_port = self.listening.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def set(self, up):
        with self.lock:
            self.up = up
            if not up:
                for each in self.open:
                    try:
                        each.shutdown(socket.SHUT_RDWR)
                    except OSError:
                        pass

    def accept(self):
        while True:
            here, _ = self.listening.accept()
            try:
                with self.lock:
                    if not self.up:
                        raise OSError
                    there = socket.create_connection(("127.0.0.1", self.port))
                    self.open |= {here, there}
            except OSError:
                here.close()
                continue
            for source, target in ((here, there), (there, here)):
                threading.Thread(target=self.pump, args=(source, target), daemon=True).start()

    def pump(self, source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
        except OSError:
            pass
        for each in (source, target):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        with self.lock:
            self.open -= {source, target}


def unmount(folder):
    # A mount whose program was killed is not one for os.path.ismount.
    if f" {folder} " in pathlib.Path("/proc/self/mounts").read_text():
        subprocess.run(["umount", "-l", str(folder)], stderr=subprocess.DEVNULL, check=False)


class Client(Machine):
    """A machine of the user."""

    disk = None  # below its data folder

    def configure(self, settings):
        self.home.mkdir(parents=True)
        for key, value in settings.items():
            self.tarnwell("settings", "set", key, value)

    def begin(self):
        (self.home / "run").mkdir(exist_ok=True)
        self.process = start(self.log, self.program, "--headless", environment=self.environment())

        def mounted():
            if self.process.poll() is not None:
                raise Failure(f"the client ended ({self.process.returncode}): " + self.log.read_text()[-2000:])
            return os.path.ismount(self.drive)
        wait_until("the drive is mounted", mounted, 60)

    def state(self):
        try:
            return self.status()
        except Failure:
            return {"state": "", "uploadQueueLen": -1}

    def is_online(self):
        return self.state()["state"] == "online"

    def has_sent_all(self):
        return self.state()["uploadQueueLen"] == 0

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait(30)
        unmount(self.drive)

    def quit(self):
        end(self.process, [signal.SIGTERM, signal.SIGTERM], 15)
        if self.process.poll() is None:
            self.kill()
            raise Failure("the client does not end")
        unmount(self.drive)

    def remove(self):
        self.kill()
        if self.disk:
            self.disk.unmount()
        shutil.rmtree(self.home, ignore_errors=True)

    def log_text(self):
        logs = sorted((self.home / "data/Tarnwell/Logs").glob("*"))
        return "".join(log.read_text(errors="replace") for log in logs if log.is_file())


class World:
    """One service with one share, one client on a forgetful disk, and clients that look at states of it."""

    SHARE = "Papers"

    def __init__(self, programs, folder, hostile=False, service_disk=False):
        self.programs, self.folder, self.hostile = programs, folder, hostile
        self.service = None
        self.service_data = folder / "server/data"
        self.service_disk = Disk(programs / "forgetful-disk", self.service_data, folder) if service_disk else None
        if self.service_disk:
            self.service_disk.mount()
        else:
            self.service_data.mkdir(parents=True)
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.line = Line(self.port)
        address = f"cuts.localhost:{self.line.own_port}"
        self.admin("domain", "add", "home", "--address", address)
        self.admin("user", "add", USER, "--domain", "home", "--password-stdin", text=PASSWORD + "\n")
        self.admin("share", "add", self.SHARE, "--domain", "home")
        self.admin("share", "grant", self.SHARE, USER)
        self.authority = folder / "ca.pem"
        shutil.copy(self.service_data / "tls/ca.pem", self.authority)
        self.serve()
        self.line.set(True)
        self.settings = {"TWGlobalAddress": address, "TWCertificateAuthority": self.authority,
                         "TWKeychainFile": folder / "keychain"}
        self.client = Client(programs / "tarnwell", folder, "ann")
        self.client.configure(self.settings)
        self.client.tarnwell("login", "--user", USER, "--password-stdin", text=PASSWORD + "\n")
        shutil.rmtree(self.client.home / "data", ignore_errors=True)
        self.disk = self.client.disk = Disk(programs / "forgetful-disk", self.client.home / "data", folder, hostile)
        self.disk.mount()
        self.others = 0

    def admin(self, *arguments, text=None):
        return run(self.programs / "tarnwell-service", "--data", self.service_data, *arguments, text=text)

    def serve(self):
        log = self.folder / "service.log"
        self.service = start(log, self.programs / "tarnwell-service", "--data", self.service_data, "serve", "--port",
                             self.port, "--quiet")

        def listening():
            if self.service.poll() is not None:
                raise Failure("the service ended: " + log.read_text())
            return "listening on" in log.read_text()
        wait_until("the service listens", listening, 30)

    def share(self):
        return self.client.drive / self.SHARE

    def other_client(self, state=None):
        """A client of its own; its disk holds `state`, as a cut wrote it. Without one it is logged in here."""
        self.others += 1
        other = Client(self.programs / "tarnwell", self.folder, f"other{self.others}")
        other.configure(self.settings)
        if state:
            other.disk = Disk(self.programs / "forgetful-disk", other.home / "data", self.folder, self.hostile)
            other.disk.mount(state)
        return other

    def exported(self):
        target = self.folder / "exported"
        shutil.rmtree(target, ignore_errors=True)
        self.admin("share", "export", self.SHARE, target)
        return target

    def stop(self):
        self.client.kill()
        self.disk.unmount()
        end(self.service, [signal.SIGTERM, signal.SIGKILL], 10)
        if self.service_disk:
            self.service_disk.unmount()
