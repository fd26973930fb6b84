"""Stops the daemon at a point that is named, and refuses it forks: the other end of strike.cpp."""

import mmap
import os
import struct
from pathlib import Path

from lab import BINARIES

ORDERS = struct.Struct("=4I16sI108s")
FILE = Path("/run/lab-strike")
LIBRARY = BINARIES.parent / "lib" / "libstrike.so"


class Strike:
    """At most one daemon at a time."""

    def __init__(self):
        FILE.write_bytes(bytes(ORDERS.size))
        with FILE.open("r+b") as file:
            self._map = mmap.mmap(file.fileno(), ORDERS.size)
        self.environment = {"LD_PRELOAD": str(LIBRARY), "STRIKE_FILE": str(FILE),
                            "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"}

    def at(self, call, text, skip=0):
        """The daemon stops at its next `call` ("write", "rename": behind it, "open": before it) with that text in what
        it writes or in the path, after `skip` of them."""
        refuse, refused = self._read()[2:4]
        ORDERS.pack_into(self._map, 0, 0, skip, refuse, refused, call.encode(), len(text), text)
        struct.pack_into("=I", self._map, 0, 1)

    def disarm(self):
        struct.pack_into("=I", self._map, 0, 0)

    def refuse_forks(self, refuse):
        struct.pack_into("=I", self._map, 8, refuse)

    @property
    def refused(self):
        """Forks that were refused so far."""
        return self._read()[3]

    def _read(self):
        return ORDERS.unpack_from(self._map, 0)


def state(pid):
    """"R", "S", "T" and so on; None when it is gone."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text(errors="replace")
    except OSError:
        return None
    return text[text.rindex(")") + 2]
