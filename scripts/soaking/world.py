"""Everything that a campaign runs, from the first start to the comparison of what is left."""
import os
import pathlib
import shutil
import subprocess
import threading
import time
import unicodedata

from contents import digest
from drive import local_only
from machines import PASSWORD, SHARES, Client, Failure, Relay, Service
from model import Model
from user import User

SETTLE_DEADLINE = 150  # seconds
HANGS = 60             # seconds until a call that does not answer ends the campaign
HERE = pathlib.Path(__file__).resolve().parent


class World:
    password = PASSWORD

    def __init__(self, programs, folder, seed, clients):
        self.folder, self.model = folder, Model(folder)
        self.service = Service(programs, folder)
        self.relay = Relay(folder, self.service.port, seed)
        self.accounts = ["ann@example.org", "ben@example.org"]
        preload = self.build_clock()
        self.service.admin("domain", "add", "home", "--address", f"soak.localhost:{self.relay.port}")
        for account in self.accounts:
            self.service.admin("user", "add", account, "--domain", "home", "--password-stdin", text=PASSWORD + "\n")
        for share in SHARES:
            self.service.admin("share", "add", share, "--domain", "home")
            for account in self.accounts:
                self.service.admin("share", "grant", share, account)
        self.service.start()
        # The third machine is a second one of the first user.
        self.clients = [Client(programs, folder, f"client{number + 1}", self.accounts[number % 2], self.relay, preload)
                        for number in range(clients)]
        for client in self.clients:
            client.prepare(f"soak.localhost:{self.relay.port}", self.service.data / "tls/ca.pem")
            client.start()
        self.users = [User(client, self.model, seed) for client in self.clients]
        self.stopping = threading.Event()
        self.working = threading.Event()
        self.exports = 0
        for client in self.clients:
            threading.Thread(target=self.refresh_often, args=(client,), daemon=True).start()
        threading.Thread(target=self.watch, daemon=True).start()

    def build_clock(self):
        """The preload that sets a client's clock ahead; None without a compiler, and nothing expires then."""
        library = self.folder / "clock.so"
        done = subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", str(library), str(HERE / "clock.c"), "-ldl"],
                              capture_output=True, check=False)
        return library if done.returncode == 0 else None

    # --- while it runs

    def refresh_often(self, client):
        while not self.stopping.wait(2):
            if self.working.is_set() and client.running():
                try:
                    client.refresh()
                except Failure as failure:
                    self.model.fault(client.name, str(failure))

    def watch(self):
        """A call that hangs would stop its user for ever: the client is killed, so that the report can be made."""
        while not self.stopping.wait(1):
            for user in self.users:
                current = user.calls.current
                if current and time.monotonic() - current[1] > HANGS:
                    self.model.fault(user.who, f"{current[0]} hangs for {HANGS} s")
                    user.client.kill()

    def check_alive(self):
        for program in [self.service, self.relay, *self.clients]:
            with program.starting:
                if program.ended():
                    program.expected_end = True
                    self.model.fault(program.name, f"{program.name} ended by itself: {program.process.returncode}")
                    raise Failure(f"{program.name} ended by itself with status {program.process.returncode}")

    def begin_work(self):
        self.working.set()
        for user in self.users:
            if not user.thread.is_alive():
                user.thread.start()

    # --- a pause, in which everything comes to an end

    def settle(self, weather):
        """Everybody online and idle: what the drives show and what the service holds, or None with a fault noted."""
        for user in self.users:
            user.turn.acquire()
            user.rest()
        weather.mend_lines(everything=True)
        for share in SHARES:
            for account in self.accounts:
                self.service.admin("share", "grant", share, account)
        for client in self.clients:
            if not client.running():
                client.start()
            if client.status().get("state") == "loggedOut":
                weather.log_in(client)
        deadline, last = time.monotonic() + SETTLE_DEADLINE, "nothing compared"
        while time.monotonic() < deadline:
            self.check_alive()
            for client in self.clients:
                client.refresh()
            time.sleep(1.5)
            states = [client.status() for client in self.clients]
            last = [(state.get("state"), state.get("uploadQueueLen"), state.get("lastErrors")) for state in states]
            if any(state.get("state") != "online" or state.get("uploadQueueLen") != 0 for state in states):
                continue
            try:
                exported = self.export()
                drives = [self.shown(user) for user in self.users]
            except (OSError, Failure) as error:
                last = f"comparing: {error}"
                continue
            if all(self.synchronised(drive) == exported for drive in drives):
                for path, value in exported.items():
                    if value and " " in value:
                        self.model.fault("settle", f"{path} holds {value}", path=unicodedata.normalize("NFC", path))
                return exported, drives
            last = drives, exported
        if isinstance(last, tuple) and isinstance(last[1], dict):
            for user, drive in zip(self.users, last[0]):
                self.note_differences(user.who, self.synchronised(drive), last[1])
        else:
            self.model.fault("settle", f"no rest within {SETTLE_DEADLINE} s: {last}")
        return None

    def resume(self):
        for user in self.users:
            user.last_drained = time.time()
            user.turn.release()

    @staticmethod
    def normal(path):
        return unicodedata.normalize("NFD", path)

    def synchronised(self, tree):
        return {path: value for path, value in tree.items()
                if value is None or not local_only(path.rsplit("/", 1)[1])}

    def note_differences(self, name, drive, exported):
        def held(tree, path):
            if path not in tree:
                return "nothing"
            version = self.model.by_digest.get(tree[path])
            if not version and tree[path] and " " in tree[path]:
                return tree[path]
            return "a folder" if tree[path] is None else f"v{version.token}" if version else "an empty file"
        for path in sorted(drive.keys() | exported.keys()):
            there, service = held(drive, path), held(exported, path)
            if there != service:
                self.model.fault("settle", f"{path}: {name} shows {there}, the service holds {service}, after"
                                 f" {SETTLE_DEADLINE} s of rest", path=unicodedata.normalize("NFC", path))

    def export(self):
        """Path: digest, None for a folder."""
        tree, self.exports = {}, self.exports + 1
        for share in SHARES:
            folder = self.folder / f"export{self.exports}"
            self.service.admin("share", "export", share, folder)
            for top, folders, files in os.walk(folder):
                relative = os.path.relpath(top, folder)
                inside = share if relative == "." else f"{share}/{relative}"
                for name in folders:
                    tree[self.normal(f"{inside}/{name}")] = None
                for name in files:
                    tree[self.normal(f"{inside}/{name}")] = self.known(pathlib.Path(top, name).read_bytes())
            shutil.rmtree(folder)
        return tree

    def shown(self, user):
        tree = {}
        files, folders = user.tree(deepest=99)
        for path in folders:
            if "/" in path:
                tree[self.normal(path)] = None
        for path in files:
            tree[self.normal(path)] = self.known(user.contents(path))
        return tree

    def known(self, contents):
        """The digest, or a description of bytes that nobody wrote."""
        try:
            self.model.identify(contents)
            return digest(contents)
        except ValueError as error:
            return f"what nobody wrote, {error}"

    def kept(self):
        """Digests of what the clients put aside."""
        return {digest(path.read_bytes()) for client in self.clients if client.kept.is_dir()
                for path in client.kept.rglob("*") if path.is_file()}

    def stop(self):
        self.stopping.set()
        for user in self.users:
            user.stopping = True
        for client in self.clients:
            client.kill()
            client.unmount()
        self.service.kill()
        self.relay.kill()
