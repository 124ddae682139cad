"""What a user does on the drive between two power cuts; each call is told to the model."""
import ctypes
import os
import time

from power_cut_model import FOLDER, File, Lost, body

RENAME_EXCHANGE = 2
GONE = {5, 103, 107, 116}  # EIO, ECONNABORTED, ENOTCONN, ESTALE: the drive was killed
LIBC = ctypes.CDLL(None, use_errno=True)


def exchange(one, other):
    if LIBC.renameat2(-100, os.fsencode(one), -100, os.fsencode(other), RENAME_EXCHANGE) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), one)


def parent(path):
    """"" for what lies at the top."""
    return path.rpartition("/")[0]


def below(path, folder):
    return path.startswith(folder + "/")


class Work:
    """Performs operations on the folder `root` of the drive. REQUIRES: one thread."""

    def __init__(self, root, model, numbers, on_step=lambda: None):
        self.root, self.model, self.numbers, self.on_step = str(root), model, numbers, on_step
        self.named = 0
        self.log = []

    def at(self, path):
        return self.root + path

    def say(self, text):
        self.log.append(f"{time.monotonic_ns() / 1e9:.3f} {text}")

    def step(self, name, call, change):
        self.say(name)
        try:
            result = self.model.step(name, call, change)
        except OSError as error:
            self.say(f"  error {error.errno}")
            raise
        self.on_step()
        return result

    # Calls

    def open_new(self, path):
        file = File()
        descriptor = self.step(f"create {path} ({file})",
                               lambda: os.open(self.at(path), os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o600),
                               lambda tree: tree.update({path: file}))
        return descriptor, file

    def put(self, descriptor, file, contents, offset=0):
        """Contents that the file shall have from `offset` on, in one or a few writes."""
        old = file.newest()
        whole = old[:offset].ljust(offset, b"\0") + contents + old[offset + len(contents):]
        self.say(f"write {file} version {len(file.versions)}: {len(contents)} bytes at {offset}")
        file.begin(whole)
        piece = self.numbers.choice([len(contents), 4096, 10000]) or 1
        for at in range(0, len(contents), piece):
            os.pwrite(descriptor, contents[at:at + piece], offset + at)
        self.on_step()

    def sync(self, descriptor, file=None):
        begun = time.monotonic_ns()
        self.say(f"fsync {file or 'a folder'}")
        os.fsync(descriptor)
        if file:
            file.versions[-1].synced = time.monotonic_ns()
        self.model.note_synced(begun)
        self.on_step()

    def close(self, descriptor, file):
        os.close(descriptor)
        for version in file.versions:
            version.closed = version.closed or time.monotonic_ns()

    def sync_folder(self, path=""):
        descriptor = os.open(self.at(path), os.O_RDONLY | os.O_DIRECTORY)
        try:
            self.sync(descriptor)
        finally:
            os.close(descriptor)

    # Operations

    def fresh(self, file, size):
        return body(file.number, len(file.versions), size)

    def create(self, path, size, synced):
        descriptor, file = self.open_new(path)
        try:
            self.put(descriptor, file, self.fresh(file, size))
            if synced:
                self.sync(descriptor, file)
        finally:
            self.close(descriptor, file)

    def change(self, path, synced, how):
        file = self.model.tree[path]
        descriptor = os.open(self.at(path), os.O_RDWR)
        try:
            size = len(file.newest())
            if how == "truncate":
                to = self.numbers.randrange(size + 1) if self.numbers.random() < 0.8 else size + 5000
                self.say(f"truncate {file} to {to}: version {len(file.versions)}")
                file.begin(file.newest()[:to].ljust(to, b"\0"))
                os.ftruncate(descriptor, to)
                self.on_step()
            elif how == "append":
                new = self.fresh(file, size + self.numbers.choice([10, 4096, 9000]))
                self.put(descriptor, file, new[size:], size)
            else:
                new = self.fresh(file, max(size, 1))
                start = self.numbers.randrange(0, len(new), 4096)
                self.put(descriptor, file, new[start:start + self.numbers.choice([4096, 8192, len(new)])], start)
            if synced:
                self.sync(descriptor, file)
        finally:
            self.close(descriptor, file)

    def rename(self, path, to):
        def moved(tree):
            for each in [p for p in tree if p == path or below(p, path)]:
                tree[to + each[len(path):]] = tree.pop(each)
        self.step(f"rename {path} to {to}", lambda: os.rename(self.at(path), self.at(to)), moved)

    def exchange(self, one, other):
        def swapped(tree):
            tree[one], tree[other] = tree[other], tree[one]
        self.step(f"exchange {one} and {other}", lambda: exchange(self.at(one), self.at(other)), swapped)

    def save_by_temporary(self, path, size, synced, temporary=None):
        temporary = temporary or path + ".new"
        self.create(temporary, size, synced)
        self.rename(temporary, path)
        if synced:
            self.sync_folder(parent(path))

    def save_by_backup(self, path, size, synced):
        self.rename(path, path + ".bak")
        self.create(path, size, synced)

    def mkdir(self, path):
        self.step(f"mkdir {path}", lambda: os.mkdir(self.at(path)), lambda tree: tree.update({path: FOLDER}))

    def remove(self, path):
        call = os.rmdir if self.model.tree[path] is FOLDER else os.unlink
        self.step(f"{call.__name__} {path}", lambda: call(self.at(path)), lambda tree: tree.pop(path))

    def set_attributes(self, path):
        self.say(f"chmod and utime {path}")
        os.chmod(self.at(path), self.numbers.choice([0o600, 0o640, 0o700]))
        os.utime(self.at(path), ns=(10**18, 10**18 + self.numbers.randrange(10**9)))

    # At random

    def new_path(self):
        folders = [""] + [p for p, kind in self.model.tree.items() if kind is FOLDER]
        self.named += 1
        return self.numbers.choice(folders) + f"/n{self.named}"

    def random(self):
        pick, tree = self.numbers.choice, self.model.tree
        files = [p for p, kind in tree.items() if kind is not FOLDER]
        folders = [p for p, kind in tree.items() if kind is FOLDER]
        synced = self.numbers.random() < 0.35
        size = self.numbers.choice([1, 500, 4096, 5000, 12288, 40000, 1_500_000 if self.numbers.random() < 0.1 else 9])
        kind = pick(["create"] * 3 + ["overwrite"] * 2 + ["append"] * 2 + ["truncate", "temporary", "temporary",
                                                                        "backup", "rename", "replace", "mkdir", "move",
                                                                        "remove", "exchange", "attributes", "sync"])
        if not files or kind == "create" or len(files) < 3:
            self.create(self.new_path(), size, synced)
        elif kind in ("overwrite", "append", "truncate"):
            self.change(pick(files), synced, kind)
        elif kind == "temporary":
            path = pick(files)
            hidden = parent(path) + "/." + os.path.basename(path) + ".tmp"
            self.save_by_temporary(path, size, synced, pick([None, hidden]))
        elif kind == "backup":
            path = pick(files)
            if path + ".bak" not in folders:
                self.save_by_backup(path, size, synced)
        elif kind == "rename":
            self.rename(pick(files), self.new_path())
        elif kind == "replace":
            one, other = pick(files), pick(files)
            if one != other:
                self.rename(one, other)
        elif kind == "mkdir" and len(folders) < 6:
            self.mkdir(self.new_path())
        elif kind == "move" and folders:
            path, to = pick(folders), self.new_path()
            if not below(to, path):
                self.rename(path, to)
        elif kind == "remove":
            path = pick(files + folders)
            if not any(below(p, path) for p in tree):
                self.remove(path)
        elif kind == "exchange" and len(files) > 1:
            self.exchange(*self.numbers.sample(files, 2))
        elif kind == "attributes":
            self.set_attributes(pick(files))
        elif kind == "sync":
            self.sync_folder(parent(pick(files)))
