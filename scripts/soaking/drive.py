"""Calls on a drive, each timed and watched, and what they may answer."""
import ctypes
import errno
import os
import time

CALL_LIMIT = 15.0  # seconds
#: A drive answers these when its client is killed, the file is elsewhere by now, or the service cannot be asked.
ALLOWED = {errno.ENOENT, errno.ESTALE, errno.EIO, errno.ENOTCONN, errno.ECONNABORTED, errno.EACCES, errno.EEXIST,
           errno.ENOTEMPTY, errno.EISDIR, errno.ENOTDIR, errno.EPERM, errno.EROFS, errno.ETIMEDOUT, errno.ENODEV,
           errno.EINVAL, errno.ENXIO, errno.EBUSY, errno.EFBIG}
#: After these nothing was changed. A request that was under way when its client died gets ECONNABORTED instead.
REFUSED = {errno.ENOTCONN, errno.ENOENT, errno.EACCES, errno.EEXIST, errno.ENOTEMPTY, errno.EISDIR, errno.ENOTDIR, errno.EPERM,
           errno.EROFS, errno.EINVAL, errno.ESTALE, errno.EBUSY, errno.EFBIG}
AT_FDCWD, RENAME_NOREPLACE = -100, 1
_libc = ctypes.CDLL(None, use_errno=True)


def local_only(name):
    """Names that take no part in synchronisation."""
    return name.startswith((".", "~")) or name.endswith(".tmp")


def rename_to_free_place(old, new):
    if _libc.renameat2(AT_FDCWD, os.fsencode(old), AT_FDCWD, os.fsencode(new), RENAME_NOREPLACE) != 0:
        number = ctypes.get_errno()
        if number != errno.EINVAL:
            raise OSError(number, os.strerror(number), old)
        os.rename(old, new)


class Calls:
    """The calls of one user. `current` names the one that is under way, for whoever looks for a hanging one."""

    def __init__(self, model, who):
        self.model, self.who = model, who
        self.current = None
        self.slowest = 0.0
        self.count = 0

    def __call__(self, function, *arguments, **named):
        began = time.monotonic()
        what = f"{function.__name__}({', '.join(str(part)[:120] for part in arguments if not isinstance(part, bytes))})"
        self.current = (what, began)
        try:
            return function(*arguments, **named)
        except OSError as error:
            if error.errno not in ALLOWED:
                self.model.fault(self.who, f"{what}: unexpected {errno.errorcode.get(error.errno, error.errno)}")
            raise
        finally:
            self.current = None
            took = time.monotonic() - began
            self.slowest = max(self.slowest, took)
            self.count += 1
            if took > CALL_LIMIT:
                self.model.fault(self.who, f"{what} took {took:.1f} s")

    def read_rest(self, file, at=0):
        parts = []
        while piece := self(os.pread, file, 65536, at):
            parts.append(piece)
            at += len(piece)
        return b"".join(parts)

    def write_all(self, file, contents, at=0):
        view = memoryview(contents)
        while view:
            done = self(os.pwrite, file, bytes(view[:131072]), at)
            view, at = view[done:], at + done
