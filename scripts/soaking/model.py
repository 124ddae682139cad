"""What users closed, what they had seen when they did, and what must therefore still be found."""
import json
import threading
import time

from contents import describe, digest, woven


class Version:
    """Contents that a user wrote, or tried to write."""

    def __init__(self, token, contents, base, who, path):
        self.token, self.contents, self.base, self.who, self.path = token, contents, base, who, path
        self.digest = digest(contents)
        self.closed = None       # time of a close that succeeded
        self.excused = []        # reasons why it need not be found
        self.replaced = []       # versions that were written over it by somebody who had read it
        self.required = False


class Model:
    """Thread-safe. Every action of a user is an event; events are also written to a file, a line each."""

    def __init__(self, folder):
        self.lock = threading.Lock()
        self.events = open(folder / "events.jsonl", "w", encoding="utf-8")
        self.began = time.time()
        self.versions = {}       # by token
        self.by_digest = {}
        self.cut_off = []        # versions whose writing in place was interrupted
        self.closed = 0
        self.faults = []
        self.next_token = 1

    def note(self, who, what, **details):
        line = {"t": round(time.time() - self.began, 3), "who": who, "what": what, **details}
        with self.lock:
            self.events.write(json.dumps(line, ensure_ascii=True) + "\n")
            self.events.flush()

    def fault(self, who, text, **details):
        self.note(who, "FAULT", text=text, **details)
        with self.lock:
            self.faults.append((who, text, details))

    def new_token(self):
        with self.lock:
            self.next_token += 1
            return self.next_token - 1

    def begin(self, token, contents, base, who, path):
        """A version is about to be written. `base` is what its writer read there, or None."""
        version = Version(token, contents, base, who, path)
        with self.lock:
            self.versions[token] = version
            self.by_digest[version.digest] = version
        self.note(who, "write", v=token, base=base.token if base else None, path=path, size=len(contents))
        return version

    def close(self, version):
        with self.lock:
            version.closed = time.time()
            self.closed += 1
        self.note(version.who, "closed", v=version.token)

    def interrupted(self, version, in_place, error):
        """The write failed or its program lost the drive. In place, any of its blocks may be there."""
        self.note(version.who, "interrupted", v=version.token, error=error)
        if in_place:
            with self.lock:
                self.cut_off.append(version)

    def copy_interrupted(self, who, old, copied):
        """A copy of a version was being written over another one."""
        self.excuse(old, f"overwritten by a copy by {who}")
        with self.lock:
            self.cut_off.append(Version(copied.token, copied.contents, old, who, copied.path))

    def identify(self, contents):
        """The version with exactly these bytes. None: empty. Raises ValueError for bytes that nobody wrote."""
        if not contents:
            return None
        key = digest(contents)
        with self.lock:
            found = self.by_digest.get(key)
            cut_off = list(self.cut_off)
        if found:
            return found
        for version in reversed(cut_off):
            old = version.base.contents if version.base else b""
            if woven(contents, old, version.contents):
                with self.lock:
                    torn = Version(version.token, contents, version.base, version.who, version.path)
                    self.by_digest[key] = torn
                return torn
        raise ValueError(describe(contents))

    def replaced(self, old, new, surely):
        """`old` was written over with `new` by somebody who had read it. Not surely: one of them must be found."""
        if old is None:
            return
        with self.lock:
            if surely:
                old.excused.append(f"replaced by v{new.token}")
            else:
                old.replaced.append(new)

    def excuse(self, version, reason):
        if version is None:
            return
        with self.lock:
            version.excused.append(reason)
        self.note(version.who, "excused", v=version.token, reason=reason)

    def excuse_since(self, who, since, reason):
        with self.lock:
            concerned = [v for v in self.versions.values() if v.who == who and v.closed and v.closed >= since]
        for version in concerned:
            self.excuse(version, reason)

    def missing(self, found):
        """Closed versions that are neither among the digests nor accounted for."""
        with self.lock:
            candidates = [v for v in self.versions.values() if v.closed and not v.excused and v.digest not in found]

        def accounted(version):
            return any(other.digest in found or other.excused for other in version.replaced)
        return [version for version in candidates if not accounted(version)]
