"""The demonstration behind scripts/demo: a service, a client and a drive of their own in a temporary folder."""
import argparse
import ctypes
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from compare_trees import compare, measure

ROOT = pathlib.Path(__file__).resolve().parent.parent
USER, PASSWORD = "demo@example.org", "a demonstration"
DOCUMENTATION = pathlib.Path("/usr/share/doc")
DOCUMENTATION_LIMIT = 400 << 20  # bytes
NEEDED_SPACE = 2 << 30
PR_SET_PDEATHSIG = 1


class Failure(Exception):
    """A step did not work; the text is for the user."""


def say(text=""):
    print(text, flush=True)


def end_with_parent():
    # A demonstration that is killed outright takes its programs, and with them the mount, along.
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def wait_until(what, done, seconds):
    deadline = time.monotonic() + seconds
    while not done():
        if time.monotonic() > deadline:
            raise Failure(f"{what}: not within {seconds} seconds")
        time.sleep(0.05)


def write(path, contents, modified=None):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(contents)
    if modified:
        os.utime(path, ns=(modified, modified))


def make_binaries(folder):
    """Sizes around every boundary that matters, and a few large ones; 0 bytes to 200 MB."""
    numbers = random.Random(1)
    sizes = [0, 1, 2, 511, 512, 513, 4095, 4096, 4097, 65535, 65536, 131071, 131072, 131073, 262143, 262144, 262145,
             1 << 20, (1 << 20) + 1, 2 << 20, (2 << 20) + 1, 5_000_000, 10_000_019, 50_000_000, 200_000_000]
    for size in sizes:
        write(folder / f"{size:09d} bytes.bin", numbers.randbytes(size), numbers.randrange(10**18, 18 * 10**17))
    for number in range(200):
        write(folder / "many" / f"{number % 10}" / f"{number}.bin", numbers.randbytes(numbers.randrange(40_000)))


def make_names(folder):
    """Names that programs get wrong."""
    names = [
        "Grüße aus Köln.txt", "cafe\u0301 decomposed.txt", "caf\u00e9 composed.txt", "Ångström\u2009thin space.txt",
        "日本語/漢字とかな.txt", "한국어/한글 이름.txt", "русский/файл.txt", "ελληνικά/αρχείο.txt", "עברית/קובץ.txt",
        "العربية/ملف.txt", "ไทย/ไฟล์.txt", "हिन्दी/फ़ाइल.txt", "emoji 👩\u200d👩\u200d👧 😀.txt",
        " leading space.txt", "trailing space ", "two  spaces.txt", "tab\tin name.txt", "quotes ' and \".txt",
        "percent %20 %41.txt", "plus + and & and = and #.txt", "semi;colon:comma,.txt", "back\\slash.txt",
        "question? star* pipe|.txt", "<angle> {curly} [square].txt", "~tilde", ".hidden", "dots...", "-dash",
        "a" * 255, "b" * 251 + ".txt", "é" * 85, "UPPER.TXT", "lower.txt",
    ]
    for name in names:
        write(folder / name, name.encode() * 3)
    deep = folder / "deep"
    for level in range(100):
        deep = deep / f"level {level}"
    write(deep / "bottom.txt", b"100 levels down\n")
    wide = folder / "wide"
    for number in range(2000):
        write(wide / f"file {number}", b"%d\n" % number)
    (folder / "empty folder").mkdir()


def make_archive(folder, archive):
    """A source tree of 2,000 files and a few large ones, as an archive."""
    numbers = random.Random(2)
    for number in range(2000):
        write(folder / f"module {number % 40}" / f"part {number % 7}" / f"{number}.c",
              numbers.randbytes(numbers.randrange(1, 12_000)), 10**18 + number * 10**9)
    for megabytes in (1, 5, 30):
        write(folder / f"{megabytes} MB.bin", numbers.randbytes(megabytes << 20), 10**18)
    run("tar", "-cf", archive, "-C", folder, *sorted(os.listdir(folder)))  # a share's own attributes stay as they are
    shutil.rmtree(folder)


def work_on(folder, archive):
    """What a user does in a morning; the times of what is written are set, so that folders can be compared."""
    run("tar", "-xf", archive, "-C", folder)

    def stamp(path):
        os.utime(path, ns=(15 * 10**17, 15 * 10**17))

    def save_as_editors_do(path, contents):
        new = path.with_name(path.name + ".new")
        new.write_bytes(contents)
        os.replace(new, path)
        stamp(path)
    for number, path in enumerate(sorted((folder / "module 0/part 0").iterdir())):
        save_as_editors_do(path, b"edited %d\n" % number)
    with open(folder / "5 MB.bin", "r+b") as file:
        file.seek(2_000_000)
        file.write(b"in the middle" * 1000)
    stamp(folder / "5 MB.bin")
    with open(folder / "1 MB.bin", "ab") as file:
        file.write(b"at the end")
    stamp(folder / "1 MB.bin")
    os.truncate(folder / "module 1/part 1/1.c", 1)
    stamp(folder / "module 1/part 1/1.c")
    os.rename(folder / "module 2", folder / "module two")
    os.rename(folder / "module 3/part 3", folder / "module two/moved part")
    for name in ("module 4", "module 5/part 5"):
        shutil.rmtree(folder / name)
    shutil.copytree(folder / "module 6", folder / "copies/of module 6")
    (folder / "caf\u00e9 \u65e5\u672c").mkdir()
    write(folder / "caf\u00e9 \u65e5\u672c" / "note.txt", b"written on the drive\n", 15 * 10**17)


def documentation(folder):
    """This machine's documentation; of a very large one, the first packages up to a limit."""
    if measure(DOCUMENTATION)[2] <= DOCUMENTATION_LIMIT:
        return DOCUMENTATION
    copied = 0
    for package in sorted(DOCUMENTATION.iterdir()):
        if package.is_symlink() or not package.is_dir():
            continue
        size = measure(package)[2]
        if copied + size > DOCUMENTATION_LIMIT:
            continue
        copied += size
        shutil.copytree(package, folder / package.name, symlinks=True)
    return folder


def run(*command, text=None, environment=None):
    done = subprocess.run([str(part) for part in command], input=text, capture_output=True, text=True,
                          env=environment, preexec_fn=end_with_parent)
    if done.returncode != 0:
        raise Failure(f"{' '.join(str(part) for part in command)}: {done.stderr.strip() or done.stdout.strip()}")
    return done.stdout


def start(log, *command, environment=None):
    # A session of its own: Ctrl-C at the terminal reaches this script only, which ends the programs in order.
    with open(log, "wb") as output:
        return subprocess.Popen([str(part) for part in command], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                env=environment, start_new_session=True, preexec_fn=end_with_parent)


def end(process, signals, seconds):
    for number in signals:
        if process is None or process.poll() is not None:
            return
        process.send_signal(number)
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            pass


class Machine:
    """One client of the user, with a home folder of its own."""

    def __init__(self, program, folder, name):
        self.program = program
        self.home = folder / name
        self.drive = self.home / "Tarnwell"
        self.log = folder / f"{name}.log"
        self.process = None

    def environment(self):
        own = {"HOME": self.home, "XDG_DATA_HOME": self.home / "data", "XDG_CONFIG_HOME": self.home / "config",
               "XDG_CACHE_HOME": self.home / "cache", "XDG_RUNTIME_DIR": self.home / "run"}
        return {**os.environ, **{name: str(path) for name, path in own.items()}}

    def tarnwell(self, *arguments, text=None):
        return run(self.program, *arguments, text=text, environment=self.environment())

    def status(self):
        return json.loads(self.tarnwell("status", "--json"))

    def mount(self, address, authority):
        self.home.mkdir()
        for key, value in {"TWGlobalAddress": address, "TWKeychainFile": self.home / "keychain",
                           "TWCertificateAuthority": authority}.items():
            self.tarnwell("settings", "set", key, value)
        self.tarnwell("login", "--user", USER, "--password-stdin", text=PASSWORD + "\n")
        self.process = start(self.log, self.program, "--headless", environment=self.environment())

        def mounted():
            if self.process.poll() is not None:
                raise Failure("the client ended: " + self.log.read_text())
            return os.path.ismount(self.drive)
        wait_until("the drive is mounted", mounted, 60)

    def wait_for_uploads(self):
        wait_until("everything is sent", lambda: self.status()["uploadQueueLen"] == 0, 300)

    def stop(self):
        # Asked twice: with files of the drive open, the first request is refused.
        end(self.process, [signal.SIGTERM, signal.SIGTERM, signal.SIGKILL], 10)
        if os.path.ismount(self.drive) or self.process and self.process.returncode == -signal.SIGKILL:
            command = ["umount", "-l"] if os.geteuid() == 0 else ["fusermount3", "-uz"]
            subprocess.run([*command, str(self.drive)], stderr=subprocess.DEVNULL, check=False)


class Demo:
    def __init__(self, programs, folder):
        self.programs, self.folder = programs, folder
        self.service = None
        self.first = Machine(programs / "tarnwell", folder, "home")
        self.second = Machine(programs / "tarnwell", folder, "second-home")
        self.shares = {}

    def admin(self, *arguments, text=None):
        return run(self.programs / "tarnwell-service", "--data", self.folder / "service", *arguments, text=text)

    def fill(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.address = f"demo.localhost:{self.port}"
        make_binaries(self.folder / "binaries")
        make_names(self.folder / "names")
        self.shares = {"Documentation": documentation(self.folder / "documentation"),
                       "Binaries": self.folder / "binaries", "Names": self.folder / "names"}
        self.admin("domain", "add", "demo", "--address", self.address)
        self.admin("user", "add", USER, "--domain", "demo", "--password-stdin", text=PASSWORD + "\n")
        for name, source in self.shares.items():
            began = time.monotonic()
            self.admin("share", "add", name, "--domain", "demo")
            self.admin("share", "import", name, source)
            self.admin("share", "grant", name, USER)
            folders, files, size = measure(source)
            say(f"  {name}: {files} files, {folders} folders, {size / 1e6:.0f} MB from {source}"
                f" in {time.monotonic() - began:.1f} s")

    def serve(self):
        log = self.folder / "service.log"
        self.service = start(log, self.programs / "tarnwell-service", "--data", self.folder / "service", "serve",
                             "--port", self.port, "--quiet")

        def listening():
            if self.service.poll() is not None:
                raise Failure("the service ended: " + log.read_text())
            return "listening on" in log.read_text()
        wait_until("the service listens", listening, 30)

    def mount(self, machine):
        began = time.monotonic()
        machine.mount(self.address, self.folder / "service/tls/ca.pem")
        for name, source in self.shares.items():
            expected = measure(source)[:2]
            wait_until(f"share {name} is complete",
                       lambda: (machine.drive / name).is_dir() and measure(machine.drive / name)[:2] == expected, 120)
        say(f"  logged in, mounted, every share complete in {time.monotonic() - began:.1f} s")

    def show(self):
        status = self.first.status()
        say(f"\nThe drive is at {self.first.drive} ({status['state']}, user {status['user']}).\n")
        for name in self.shares:
            entries = sorted(os.listdir(self.first.drive / name))
            say(f"  {name}/  {len(entries)} entries, e.g. " + ", ".join(repr(entry[:40]) for entry in entries[:4]))
        variables = " ".join(f"{name}={value}" for name, value in self.first.environment().items()
                             if name in ("HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME"))
        say(f"\nIts state:  env {variables} {self.programs / 'tarnwell'} status")
        say("Stop it with Ctrl-C; everything is taken away then.")
        signal.pause()

    def compare(self, source, shown, what):
        """The number of differences."""
        result = compare(source, shown)
        speed = result.bytes / 1e6 / max(result.seconds, 1e-9)
        say(f"  {what}: {result.files} files, {result.folders} folders, {result.bytes / 1e6:.0f} MB read and"
            f" compared in {result.seconds:.1f} s ({speed:.0f} MB/s), {len(result.faults)} differences")
        for fault in result.faults[:20]:
            say(f"    {fault}")
        return len(result.faults)

    def check_reading(self):
        return sum(self.compare(source, self.first.drive / name, name) for name, source in self.shares.items())

    def check_writing(self):
        """Works on the drive as on a disk, with the same done to a plain folder beside it."""
        name = "Work"
        plain, archive, exported = self.folder / "plain", self.folder / "archive.tar", self.folder / "exported"
        self.admin("share", "add", name, "--domain", "demo")
        self.admin("share", "grant", name, USER)
        self.first.tarnwell("refresh")
        wait_until("the new share", lambda: (self.first.drive / name).is_dir(), 60)
        make_archive(self.folder / "to be packed", archive)
        plain.mkdir()
        began = time.monotonic()
        for folder in (plain, self.first.drive / name):
            work_on(folder, archive)
        say(f"  unpacked, edited, renamed and deleted in {time.monotonic() - began:.1f} s")
        faults = self.compare(plain, self.first.drive / name, "the drive itself")
        self.first.wait_for_uploads()
        say(f"  everything is on the service {time.monotonic() - began:.1f} s after the beginning")
        self.admin("share", "export", name, exported)
        faults += self.compare(plain, exported, "the service")
        self.shares[name] = plain
        self.mount(self.second)
        return faults + self.compare(plain, self.second.drive / name, "a second machine")

    def stop(self):
        self.second.stop()
        self.first.stop()
        end(self.service, [signal.SIGTERM, signal.SIGKILL], 10)
        # An interruption in the moment of a start leaves a program that nobody has noted.
        for child in pathlib.Path("/proc/thread-self/children").read_text().split():
            os.kill(int(child), signal.SIGKILL)
            os.waitpid(int(child), 0)
        say("Removing what was made...")
        shutil.rmtree(self.folder, ignore_errors=True)


def terminated(*_):
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, signal.SIG_IGN)  # the clean-up runs to its end
    raise KeyboardInterrupt


def main():
    arguments = argparse.ArgumentParser(prog="scripts/demo")
    arguments.add_argument("--check", action="store_true", help="compare the drive with its sources, work on it, compare again, then end")
    arguments.add_argument("--bin", type=pathlib.Path, help="folder of the programs; nothing is built")
    options = arguments.parse_args()
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, terminated)

    demo, status = None, 1
    try:
        if not options.bin:
            say("Building...")
            if subprocess.run([ROOT / "scripts/build", "release", "tarnwell", "tarnwell-service"],
                              preexec_fn=end_with_parent, check=False).returncode != 0:
                raise Failure("the build failed")
        folder = pathlib.Path(tempfile.mkdtemp(prefix="tarnwell-demo-"))
        demo = Demo((options.bin or ROOT / "build/release/bin").resolve(), folder)
        if shutil.disk_usage(folder).free < NEEDED_SPACE:
            raise Failure(f"{folder} needs {NEEDED_SPACE >> 30} GiB of free space; set TMPDIR to a larger disk")
        say("Filling three shares...")
        demo.fill()
        demo.serve()
        say("Mounting...")
        demo.mount(demo.first)
        if options.check:
            say("Comparing the drive with its sources...")
            faults = demo.check_reading()
            say("Working on the drive...")
            faults += demo.check_writing()
            status = 1 if faults else 0
            say("Drive, service and sources are the same." if status == 0 else "There are differences.")
        else:
            demo.show()
    except Failure as failure:
        say(f"scripts/demo: {failure}")
    except KeyboardInterrupt:
        say("\nStopping...")
        status = 1 if options.check else 0
    finally:
        if demo:
            demo.stop()
    return status


if __name__ == "__main__":
    sys.exit(main())
