"""What may be on the drive after a power cut: the model behind scripts/power-cuts.

A workload is a list of steps, one system call that changes names or contents each. Names that were changed in a step
may be lost together with all later steps, until something on the drive was synced: the drive logs its changes in
order, and fsync makes the log durable. Contents of a file are promised after its own fsync; what was written after it
may be lost page by page."""
import time

PAGE, SECTOR = 4096, 512
FOLDER = "folder"


class Lost(Exception):
    """The drive went away during a call."""


class Fault(Exception):
    """A promise was broken."""


def body(number, version, size):
    """Bytes that say whose they are, in every page."""
    pages = []
    for page in range((size + PAGE - 1) // PAGE):
        mark = b"<file %d version %d page %d>" % (number, version, page)
        pages.append((mark * (PAGE // len(mark) + 1))[:PAGE])
    return b"".join(pages)[:size]


class Version:
    def __init__(self, contents):
        self.contents, self.begun, self.closed, self.synced, self.sent = contents, time.monotonic_ns(), None, None, None


class File:
    """The contents that one file had, oldest first; the first is empty, as it was created."""
    count = 0
    torn_after_sent = 0  # versions that the service had, torn here by a later edit that was not synced

    def __init__(self):
        File.count += 1
        self.number = File.count
        self.versions = [Version(b"")]
        self.unsure = False  # a call on it failed

    def __repr__(self):
        return f"file {self.number}"

    @staticmethod
    def found(contents):
        """A file that is on the service already."""
        file = File()
        file.versions = [Version(contents)]
        file.versions[0].closed = file.versions[0].sent = file.versions[0].begun
        return file

    def newest(self):
        return self.versions[-1].contents

    def begin(self, contents):
        self.versions.append(Version(contents))

    def promised(self, cut, how):
        """The index of the newest version with this promise at the time of the cut."""
        indexes = [i for i, v in enumerate(self.versions) if getattr(v, how) and getattr(v, how) <= cut]
        return max(indexes, default=-1)

    def fault(self, shown, first, cut, whole):
        """Why these bytes cannot be the file's, from version `first` on; None when they can."""
        versions = [v.contents for v in self.versions[max(first, 0):] if v.begun <= cut]
        if shown in versions:
            return None
        if first == len(self.versions) - 1 or whole or len(versions) == 1:
            return f"{self}: {describe(shown)} instead of {[describe(v) for v in versions]}"
        if first < 0 and self.versions[0].sent:
            File.torn_after_sent += 1
            versions.append(b"")
        sizes = [len(v) for v in versions]
        if not min(sizes) <= len(shown) <= max(sizes):
            return f"{self}: {len(shown)} bytes, its versions have {sizes}"
        for start in range(0, len(shown), SECTOR):
            sector = shown[start:start + SECTOR]
            if not any(may_be_of(sector, v[start:start + SECTOR]) for v in versions):
                return f"{self}: {sector[:60]!r} at {start} is no version's; {[describe(v) for v in versions]}"
        return None


def may_be_of(sector, written):
    """The version's, up to some byte: what comes after it was written later or never."""
    kept = len(sector.rstrip(b"\0"))
    return sector[:kept] == written[:kept]


def describe(contents):
    if contents is None:
        return "nothing readable"
    marks = []
    for start in range(0, len(contents), PAGE):
        mark = contents[start:contents.find(b">", start) + 1 or start + 40][:60].decode(errors="replace")
        mark = mark if mark.startswith("<file") else "zeros" if not contents[start:start + PAGE].strip(b"\0") else "?"
        version = mark.split(" page")[0].strip("<")
        if not marks or marks[-1] != version:
            marks.append(version)
    return f"{len(contents)} bytes of {', '.join(marks[:6]) or 'nothing'}"


class Step:
    def __init__(self, name, tree):
        self.name, self.tree, self.begun, self.done = name, tree, time.monotonic_ns(), None


class Model:
    """The steps of one workload, the tree after each (path -> File or FOLDER), and what was promised when."""

    def __init__(self, tree=None):
        self.steps = [Step("beginning", dict(tree or {}))]
        self.steps[0].done = self.steps[0].begun
        self.syncs = []       # (steps before it, when it was done)
        self.sent = []        # the same for "the service has everything"
        self.files = {f for f in self.steps[0].tree.values() if f is not FOLDER}

    @property
    def tree(self):
        return self.steps[-1].tree

    def step(self, name, call, change):
        """Performs a call that changes names: `change` makes of the tree the one after it."""
        tree = dict(self.tree)
        change(tree)
        self.steps.append(Step(name, tree))
        self.files |= {f for f in tree.values() if f is not FOLDER}
        result = call()
        self.steps[-1].done = time.monotonic_ns()
        return result

    def note_failed(self, happened):
        """The last step failed with an error: whether it happened nevertheless."""
        if happened:
            self.steps[-1].done = time.monotonic_ns()
        else:
            self.steps.pop()

    def note_synced(self, begun):
        steps = sum(1 for s in self.steps if s.done and s.done <= begun)
        self.syncs.append((steps, time.monotonic_ns()))

    def note_sent(self, begun):
        """Everything that was closed before `begun` is on the service."""
        now = time.monotonic_ns()
        self.sent.append((sum(1 for s in self.steps if s.done and s.done <= begun), now))
        for file in self.files:
            for version in file.versions:
                if version.closed and version.closed <= begun and not version.sent:
                    version.sent = now

    def possible_trees(self, cut, nothing_lost=False):
        last = sum(1 for s in self.steps if s.begun <= cut)
        if nothing_lost:
            first = sum(1 for s in self.steps if s.done and s.done <= cut)
        else:
            first = max([steps for steps, when in self.syncs if when <= cut], default=1)
        return [s.tree for s in self.steps[first - 1:last]]

    def check(self, shown, cut, nothing_lost=False):
        """`shown`: path -> bytes, None for unreadable, or FOLDER. Raises Fault."""
        trees = self.possible_trees(cut, nothing_lost)
        names = {path: kind is FOLDER for path, kind in shown.items()}
        fitting = [t for t in trees if {path: kind is FOLDER for path, kind in t.items()} == names]
        if not fitting:
            nearest = min(trees, key=lambda t: len(set(t) ^ set(names)))
            raise Fault(f"names: none of the {len(trees)} possible trees; nearest lacks "
                        f"{sorted(set(names) - set(nearest))}, shows too little of {sorted(set(nearest) - set(names))}")
        faults = min((self.faults_of_contents(t, shown, cut, nothing_lost) for t in fitting), key=len)
        if faults:
            raise Fault("contents: " + "; ".join(faults))

    @staticmethod
    def faults_of_contents(tree, shown, cut, nothing_lost):
        faults = []
        for path, file in tree.items():
            if file is FOLDER:
                continue
            first = file.promised(cut, "closed" if nothing_lost else "synced")
            if shown[path] is None:
                if first > 0 or nothing_lost:
                    faults.append(f"{path} cannot be read; {file} version {first} was promised")
                continue
            if fault := file.fault(shown[path], first, cut, False):
                faults.append(f"{path}: {fault}")
        return faults

    def settle(self, shown):
        """A call failed: what it was to do may have happened or not. The drive says which."""
        step = self.steps[-1]
        if not step.done:
            names = {path: kind is FOLDER for path, kind in shown.items()}
            if {path: kind is FOLDER for path, kind in step.tree.items()} == names:
                step.done = time.monotonic_ns()
            else:
                self.steps.pop()
        for path, kind in self.tree.items():
            # A write that failed may have changed a part; what follows builds on what is there.
            if kind is not FOLDER and shown.get(path) is not None and shown[path] != kind.newest():
                kind.unsure = True
                kind.begin(shown[path])

    def check_survived(self, shown):
        """After failing calls: what succeeded is there, and nothing else."""
        names = {path: kind is FOLDER for path, kind in shown.items()}
        expected = {path: kind is FOLDER for path, kind in self.tree.items()}
        if names != expected:
            raise Fault(f"names: lacks {sorted(set(expected) - set(names))}, "
                        f"shows too much {sorted(set(names) - set(expected))}")
        for path, file in self.tree.items():
            if file is FOLDER or shown[path] == file.newest():
                continue
            if not file.unsure or shown[path] not in [v.contents for v in file.versions]:
                raise Fault(f"{path}: {describe(shown[path])} instead of {describe(file.newest())}")

    def check_service(self, shown, cut):
        """Every version that the service acknowledged and nobody replaced is on the service."""
        last = sum(1 for s in self.steps if s.begun <= cut)
        steps = max([steps for steps, when in self.sent if when <= cut], default=0)
        if steps == 0:
            return
        trees = [s.tree for s in self.steps[steps - 1:last]]
        for file in set(trees[0].values()) - {FOLDER}:
            first = file.promised(cut, "sent")
            # Its removal may have been sent as well.
            if first < 0 or not all(file in t.values() for t in trees):
                continue
            if all(file.fault(c, first, cut, False) for c in shown.values() if c not in (FOLDER, None)):
                raise Fault(f"{file} version {first} was acknowledged and is not on the service")

    def check_whole(self, shown):
        """No file shows what nobody wrote: after everything was sent, kept or taken back."""
        for path, contents in shown.items():
            if contents is None:
                raise Fault(f"{path} cannot be read")
            if contents is FOLDER or not contents.strip(b"\0"):
                continue
            if all(file.fault(contents, 0, time.monotonic_ns(), False) for file in self.files):
                raise Fault(f"{path}: {describe(contents)}: nobody's version")
