"""A unit's SystemCallFilter= and what belongs to it, as a program for the kernel."""

import ctypes
import errno
import socket
import subprocess
import tempfile
from functools import cache

from unit_file import Unit

_ALLOW = 0x7FFF0000
_REFUSE = 0x00050000 | errno.EPERM
_EQUAL = 4
_MASKED_EQUAL = 7
_WRITE_AND_EXECUTE = 0x2 | 0x4


class _Comparison(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operator", ctypes.c_int), ("first", ctypes.c_uint64),
                ("second", ctypes.c_uint64)]


@cache
def _library() -> ctypes.CDLL:
    library = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    library.seccomp_init.restype = ctypes.c_void_p
    library.seccomp_init.argtypes = [ctypes.c_uint32]
    library.seccomp_rule_add_array.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_uint,
                                               ctypes.POINTER(_Comparison)]
    library.seccomp_export_bpf.argtypes = [ctypes.c_void_p, ctypes.c_int]
    library.seccomp_release.argtypes = [ctypes.c_void_p]
    return library


@cache
def _members(name: str) -> frozenset[str]:
    """A system call itself, or all of a group."""
    if not name.startswith("@"):
        return frozenset([name])
    shown = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True, capture_output=True, text=True)
    words = [line.strip() for line in shown.stdout.splitlines()[1:] if line.strip() and not line.strip().startswith("#")]
    return frozenset().union(*(_members(word) for word in words))


def allowed_calls(unit: Unit) -> set[str]:
    """The first list allows, later ones with ~ take back."""
    allowed: set[str] = set(_members("@default"))
    for value in unit.all("SystemCallFilter"):
        for word in value.removeprefix("~").split():
            if value.startswith("~"):
                allowed -= _members(word)
            else:
                allowed |= _members(word)
    return allowed


class _Filter:
    def __init__(self, otherwise: int) -> None:
        self._context = _library().seccomp_init(otherwise)

    def add(self, action: int, call: str, *comparisons: _Comparison) -> None:
        number = _library().seccomp_syscall_resolve_name(call.encode())
        if number == -1:
            return  # of another architecture
        array = (_Comparison * max(len(comparisons), 1))(*comparisons)
        if _library().seccomp_rule_add_array(self._context, action, number, len(comparisons), array) != 0:
            raise RuntimeError(f"no rule for {call}")

    def export(self):
        """An open file that holds the program, to be read from its beginning."""
        file = tempfile.TemporaryFile()
        if _library().seccomp_export_bpf(self._context, file.fileno()) != 0:
            raise RuntimeError("the filter cannot be written")
        _library().seccomp_release(self._context)
        file.seek(0)
        return file


def filters_of(unit: Unit) -> list:
    """SystemCallFilter=, RestrictAddressFamilies= and MemoryDenyWriteExecute=, one open file each."""
    calls = _Filter(_REFUSE)
    for call in sorted(allowed_calls(unit)):
        calls.add(_ALLOW, call)
    families = {int(getattr(socket, name)) for name in unit.words("RestrictAddressFamilies")}
    sockets = _Filter(_ALLOW)
    for family in set(range(64)) - families:
        sockets.add(_REFUSE, "socket", _Comparison(0, _EQUAL, family, 0))
    memory = _Filter(_ALLOW)
    if unit.is_on("MemoryDenyWriteExecute"):
        memory.add(_REFUSE, "mmap", _Comparison(2, _MASKED_EQUAL, _WRITE_AND_EXECUTE, _WRITE_AND_EXECUTE))
        memory.add(_REFUSE, "mprotect", _Comparison(2, _MASKED_EQUAL, 0x4, 0x4))
    return [calls.export(), sockets.export(), memory.export()]
