"""Flash partitions as the kernel's oops logger writes them, and what oopslog has to print."""

import random
import struct

PAGE = 4096
MAGIC = 0x5D005D00
ERASED = b"\xff" * PAGE
ERASED_COUNT = 0xFFFFFFFF
LAST_COUNT = ERASED_COUNT - 1
NO_LOGS = (b"", b"No logs present\n")


def record(count, text, magic=MAGIC):
    return (struct.pack("<II", count, magic) + text).ljust(PAGE, b"\xff")


def text_of(number):
    return f"<1>[ 311.92] Oops[#{number}]: line\n<4>[ 311.93] epc : 80{number:06x}\n".encode()


def ring(pages, newest, oldest_count=100):
    """A full ring whose newest record is at position `newest`."""
    made = [b""] * pages
    for step in range(pages):
        count = oldest_count + step
        made[(newest + 1 + step) % pages] = record(count, text_of(count))
    return b"".join(made)


def random_flash(pages, seed):
    """Pages of every kind with random contents."""
    chance = random.Random(seed)
    made = []
    for _ in range(pages):
        count = chance.choice([0, 1, LAST_COUNT, ERASED_COUNT, chance.getrandbits(32)])
        magic = chance.choice([MAGIC, MAGIC, MAGIC, 0, chance.getrandbits(32)])
        made.append(chance.choice([record(count, chance.randbytes(PAGE - 8), magic), ERASED, bytes(PAGE)]))
    return b"".join(made)


def signed(count):
    return count - (1 << 32) if count >> 31 else count


def shown(byte):
    return bytes([byte]) if 32 <= byte < 127 or 9 <= byte <= 13 else b"."


def oopslog_of(image, backwards=False, without=()):
    """(standard output, standard error) for an image. `without`: the pages that cannot be read."""
    pages = [image[at : at + PAGE] for at in range(0, len(image) // PAGE * PAGE, PAGE)]
    found = {}
    for position, page in enumerate(pages):
        count, magic = struct.unpack_from("<II", page)
        if position not in without and count != ERASED_COUNT and magic == MAGIC:
            found[position] = (count, page[8:].split(b"\xff")[0])
    newest = None
    for position, (count, _) in found.items():
        last = newest is not None and found[newest][0]
        if newest is None or (count > last if count else last == LAST_COUNT):
            newest = position
    if newest is None:
        return NO_LOGS
    step = -1 if backwards else 1
    order = [(newest + step * (done + 1)) % len(pages) for done in range(len(pages))]
    out = b"".join(
        b"Log Entry %d (at position %d)\n" % (signed(found[position][0]), position)
        + b"".join(map(shown, found[position][1]))
        for position in order
        if position in found
    )
    return out, b"Last log is at position %d with count %d\n" % (newest, signed(found[newest][0]))
