"""The campaign behind scripts/soak: rounds of work and trouble, after each of which everything must be accounted for."""
import argparse
import json
import pathlib
import random
import shutil
import signal
import sys
import tempfile
import time

from machines import Failure
from weather import Weather
from world import World

ROOT = pathlib.Path(__file__).resolve().parents[2]


def say(text=""):
    print(text, flush=True)


def check(world, found):
    """Every version that was closed: on a drive, on the service, put aside, or accounted for."""
    exported, drives = found
    present = {value for tree in (exported, *drives) for value in tree.values() if value} | world.kept()
    for version in world.model.missing(present):
        world.model.fault("check", f"v{version.token} of {version.who}, closed at {version.path}, is nowhere",
                          v=version.token, path=version.path)
    # What is there now is watched from here on.
    return len(present)


def report(world, seed):
    """For each fault: what the events say of its version and path, and the log lines of those files."""
    say(f"\nFAILED. Seed {seed}; everything is in {world.folder}")
    events = [json.loads(line) for line in open(world.folder / "events.jsonl", encoding="utf-8")]
    for who, text, details in world.model.faults[:20]:
        say(f"\n{who}: {text}")
        path, token = details.get("path"), details.get("v")
        base = next((event.get("base") for event in events if event.get("v") == token and event["what"] == "write"), None)
        concerned = [event for event in events if token and (event.get("v") in (token, base) or event.get("base") == token)
                     or path and path in (event.get("path"), event.get("to"))]
        last = max((event["t"] for event in concerned if event.get("v") == token), default=0)
        concerned = [event for event in events if event in concerned or
                     last and event["who"] == "weather" and -2 < event["t"] - last < 30]
        for event in concerned[-40:]:
            say("    " + json.dumps(event, ensure_ascii=False))
        if path:
            name = path.rsplit("/", 1)[-1]
            for client in world.clients:
                lines = [line for log in client.logs() for line in log.read_text(errors="replace").splitlines() if name in line]
                for line in lines[-12:]:
                    say(f"    {client.name}: {line[:240]}")


def campaign(options, world, seed):
    weather = Weather(world, world.model, seed, set(filter(None, options.without.split(","))))
    began, rounds = time.monotonic(), 0

    def left():
        by_time = options.seconds - (time.monotonic() - began) if options.seconds else options.round
        return min(by_time, options.round) if weather.kills < options.kills else 0
    while left() > 0 and not world.model.faults:
        rounds += 1
        if rounds > 1:
            world.resume()
        world.begin_work()
        weather.run(left(), options.kills)
        before = time.monotonic()
        found = world.settle(weather)
        present = check(world, found) if found else 0
        say(f"round {rounds}: {weather.kills} kills, {world.model.closed} versions closed, {present} contents present,"
            f" settled in {time.monotonic() - before:.0f} s, {len(world.model.faults)} faults"
            f" ({time.monotonic() - began:.0f} s)")
    done = {}
    for user in world.users:
        for name, count in user.done.items():
            done[name] = done.get(name, 0) + count
    say("programs: " + ", ".join(f"{name} {count}" for name, count in sorted(done.items())))
    say("trouble: " + ", ".join(f"{name} {count}" for name, count in sorted(weather.done.items())))
    say(f"{sum(user.calls.count for user in world.users)} calls, the slowest"
        f" {max(user.calls.slowest for user in world.users):.1f} s")


def terminated(*_):
    raise KeyboardInterrupt


def main():
    arguments = argparse.ArgumentParser(prog="scripts/soak")
    arguments.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10**9))
    arguments.add_argument("--kills", type=int, default=500, help="kills until the end")
    arguments.add_argument("--seconds", type=float, default=0, help="work until the end; 0: until the kills are done")
    arguments.add_argument("--clients", type=int, choices=(2, 3), default=3)
    arguments.add_argument("--round", type=float, default=45, help="seconds of work between two comparisons")
    arguments.add_argument("--without", default="", help="kinds of trouble to leave out: log_out,withdraw,expiry ...")
    arguments.add_argument("--keep", action="store_true", help="keep the folder though nothing failed")
    arguments.add_argument("--bin", type=pathlib.Path, help="folder of the programs; nothing is built")
    options = arguments.parse_args()
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, terminated)
    seed = options.seed
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tarnwell-soak-"))
    say(f"seed {seed}, {options.clients} clients, in {folder}")
    world, status = None, 1
    try:
        world = World((options.bin or ROOT / "build/release/bin").resolve(), folder, seed, options.clients)
        campaign(options, world, seed)
    except Failure as failure:
        say(f"scripts/soak: {failure}")
        if world and not world.model.faults:
            world.model.fault("soak", str(failure))
    except KeyboardInterrupt:
        say("interrupted")
    else:
        status = 1 if world.model.faults else 0
    if world:
        if world.model.faults:
            report(world, seed)
        world.stop()
    if status == 0 and not options.keep:
        shutil.rmtree(folder, ignore_errors=True)
    say("Nothing was lost." if status == 0 else f"Failed: seed {seed}.")
    return status


if __name__ == "__main__":
    sys.exit(main())
