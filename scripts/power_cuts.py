"""The machine behind scripts/power-cuts."""
import argparse
import errno
import os
import pathlib
import random
import shutil
import signal
import sys
import tempfile
import threading
import time
import traceback

from demo import ROOT, Failure, say, terminated, wait_until
from power_cut_model import FOLDER, Fault, File, Model, describe
from power_cut_work import Work, below
from power_cut_world import World

OWN = "a"        # the folder that the user works in
FOREIGN = "b"    # what another device writes


def show(folder):
    """path -> bytes, None when it cannot be read, or FOLDER."""
    shown = {}

    def walk(here, prefix):
        for entry in os.scandir(here):
            path = f"{prefix}/{entry.name}"
            if entry.is_dir(follow_symlinks=False):
                shown[path] = FOLDER
                walk(entry.path, path)
            else:
                try:
                    with open(entry.path, "rb") as file:
                        shown[path] = file.read()
                except OSError:
                    shown[path] = None
    walk(str(folder), "")
    return shown


def is_shared(path):
    name = os.path.basename(path)
    return not name.startswith((".", "~")) and not name.endswith(".tmp")


def difference(one, other):
    paths = sorted(p for p in one.keys() | other.keys() if one.get(p, "") != other.get(p, ""))

    def text(tree, path):
        return "missing" if path not in tree else tree[path] if tree[path] is FOLDER else describe(tree[path])
    return "; ".join(f"{p}: {text(one, p)} / {text(other, p)}" for p in paths[:5])


PAIR_OPERATIONS = {
    "create": lambda work, at, synced: work.create(at + "/new", 5000, synced),
    "overwrite": lambda work, at, synced: work.change(at + "/x", synced, "overwrite"),
    "append": lambda work, at, synced: work.change(at + "/x", synced, "append"),
    "truncate": lambda work, at, synced: work.change(at + "/x", synced, "truncate"),
    "replace": lambda work, at, synced: work.rename(at + "/x", at + "/y"),
    "rename": lambda work, at, synced: work.rename(at + "/x", at + "/z"),
    "temporary": lambda work, at, synced: work.save_by_temporary(at + "/x", 6000, synced),
    "backup": lambda work, at, synced: work.save_by_backup(at + "/x", 6000, synced),
    "mkdir": lambda work, at, synced: work.mkdir(at + "/e"),
    "move": lambda work, at, synced: work.rename(at + "/y", at + "/d/y"),
    "unlink": lambda work, at, synced: work.remove(at + "/x"),
    "rmdir": lambda work, at, synced: work.remove(at + "/d"),
    "exchange": lambda work, at, synced: work.exchange(at + "/x", at + "/y"),
    "attributes": lambda work, at, synced: work.set_attributes(at + "/x"),
}


def every_pair(options):
    """Each two operations, synced or not, on files that are durable; a state before each sync and at the end. The
    client is offline; the pairs of one first operation share a client."""
    begun, states, faults = time.monotonic(), 0, []
    for index, first in enumerate(list(PAIR_OPERATIONS)[:options.firsts]):
        campaign = Campaign(options.bin, options.seed + index, options.hostile, False)
        try:
            campaign.begin()
            campaign.world.line.set(False)
            for second in PAIR_OPERATIONS:
                for synced in (True, False):
                    fault = campaign.pair(first, second, synced)
                    if fault:
                        faults.append((first, second, synced))
                        say(f"FAULT {first}, {second}{', synced' if synced else ''}: {fault}")
        except Failure:
            traceback.print_exc()
            faults.append((first,))
        finally:
            states += campaign.states
            campaign.stop(options.keep and faults)
    spent = time.monotonic() - begun
    say(f"{states} states of {options.firsts} x {len(PAIR_OPERATIONS)} pairs, {len(faults)} faults, {spent:.0f} s, "
        f"{spent / max(states, 1):.2f} s each")
    return 1 if faults else 0


class Campaign:
    """Lives of one client, each ended by a power cut, a kill or a quit, and continued from what that left."""

    def __init__(self, programs, seed, hostile, service_disk):
        self.seed, self.numbers = seed, random.Random(seed)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tarnwell-cuts-"))
        self.points = self.states = 0
        self.model, self.work, self.foreign = Model(), None, {}
        self.world = World(programs, self.folder, hostile, service_disk)

    def begin(self):
        self.world.client.begin()
        wait_until("the share is there", self.world.share().is_dir, 30)
        (self.world.share() / OWN).mkdir()
        (self.world.share() / FOREIGN).mkdir()
        self.wait_until_sent()
        self.take_over()

    def take_over(self):
        """What the drive shows is on the service: the beginning of the next life."""
        shown = show(self.world.share() / OWN)
        self.model = Model({p: c if c is FOLDER else File.found(c) for p, c in shown.items()})
        named = self.work.named if self.work else 0
        self.work = Work(self.world.share() / OWN, self.model, self.numbers)
        self.work.named = named
        self.work.sync_folder()

    def wait_until_sent(self, seconds=200):  # an empty file waits for 150
        wait_until("the client is online", self.world.client.is_online, 30)
        wait_until("everything is sent", self.world.client.has_sent_all, seconds)

    # Work

    def foreign_change(self):
        """Another device writes a file, through the service's own command."""
        name = f"f{self.numbers.randrange(6)}"
        file = self.foreign.setdefault(name, File())
        contents = self.work.fresh(file, self.numbers.choice([1, 5000, 70_000, 300_000]))
        file.begin(contents)
        source = self.folder / "put"
        source.write_bytes(contents)
        self.world.admin("put", self.world.SHARE, source, f"/{FOREIGN}/{name}")

    def read_foreign(self):
        for name, contents in show(self.world.share() / FOREIGN).items():
            if contents is None:
                continue  # it may be offline
            if contents not in [v.contents for v in self.foreign[name[1:]].versions]:
                raise Fault(f"{FOREIGN}{name}: {describe(contents)} is no version of it")

    def one_operation(self):
        kind = self.numbers.random()
        if kind < 0.06:
            self.foreign_change()
        elif kind < 0.12:
            self.read_foreign()
        elif kind < 0.15:
            self.world.line.set(self.numbers.random() < 0.6)
        elif kind < 0.19:
            begun = time.monotonic_ns()
            deadline = time.monotonic() + 8
            while time.monotonic() < deadline and not self.stopping and self.world.line.up:
                state = self.world.client.state()
                if state["state"] == "online" and state["uploadQueueLen"] == 0:
                    # Bursts that have not ended yet are not queued: ask the service itself.
                    if self.differing() is None:
                        self.model.note_sent(begun)
                    break
                time.sleep(0.2)
        elif kind < 0.3:
            time.sleep(self.numbers.choice([0.02, 0.2, 1]))
        else:
            self.work.random()

    def operate(self, count):
        try:
            for _ in range(count):
                if self.stopping:
                    return
                self.one_operation()
        except (OSError, Failure) as error:
            if not self.stopping:
                self.problem = error
        except Fault as fault:
            self.problem = fault

    def differing(self):
        """None when the own folder of drive and service is the same."""
        shown = {p: c for p, c in show(self.world.share() / OWN).items() if is_shared(p)}
        exported = show(self.world.exported() / OWN)
        return None if shown == exported else difference(shown, exported)

    # Ends of a life

    def live(self):
        self.stopping, self.problem = False, None
        cuts = self.folder / "cuts"
        shutil.rmtree(cuts, ignore_errors=True)
        self.world.disk.tell("syncs", cuts, self.numbers.randrange(1, 6), self.numbers.randrange(10**6), 6)
        thread = threading.Thread(target=self.operate, args=(self.numbers.choice([5, 15, 40, 80]),))
        thread.start()
        thread.join(self.numbers.choice([0.05, 0.3, 1, 3, 8]))
        ending = self.numbers.choices(["cut", "kill", "quit", "service"], [6, 2, 1, 1 if self.world.service_disk else 0])[0]
        self.end_life(ending, thread, cuts)
        if self.problem:
            raise self.problem
        return ending

    def end_life(self, ending, thread, cuts):
        world, client = self.world, self.world.client
        if ending == "quit":
            self.stopping = True
            thread.join(60)
            client.quit()
            cut = time.monotonic_ns()
        elif ending == "service":
            self.cut_service()
            self.stopping = True
            thread.join(60)
            return self.check_online(time.monotonic_ns())
        else:
            client.process.send_signal(signal.SIGSTOP)
            time.sleep(0.01)  # its threads stop when their call is done
            if ending == "cut":
                for number in range(3):
                    world.disk.tell("cut", self.numbers.randrange(10**6), cuts / f"end{number}")
            cut = time.monotonic_ns()
            self.stopping = True
            client.kill()
            thread.join(60)
        world.line.set(False)
        world.disk.tell("syncs", "off")
        states = sorted(p.parent for p in cuts.glob("*/time")) if cuts.exists() else []
        for state in states:
            self.look_at(state, False)
        if ending == "cut":
            world.disk.unmount()
            world.disk.mount(cuts / "end0")
        else:
            world.disk.tell("keep", cuts / ending)
            self.look_at(cuts / ending, True)
        world.line.set(True)
        client.begin()
        self.check_online(cut)

    def look_at(self, state, nothing_lost):
        """Another client starts over the state, offline."""
        other = self.world.other_client(state)
        try:
            other.begin()
            self.check_offline(other, int((state / "time").read_text()), nothing_lost, f"state {state.name}")
        finally:
            other.remove()
        self.states += 1

    def check_offline(self, client, cut, nothing_lost, what):
        try:
            shown = show(client.drive / World.SHARE / OWN)
            self.model.check(shown, cut, nothing_lost)
        except (Fault, OSError) as fault:
            kept = self.folder / "fault.log"
            kept.write_text(client.log_text())
            raise Fault(f"{what}, offline: {fault}") from fault

    def cut_service(self):
        disk = self.world.service_disk
        self.world.service.send_signal(signal.SIGSTOP)
        time.sleep(0.01)
        state = self.folder / "service-cut"
        shutil.rmtree(state, ignore_errors=True)
        disk.tell("cut", self.numbers.randrange(10**6), state)
        self.world.service.kill()
        self.world.service.wait()
        disk.unmount()
        disk.mount(state)
        self.world.serve()

    def remove_empty(self):
        """A new file that the cut left empty is sent when it is minutes old; the user does not wait for it."""
        trees = [step.tree for step in self.model.steps]
        for path, contents in show(self.world.share() / OWN).items():
            files = {t[path] for t in trees if path in t and t[path] is not FOLDER}
            if contents == b"" and not any(v.sent for f in files for v in f.versions):
                os.unlink(self.work.at(path))

    def check_online(self, cut):
        self.world.line.set(True)
        self.remove_empty()
        self.wait_until_sent()
        deadline = time.monotonic() + 40
        while differing := self.differing():
            if time.monotonic() > deadline:
                raise Fault(f"drive / service: {differing}")
            time.sleep(0.3)
            self.world.client.tarnwell("refresh")
        exported = show(self.world.exported() / OWN)
        self.model.check_service(exported, cut)
        shown = show(self.world.share() / OWN)
        self.model.check_whole(shown)
        self.read_foreign()
        if self.points % 8 == 7:
            self.check_fresh_client(exported)
        self.points += 1
        self.take_over()

    def check_fresh_client(self, exported):
        other = self.world.other_client()
        try:
            other.begin()
            seen = {}

            def agrees():
                seen.clear()
                folder = other.drive / World.SHARE / OWN
                seen.update(show(folder) if folder.is_dir() else {})
                return seen == exported
            try:
                wait_until("the fresh client agrees", agrees, 30)
            except Failure as failure:
                raise Fault(f"a fresh client / service: {difference(seen, exported)}") from failure
        finally:
            other.remove()

    def keep_state(self):
        """What the client's disk holds at the fault, its logs included."""
        try:
            (self.folder / "status").write_text(repr(self.world.client.state()))
            self.world.disk.tell("keep", self.folder / "at-fault")
        except (Failure, OSError) as problem:
            say(f"    the state cannot be kept: {problem}")

    def stop(self, keep):
        try:
            self.world.stop()
        finally:
            if not keep:
                shutil.rmtree(self.folder, ignore_errors=True)


    # Two operations

    def pair(self, first, second, synced):
        """The first fault of the states that two operations can leave; None: all are right."""
        work, disk = self.work, self.world.disk
        at = f"/{first}-{second}-{'synced' if synced else 'plain'}"
        work.log.clear()
        work.mkdir(at)
        work.mkdir(at + "/d")
        for name in ("/x", "/y"):
            work.create(at + name, 5000, True)
        work.sync_folder(at)
        cuts = self.folder / "cuts"
        shutil.rmtree(cuts, ignore_errors=True)
        disk.tell("syncs", cuts, 1, self.numbers.randrange(10**6), 12)
        fault = None
        for place, name in enumerate((first, second)):
            try:
                PAIR_OPERATIONS[name](work, at, synced)
                if synced:
                    work.sync_folder(at)
            except (KeyError, OSError):
                work.model.settle(show(work.root))
                break  # the first took away what the second needs
            for number in range(2):
                disk.tell("cut", self.numbers.randrange(10**6), cuts / f"{place}-{number}")
        disk.tell("syncs", "off")
        for state in sorted(p.parent for p in cuts.glob("*/time")):
            try:
                self.look_at(state, False)
            except Fault as problem:
                fault = fault or problem
        return fault

    # Failing calls

    def live_with_failures(self):
        """Calls fail while the user works; then the disk is whole again, and everything arrives."""
        self.stopping, self.problem = False, None
        disk, numbers = self.world.disk, self.numbers
        for _ in range(numbers.randrange(1, 4)):
            call = numbers.choice(["write", "fsync", "rename", "create", "setxattr", "fallocate", "full", "full"])
            self.work.say(f"calls of {call} fail")
            if call == "full":
                disk.tell("full", numbers.choice([0, 4096, 20_000, 100_000]))
            else:
                disk.tell("fail", call, numbers.randrange(1, 12), numbers.choice([errno.EIO, errno.ENOSPC]),
                          numbers.choice([1, 1, 3, 0]))
        self.operate_over_failures(numbers.choice([5, 15, 40]))
        disk.tell("fail", "off")
        disk.tell("full", "off")
        if numbers.random() < 0.3:
            self.world.client.kill()
            self.world.client.begin()
        if self.problem:
            raise self.problem
        self.world.line.set(True)
        for path, contents in show(self.world.share() / OWN).items():
            if contents == b"" and self.model.tree.get(path, FOLDER) is not FOLDER:
                self.work.remove(path)  # it would be sent when it is minutes old
        self.wait_until_sent()
        self.model.check_survived(show(self.world.share() / OWN))
        self.check_online(time.monotonic_ns())

    def operate_over_failures(self, count):
        for _ in range(count):
            try:
                self.one_operation()
            except OSError as error:
                if error.errno in (errno.ENOTCONN, errno.ECONNABORTED):
                    self.problem = Fault(f"the client ended: {self.world.client.log.read_text()[-1000:]}")
                    return
                self.work.say(f"  failed: {error}")
                self.model.settle(show(self.world.share() / OWN))
            except Fault as fault:
                self.problem = fault
                return


def report(campaign, seed, life, fault, verbose):
    say(f"FAULT seed {seed} life {life}: {fault}")
    if campaign.work:
        for line in campaign.work.log[-(60 if verbose else 25):]:
            say("    " + line)


def one_seed(options, seed, points, end):
    """The number of points that were looked at, and whether all was right."""
    campaign = Campaign(options.bin, seed, options.hostile, options.service)
    life, right = 0, True
    try:
        campaign.begin()
        while campaign.points + campaign.states < points and life < options.lives and time.monotonic() < end:
            life += 1
            ending = campaign.live_with_failures() if options.failures else campaign.live()
            if options.verbose:
                say(f"seed {seed} life {life} ({ending}): {len(campaign.model.tree)} names")
    except (Fault, Failure, OSError, AssertionError, KeyboardInterrupt) as fault:
        right = False
        report(campaign, seed, life, fault, options.verbose)
        if isinstance(fault, KeyboardInterrupt):
            raise
        if not isinstance(fault, Fault):
            traceback.print_exc()
        if options.keep:
            campaign.keep_state()
    finally:
        campaign.stop(options.keep and not right)
        if options.keep and not right:
            say(f"    kept: {campaign.folder}")
    return campaign.points, campaign.states, right


def main():
    arguments = argparse.ArgumentParser(prog="scripts/power-cuts")
    arguments.add_argument("--seed", type=int, default=random.randrange(10**6))
    arguments.add_argument("--points", type=int, default=100, help="states to look at")
    arguments.add_argument("--seconds", type=int, default=10**6, help="no new life after these")
    arguments.add_argument("--lives", type=int, default=12, help="lives of one client, then a new one")
    arguments.add_argument("--hostile", action="store_true", help="keep only what the standard promises")
    arguments.add_argument("--service", action="store_true", help="cut the service's disk as well")
    arguments.add_argument("--pairs", action="store_true", help="every two operations, cut at each sync")
    arguments.add_argument("--firsts", type=int, default=len(PAIR_OPERATIONS), help="first operations of pairs")
    arguments.add_argument("--failures", action="store_true", help="calls fail instead of power")
    arguments.add_argument("--bin", type=pathlib.Path, default=ROOT / "build/release/bin")
    arguments.add_argument("--keep", action="store_true", help="keep the folder of a failed seed")
    arguments.add_argument("--verbose", action="store_true")
    options = arguments.parse_args()
    options.bin = options.bin.resolve()
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, terminated)
    say(f"seed {options.seed}")
    if not os.access("/dev/fuse", os.R_OK | os.W_OK) or os.geteuid() != 0:
        say("skipped: needs /dev/fuse and the right to unmount")
        return 77
    begun, done, failed, seed = time.monotonic(), 0, [], options.seed
    lives, end = 0, begun + options.seconds
    if options.pairs:
        return every_pair(options)
    while done < options.points and time.monotonic() < end:
        points, states, right = one_seed(options, seed, options.points - done, end)
        done += max(points + states, 1)
        lives += points
        if not right:
            failed.append(seed)
        seed += 1
    spent = time.monotonic() - begun
    say(f"{done} states of {seed - options.seed} clients, {lives} of them continued online, {len(failed)} faults "
        f"{failed}, {File.torn_after_sent} sent versions torn by a later edit, {spent:.0f} s, {spent / done:.2f} s each")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
