"""A user who works on one drive: a random program after the other, each as programs do it."""
import errno
import os
import random
import threading
import time

from contents import BLOCK, blocks
from drive import REFUSED, Calls, local_only, rename_to_free_place
from machines import SHARES

FILE_NAMES = ["report.txt", "notes.md", "a", "b.bin", "Gr\u00fc\u00dfe.txt", "cafe\u0301", "plan 1.ods", "todo"]
FOLDER_NAMES = ["one", "two", "three", "four", "\u00dcbung"]
MOST_FILES, MOST_FOLDERS, DEEPEST = 60, 14, 3
PAUSE = (0.02, 0.2)


class Held:
    """A file that is kept open over what happens meanwhile."""

    def __init__(self, file, inode, path, version, part, until):
        self.file, self.inode, self.path, self.version, self.part, self.until = file, inode, path, version, part, until
        self.own_changes = False     # this user changed the same file through another handle
        self.removed = False         # this user removed or replaced it


class User:
    def __init__(self, client, model, seed):
        self.client, self.model = client, model
        self.who = client.name
        self.random = random.Random(f"{seed}/{client.name}")
        self.calls = Calls(model, self.who)
        self.held = []
        self.turn = threading.Lock()     # held during each program that the user runs
        self.stopping = False
        self.last_drained = time.time()
        self.done = {}
        self.thread = threading.Thread(target=self.run, daemon=True)

    # --- the loop

    def run(self):
        weights = {self.create: 14, self.append: 8, self.overwrite_in_place: 10, self.truncate: 6, self.write_anew: 8,
                   self.save_by_rename: 14, self.save_with_backup: 10, self.save_with_copy: 5, self.rename_file: 10,
                   self.rename_over: 4, self.rename_folder: 6, self.make_folder: 6, self.remove_folder: 4,
                   self.remove_tree: 1, self.remove: 6, self.hold_for_reading: 6, self.hold_for_writing: 6,
                   self.compare: 12}
        while not self.stopping:
            with self.turn:
                if not self.stopping:
                    self.finish_held()
                    program = self.random.choices(list(weights), list(weights.values()))[0]
                    self.attempt(program)
            time.sleep(self.random.uniform(*PAUSE))

    def attempt(self, program, *arguments):
        try:
            program(*arguments)
            self.done[program.__name__] = self.done.get(program.__name__, 0) + 1
        except OSError as error:
            self.model.note(self.who, "failed", program=program.__name__,
                            error=errno.errorcode.get(error.errno, str(error.errno)))
        except ValueError as error:  # the drive showed bytes that nobody wrote; noted where they were read
            self.model.note(self.who, "failed", program=program.__name__, error=str(error))

    def rest(self):
        """Closes everything. Caller must hold `turn`."""
        for held in self.held:
            held.until = 0
        self.finish_held()

    # --- looking around

    def path(self, relative):
        return os.path.join(self.client.drive, relative)

    def tree(self, deepest=DEEPEST):
        files, folders = [], []

        def add(folder, depth):
            folders.append(folder)
            for entry in self.calls(lambda path: sorted(os.scandir(path), key=lambda item: item.name),
                                    self.path(folder)):
                relative = f"{folder}/{entry.name}"
                if self.calls(entry.is_dir, follow_symlinks=False):
                    if depth < deepest:
                        add(relative, depth + 1)
                else:
                    files.append(relative)
        for share in SHARES:
            try:
                add(share, 0)
            except OSError:
                pass
        if not folders:
            raise OSError(errno.ENOENT, "no share")
        return files, folders

    def any_file(self, local=False):
        files = [path for path in self.tree()[0] if local or not local_only(os.path.basename(path))]
        if not files:
            raise OSError(errno.ENOENT, "no file")
        return self.random.choice(files)

    def any_folder(self, of=None):
        folders = [path for path in self.tree()[1] if not of or path.split("/")[0] == of]
        if not folders:
            raise OSError(errno.ENOENT, "no folder")
        return self.random.choice(folders)

    def identify(self, contents, path):
        try:
            return self.model.identify(contents)
        except ValueError as error:
            self.model.fault(self.who, f"{path} showed what nobody wrote: {error}", path=path)
            raise

    def contents(self, relative):
        file = self.calls(os.open, self.path(relative), os.O_RDONLY | os.O_CLOEXEC)
        try:
            return self.calls.read_rest(file)
        finally:
            self.close(file)

    def look(self, relative):
        """The version at the path now; None when there is no file, or an empty one."""
        try:
            return self.identify(self.contents(relative), relative)
        except FileNotFoundError:
            return None

    def close(self, file):
        self.calls(os.close, file)

    def holds(self, inode):
        return [held for held in self.held if held.inode == inode]

    def will_remove(self, relative):
        """What is at the path loses its name by this user's own doing."""
        try:
            inode = self.calls(os.lstat, self.path(relative)).st_ino
        except OSError:
            return []
        return self.holds(inode)

    def removed(self, version, holders, reason):
        for held in holders:
            held.removed = True
        self.model.excuse(version, f"{reason} by {self.who}")

    # --- writing

    def size(self):
        """Blocks of a new version: mostly small, sometimes more than one chunk."""
        return self.random.choice([1, 2, 5, 40, 64, 65, 300, 1100, self.random.randrange(1, 5000)] +
                                  ([17000] if self.random.random() < 0.1 else []))

    def write_new(self, relative, flags, base=None, sync=False):
        """A whole version into the file; with O_TRUNC the one that was there is gone from the open on."""
        token, count = self.model.new_token(), self.size()
        version = self.model.begin(token, blocks(token, 0, count, count), base, self.who, relative)
        try:
            file = self.calls(os.open, self.path(relative), os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | flags, 0o644)
        except OSError as error:
            if error.errno not in REFUSED:
                self.lost(version, base if flags & os.O_TRUNC else None, error)
            raise
        self.write_and_close(file, version, [(0, version.contents)], base if flags & os.O_TRUNC else None, sync=sync,
                             begun=True)
        return version

    def write_and_close(self, file, version, pieces, base, cut=None, sync=False, begun=False):
        """What a program promises itself of `close`: the version is kept, in place of its base."""
        try:
            try:
                if cut is not None:
                    self.calls(os.ftruncate, file, cut)
                    begun = True
                for at, piece in pieces:
                    self.calls.write_all(file, piece, at)
                    begun = True
                if sync:
                    self.calls(os.fsync, file)
            except OSError:
                try:
                    os.close(file)
                except OSError:
                    pass
                raise
            self.close(file)
        except OSError as error:
            if begun or error.errno not in REFUSED:
                self.lost(version, base, error)
            raise
        self.model.replaced(base, version, True)
        self.model.close(version)

    def lost(self, version, base, error):
        self.model.interrupted(version, True, errno.errorcode.get(error.errno, str(error.errno)))
        self.model.excuse(base, f"v{version.token} was being written over it")

    def edit(self, relative, change):
        """Reads all through one handle, and writes through it what `change` makes of that."""
        file = self.calls(os.open, self.path(relative), os.O_RDWR | os.O_CLOEXEC)
        try:
            inode = self.calls(os.fstat, file).st_ino
            holders = self.holds(inode)
            if any(held.version for held in holders):
                self.close(file)
                return
            base = self.identify(self.calls.read_rest(file), relative)
        except (OSError, ValueError):
            os.close(file)
            raise
        for held in holders:
            held.own_changes = True
        self.apply(file, base, relative, change)

    def apply(self, file, base, relative, change, removed=False):
        old = base.contents if base else b""
        token = self.model.new_token()
        cut, at, piece = change(token, old)
        whole = (old if cut is None else old[:cut])
        version = self.model.begin(token, whole[:at] + piece + whole[at + len(piece):], base, self.who, relative)
        self.write_and_close(file, version, [(at, piece)], base, cut)
        if removed:
            self.model.excuse(version, "its file had been removed by its writer")

    def at_end(self, token, old):
        first, count = len(old) // BLOCK, self.random.randrange(1, 40)
        return None, first * BLOCK, blocks(token, first, count, first + count)

    def in_place(self, token, old):
        total = max(1, len(old) // BLOCK)
        first = self.random.randrange(total)
        count = min(total - first, self.random.choice([1, 3, 64, 2000]))
        return None, first * BLOCK, blocks(token, first, count, total)

    def shorter(self, token, old):
        left = self.random.randrange(max(1, len(old) // BLOCK))
        return left * BLOCK, left * BLOCK, blocks(token, left, 1, left + 1)

    # --- programs

    def create(self):
        files, folders = self.tree()
        if len(files) > MOST_FILES:
            return self.remove()
        self.write_new(f"{self.random.choice(folders)}/{self.random.choice(FILE_NAMES)}", os.O_EXCL,
                       sync=self.random.random() < 0.1)

    def append(self):
        self.edit(self.any_file(), self.at_end)

    def overwrite_in_place(self):
        self.edit(self.any_file(), self.in_place)

    def truncate(self):
        self.edit(self.any_file(), self.shorter)

    def write_anew(self):
        path = self.any_file()
        for held in self.will_remove(path):
            if held.version:
                return
            held.own_changes = True
        self.write_new(path, os.O_TRUNC, self.look(path))

    def put_in_place(self, saved, temporary, path):
        """rename(2) over the file, by somebody who has just read it."""
        base = self.look(path)
        holders = self.will_remove(path)
        try:
            self.calls(os.rename, self.path(temporary), self.path(path))
        except OSError as error:
            if error.errno not in REFUSED and base:
                self.model.replaced(base, saved, False)
            raise
        self.model.note(self.who, "renamed over", v=saved.token, base=base.token if base else None, path=path)
        if base:
            for held in holders:
                held.removed = True
            if base is not saved:
                self.model.replaced(base, saved, True)

    def save_by_rename(self):
        path = self.any_file()
        folder, name = os.path.split(path)
        kind = self.random.choice(["{}.{}.new", ".{}.{}.swp", "{}.{}.tmp"])
        temporary = f"{folder}/{kind.format(name, self.random.randrange(10**6))}"
        saved = self.write_new(temporary, os.O_EXCL, sync=self.random.random() < 0.2)
        self.put_in_place(saved, temporary, path)

    def move_to_backup(self, path, backup):
        old = self.look(backup)
        holders = self.will_remove(backup) if old else []
        try:
            self.calls(os.rename, self.path(path), self.path(backup))
        except OSError as error:
            if error.errno not in REFUSED:
                self.removed(old, holders, "replaced by a backup")
            raise
        self.removed(old, holders, "replaced by a backup")

    def save_with_backup(self):
        path = self.any_file()
        backup = path + self.random.choice(["~", ".bak"])
        base = self.look(path) if self.random.random() < 0.7 else None
        self.move_to_backup(path, backup)
        self.write_new(path, os.O_EXCL, base)
        if self.random.random() < 0.5:
            self.remove(backup)

    def save_with_copy(self):
        path = self.any_file()
        backup = path + ".copy"
        base, old = self.look(path), self.look(backup)
        if not base or any(held.version for held in self.will_remove(backup)):
            return
        for held in self.will_remove(backup):
            held.own_changes = True
        try:
            file = self.calls(os.open, self.path(backup), os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o644)
            try:
                self.calls.write_all(file, base.contents)
            finally:
                self.close(file)
        except OSError as error:
            if error.errno not in REFUSED:
                self.model.copy_interrupted(self.who, old, base)
            raise
        if old is not base:
            self.model.excuse(old, f"overwritten by a copy by {self.who}")
        self.edit(path, self.in_place)

    def rename_file(self):
        path = self.any_file(local=True)
        name = self.random.choice(FILE_NAMES)
        self.calls(rename_to_free_place, self.path(path), self.path(f"{self.any_folder(path.split('/')[0])}/{name}"))
        self.model.note(self.who, "renamed", path=path, name=name)

    def rename_over(self):
        path = self.any_file()
        target = self.random.choice([other for other in self.tree()[0] if other.split("/")[0] == path.split("/")[0]])
        moved = self.look(path)
        if target != path and moved:
            self.put_in_place(moved, path, target)

    def rename_folder(self):
        share = self.random.choice(SHARES)
        path = self.any_folder(share)
        if "/" not in path:
            return
        target = f"{self.any_folder(share)}/{self.random.choice(FOLDER_NAMES)}"
        self.calls(rename_to_free_place, self.path(path), self.path(target))
        self.model.note(self.who, "renamed folder", path=path, to=target)

    def make_folder(self):
        folders = self.tree()[1]
        if len(folders) < MOST_FOLDERS:
            self.calls(os.mkdir, self.path(f"{self.random.choice(folders)}/{self.random.choice(FOLDER_NAMES)}"))

    def remove_folder(self):
        path = self.any_folder()
        if "/" in path:
            self.calls(os.rmdir, self.path(path))
            self.model.note(self.who, "rmdir", path=path)

    def remove_tree(self):
        path = self.any_folder()
        if "/" not in path:
            return
        files, folders = self.tree()
        for file in files:
            if file.startswith(path + "/"):
                self.remove(file)
        for folder in sorted(folders, reverse=True):
            if folder == path or folder.startswith(path + "/"):
                self.calls(os.rmdir, self.path(folder))
        self.model.note(self.who, "rm -r", path=path)

    def remove(self, path=None):
        path = path or self.any_file(local=True)
        version = self.look(path)
        holders = self.will_remove(path)
        self.model.note(self.who, "unlink", path=path, v=version.token if version else None)
        try:
            self.calls(os.unlink, self.path(path))
        except OSError as error:
            if error.errno not in REFUSED:
                self.removed(version, holders, "being removed")
            raise
        self.removed(version, holders, "removed")

    def hold(self, flags):
        path = self.any_file()
        file = self.calls(os.open, self.path(path), flags | os.O_CLOEXEC)
        try:
            status = self.calls(os.fstat, file)
            holding = self.holds(status.st_ino)
            writing = flags == os.O_RDWR
            if len(self.held) > 4 or writing and holding or any(held.version for held in holding):
                self.close(file)
                return
            until = time.monotonic() + self.random.uniform(0.3, 9)
            if writing:
                contents = self.calls.read_rest(file)
                version = self.identify(contents, path)
                if version:
                    self.held.append(Held(file, status.st_ino, path, version, contents, until))
                    return
            else:
                part = self.calls(os.pread, file, max(1, status.st_size // 2), 0)
                if part:
                    self.held.append(Held(file, status.st_ino, path, None, part, until))
                    return
        except (OSError, ValueError):
            os.close(file)
            raise
        self.close(file)

    def hold_for_reading(self):
        self.hold(os.O_RDONLY)

    def hold_for_writing(self):
        self.hold(os.O_RDWR)

    def finish_held(self):
        due = [held for held in self.held if time.monotonic() >= held.until]
        self.held = [held for held in self.held if held not in due]
        for held in due:
            self.attempt(self.finish_writing if held.version else self.finish_reading, held)

    def finish_reading(self, held):
        try:
            whole = held.part + self.calls.read_rest(held.file, len(held.part))
            if not held.own_changes:
                self.identify(whole, f"{held.path} (open since {len(held.part)} bytes were read)")
        finally:
            self.close(held.file)

    def finish_writing(self, held):
        change = self.random.choice([self.at_end, self.in_place, self.shorter])
        self.apply(held.file, held.version, held.path, change, held.removed)

    def compare(self):
        for _ in range(3):
            self.look(self.any_file())
