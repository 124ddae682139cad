"""Contents that can be told apart: 64-byte blocks, each with the token of the version that wrote it."""
import hashlib

BLOCK = 64
_FILLER = b"." * BLOCK


def digest(contents):
    return hashlib.blake2b(contents, digest_size=12).hexdigest()


def blocks(token, first, count, total):
    """`count` blocks of version `token` from block number `first` on, of a file of `total` blocks."""
    head = b"T%07d " % token
    return b"".join((head + b"%07d/%07d " % (number, total)).ljust(BLOCK - 1, b".") + b"\n"
                    for number in range(first, first + count))


def tokens(contents):
    """(token, first block, count) of each run of blocks; None for what is no block at its place."""
    runs = []
    for number, start in enumerate(range(0, len(contents), BLOCK)):
        piece = contents[start:start + BLOCK]
        good = len(piece) == BLOCK and piece[:1] == b"T" and piece[-1:] == b"\n" and piece[9:16] == b"%07d" % number
        token = int(piece[1:8]) if good and piece[1:8].isdigit() else None
        if runs and runs[-1][0] == token:
            runs[-1][2] += 1
        else:
            runs.append([token, number, 1])
    return [tuple(run) for run in runs]


def describe(contents):
    runs = tokens(contents)
    text = ", ".join(f"{'garbage' if token is None else f'v{token}'} x{count} at {first}"
                     for token, first, count in runs[:8])
    return f"{len(contents)} bytes: {text}{' ...' if len(runs) > 8 else ''}"


def woven(contents, old, new):
    """Every block is the one of `old` or of `new` at the same place: what a cut-off write may leave."""
    if len(contents) > max(len(old), len(new)):
        return False
    for start in range(0, len(contents), BLOCK):
        piece = contents[start:start + BLOCK]
        if piece != old[start:start + len(piece)] and piece != new[start:start + len(piece)]:
            return False
    return True
