"""What happens to the programs while users work: kills, quits, bad lines, rights that come and go."""
import random
import threading
import time

from drive import local_only
from machines import SHARES, wait_until

HOURS_TO_EXPIRY = 5


class Weather:
    """Runs on the caller's thread; what lasts (a bad line) ends when its time is over."""

    def __init__(self, world, model, seed, without):
        self.world, self.model = world, model
        self.random = random.Random(f"{seed}/weather")
        self.kills = 0
        self.done = {}
        kinds = {self.kill_client: 34, self.kill_service: 14, self.kill_both: 4, self.quit_client: 8, self.outage: 10,
                 self.stall: 3, self.slow_line: 5, self.lost_answers: 8, self.toggle: 6, self.log_out: 4,
                 self.withdraw: 4, self.read_only: 4}
        self.kinds = {kind: weight for kind, weight in kinds.items() if kind.__name__ not in without}
        self.expiry = "expiry" not in without
        self.lines_until = {}

    def run(self, seconds, most_kills):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and self.kills < most_kills:
            time.sleep(self.random.uniform(0.2, 2.2))
            self.mend_lines()
            kind = self.random.choices(list(self.kinds), list(self.kinds.values()))[0]
            self.done[kind.__name__] = self.done.get(kind.__name__, 0) + 1
            kind()
            self.world.check_alive()

    def note(self, what, **details):
        self.model.note("weather", what, **details)

    def client(self):
        return self.random.choice(self.world.clients)

    # --- ends of programs

    def start(self, client):
        if self.expiry and self.random.random() < 0.15:
            client.ahead += HOURS_TO_EXPIRY * 3600
        self.note("start", client=client.name, ahead=client.ahead)
        client.start()

    def kill_client(self, client=None):
        client = client or self.client()
        self.note("kill", program=client.name)
        client.kill()
        self.kills += 1
        time.sleep(self.random.choice([0, 0, 0.3, 1.5]))
        self.start(client)
        if self.random.random() < 0.15:  # and once more, in the middle of its recovery
            time.sleep(self.random.uniform(0, 0.5))
            self.kill_client(client)

    def kill_service(self):
        self.note("kill", program="service")
        self.world.service.kill()
        self.kills += 1
        time.sleep(self.random.choice([0, 0.2, 2]))
        self.world.service.start()

    def kill_both(self):
        client = self.client()
        self.note("kill", program="service and " + client.name)
        for program in self.random.sample([self.world.service, client], 2):
            program.kill()
            self.kills += 1
        self.world.service.start()
        self.start(client)

    def quit_client(self):
        client = self.client()
        self.note("quit", client=client.name)
        if not client.quit():
            self.model.fault("weather", f"{client.name} did not end within 63 s after two SIGTERM")
        self.start(client)

    # --- the line

    def line(self, mode, seconds, rate=0):
        client = self.client()
        self.note("line", client=client.name, mode=mode, seconds=round(seconds, 1), rate=rate)
        self.world.relay.order(client=client.name, mode=mode, rate=rate)
        self.lines_until[client.name] = time.monotonic() + seconds

    def mend_lines(self, everything=False):
        for name, until in list(self.lines_until.items()):
            if everything or time.monotonic() >= until:
                self.note("line", client=name, mode="ok")
                self.world.relay.order(client=name, mode="ok")
                del self.lines_until[name]

    def outage(self):
        self.line("down", self.random.choice([0.5, 3, 8, 20]))

    def stall(self):
        self.line("stall", self.random.uniform(1, 8))

    def slow_line(self):
        self.line("slow", self.random.uniform(3, 12), self.random.choice([150_000, 600_000]))

    def lost_answers(self):
        self.line("lossy", self.random.uniform(3, 15))

    # --- what is kept here, and who may

    def toggle(self):
        user = self.random.choice(self.world.users)
        try:
            files, folders = user.tree()
        except OSError:
            return
        path = self.random.choice(files + folders)
        self.note("toggle", client=user.who, path=path)
        user.client.tarnwell("send", f"togglesync:{user.path(path)}", check=False)

    def log_out(self):
        user = self.random.choice(self.world.users)
        client = user.client
        with user.turn:
            user.rest()
            way = self.random.choice(["at once", "when drained", "when drained", "discard"])
            if way == "when drained":
                wait_until(lambda: client.status().get("uploadQueueLen", 1) == 0, 15, 0.5)
            if client.status().get("state") in (None, "", "starting"):
                return
            local = self.local_files(user)
            began = time.time()
            drained = client.status().get("uploadQueueLen", 1) == 0
            if drained:
                user.last_drained = began
            done = client.tarnwell("logout", *(["--discard"] if way == "discard" else []), check=False)
            self.note("log-out", client=client.name, way=way, drained=drained, status=done.returncode,
                      said=(done.stdout + done.stderr).strip())
            if done.returncode != 0:
                return
            for version in local:
                self.model.excuse(version, f"kept on {client.name} only, which logged out")
            if way == "discard":
                self.model.excuse_since(client.name, user.last_drained, "discarded at log-out")
            time.sleep(self.random.choice([0, 1]))
            if self.random.random() < 0.2:
                self.kill_client(client)
            self.log_in(client)
            wait_until(client.mounted, 20)

    def log_in(self, client):
        done = client.tarnwell("login", "--user", client.user, "--password-stdin", text=self.world.password + "\n",
                               check=False)
        self.note("log-in", client=client.name, status=done.returncode, said=(done.stdout + done.stderr).strip())

    @staticmethod
    def local_files(user):
        """Versions in files that take no part in synchronisation: a log-out clears them."""
        found = []
        try:
            files = user.tree()[0]
        except OSError:
            return found
        for path in files:
            if not local_only(path.rsplit("/", 1)[1]):
                continue
            try:
                found.append(user.look(path))
            except (OSError, ValueError):
                pass
        return found

    def right(self, what, *arguments):
        self.note(what, arguments=arguments)
        self.world.service.admin("share", what, *arguments)

    def withdraw(self):
        share, user = self.random.choice(SHARES), self.random.choice(self.world.accounts)
        self.right("revoke", share, user)
        self.refresh_soon(user)
        time.sleep(self.random.uniform(0, 5))
        self.right("grant", share, user)
        self.refresh_soon(user)

    def read_only(self):
        share, user = self.random.choice(SHARES), self.random.choice(self.world.accounts)
        self.right("grant", share, user, "--read-only")
        self.refresh_soon(user)
        time.sleep(self.random.uniform(0, 4))
        self.right("grant", share, user)
        self.refresh_soon(user)

    def refresh_soon(self, user):
        for client in self.world.clients:
            if client.user == user:
                threading.Thread(target=client.refresh, daemon=True).start()
