"""Ring files with whatever content, made as docs/ring-trace.md says."""

import struct

import xxhash

MAGIC = 0x32474E4952535642
FORMATS, FORMAT_BYTES = 256, 128
TEXT = 0xFF


def format_at(identity):
    """Where a format lies in the file."""
    return 64 + identity * FORMAT_BYTES


def slot_at(number):
    return format_at(FORMATS) + number * 64


class RingFile:
    """Records as the agent does, at times of one's own."""

    def __init__(self, slots):
        self.slots = slots
        self.bytes = bytearray(slot_at(slots))
        self.bytes[:16] = struct.pack("<QQ", MAGIC, slots)
        self.formats = [b"?"]
        self.sequence = 0

    def record(self, time_ns, text, *arguments):
        """`text` and the one argument that is no number may be bytes or strings."""
        identity = self._format(text if isinstance(text, bytes) else text.encode())
        if arguments and not isinstance(arguments[0], int):
            word = arguments[0] if isinstance(arguments[0], bytes) else arguments[0].encode()
            kind, words = TEXT, word[:31].ljust(32, b"\0")
        else:
            kind = len(arguments)
            words = struct.pack("<4q", *arguments, *[0] * (4 - kind))
        number = self.sequence % self.slots
        self.sequence += 1
        body = struct.pack("<QQII", self.sequence, time_ns, identity, kind) + words
        place = format_at(identity)
        seed = xxhash.xxh3_64_intdigest(bytes(self.bytes[place:place + FORMAT_BYTES]), identity)
        check = xxhash.xxh3_64_intdigest(body, (seed + number) % 2**64) | 3
        self.bytes[slot_at(number):slot_at(number + 1)] = struct.pack("<Q", check) + body

    def rot(self, at):
        """Flips a bit of the byte there."""
        self.bytes[at] ^= 1

    def write(self, path):
        path.write_bytes(self.bytes)

    def _format(self, text):
        if text not in self.formats:
            place = format_at(len(self.formats))
            self.bytes[place:place + len(text)] = text
            self.formats.append(text)
        return self.formats.index(text)
