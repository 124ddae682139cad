"""Compares a folder with what a drive shows of it: names, kinds, sizes, times and every byte.

    scripts/compare_trees.py SOURCE DRIVE

The drive shows names in canonical decomposition (NFD) and times to the millisecond. Symbolic links, special files and
what this user may not read take no part, nor do names that are not UTF-8 or hold control characters. Siblings whose names differ only by letter case or Unicode form get names of
their own on the drive ("name (2).txt"); they are matched by their contents.
"""
import collections
import dataclasses
import hashlib
import os
import stat
import sys
import time
import unicodedata

CHUNK = 1 << 20


@dataclasses.dataclass
class Result:
    files: int = 0
    folders: int = 0
    bytes: int = 0
    seconds: float = 0.0
    faults: list = dataclasses.field(default_factory=list)


def representable(name):
    return not any(ord(letter) < 0x20 or ord(letter) == 0x7F or 0xD800 <= ord(letter) < 0xE000 for letter in name)


def entries(folder):
    """The files and folders of a folder that take part, as (name, path, stat)."""
    for entry in os.scandir(folder):
        information = entry.stat(follow_symlinks=False)
        kind = stat.S_IFMT(information.st_mode)
        needed = os.R_OK | os.X_OK if kind == stat.S_IFDIR else os.R_OK
        if representable(entry.name) and kind in (stat.S_IFDIR, stat.S_IFREG) and os.access(entry.path, needed):
            yield entry.name, entry.path, information


def measure(folder):
    """(folders, files, bytes) below a folder."""
    folders = files = size = 0
    for _, path, information in entries(folder):
        if stat.S_ISDIR(information.st_mode):
            below = measure(path)
            folders, files, size = folders + 1 + below[0], files + below[1], size + below[2]
        else:
            files, size = files + 1, size + information.st_size
    return folders, files, size


def shown(name):
    return unicodedata.normalize("NFD", name)


def key(name):
    return shown(name).lower()


def digest(path):
    with open(path, "rb", buffering=0) as file:
        return hashlib.file_digest(file, "sha256").digest()


def compare_file(source, drive, result):
    _, path, expected = source
    _, shown_path, information = drive
    result.files += 1
    if stat.S_ISDIR(information.st_mode):
        return result.faults.append(f"{shown_path}: a folder instead of a file")
    if information.st_size != expected.st_size:
        return result.faults.append(f"{shown_path}: {information.st_size} bytes instead of {expected.st_size}")
    if information.st_mtime_ns // 10**6 != expected.st_mtime_ns // 10**6:
        result.faults.append(f"{shown_path}: time {information.st_mtime_ns} instead of {expected.st_mtime_ns}")
    try:
        with open(path, "rb", buffering=0) as wanted, open(shown_path, "rb", buffering=0) as got:
            position = 0
            while True:
                one, other = wanted.read(CHUNK), got.read(CHUNK)
                if one != other:
                    return result.faults.append(f"{shown_path}: other bytes after {position}")
                if not one:
                    break
                position += len(one)
        result.bytes += position
    except OSError as error:
        result.faults.append(f"{shown_path}: {error}")
    return None


def compare_folders(source, drive, result):
    on_drive = {shown(name): (shown(name), path, information) for name, path, information in entries(drive)}
    siblings = collections.defaultdict(list)
    for entry in entries(source):
        siblings[key(entry[0])].append(entry)
    for group in siblings.values():
        if len(group) > 1 and not any(stat.S_ISDIR(entry[2].st_mode) for entry in group):
            compare_clashing(group, drive, on_drive, result)
            continue
        for entry in group:
            match = on_drive.pop(shown(entry[0]), None)
            if match is None:
                result.faults.append(f"{drive}: no {entry[0]!r}")
            elif stat.S_ISDIR(entry[2].st_mode):
                result.folders += 1
                if stat.S_ISDIR(match[2].st_mode):
                    compare_folders(entry[1], match[1], result)
                else:
                    result.faults.append(f"{match[1]}: a file instead of a folder")
            else:
                compare_file(entry, match, result)
    for name in on_drive:
        result.faults.append(f"{drive}: {name!r} is not in the source")


def compare_clashing(group, drive, on_drive, result):
    """Files that are one name to the drive: each must be there under some numbered name of its own."""
    stem = os.path.splitext(key(group[0][0]))[0]
    candidates = [name for name in on_drive if key(name).startswith(stem)]
    wanted = collections.defaultdict(list)
    for entry in group:
        wanted[digest(entry[1])].append(entry)
    for name in candidates:
        matches = wanted.get(digest(on_drive[name][1]))
        if matches:
            compare_file(matches.pop(), on_drive.pop(name), result)
    for left in wanted.values():
        for entry in left:
            result.faults.append(f"{drive}: no file with the contents of {entry[0]!r}")


def compare(source, drive):
    result = Result()
    began = time.monotonic()
    compare_folders(source, drive, result)
    result.seconds = time.monotonic() - began
    return result


if __name__ == "__main__":
    outcome = compare(sys.argv[1], sys.argv[2])
    print(f"{outcome.files} files, {outcome.folders} folders, {outcome.bytes} bytes, {outcome.seconds:.1f} s,"
          f" {len(outcome.faults)} differences")
    print(*outcome.faults[:100], sep="\n")
    sys.exit(1 if outcome.faults else 0)
