"""The file systems that /tmp lies on while something is measured."""

import contextlib
import os
import pathlib
import subprocess

IN_MEMORY = ("tmpfs", "ramfs")


def type_of(folder):
    """The type of the file system that a folder lies on, as /proc names it."""
    path = pathlib.Path(folder).resolve()
    place, found = pathlib.Path("/"), "unknown"
    for mount in pathlib.Path("/proc/self/mountinfo").read_text().splitlines():
        fields = mount.split()
        point = pathlib.Path(fields[4])
        if path.is_relative_to(point) and point.is_relative_to(place):  # what is mounted later lies above
            place, found = point, fields[fields.index("-") + 1]
    return found


def why_not(folder):
    """Why a folder cannot stand in for a /tmp on disk; empty when it can."""
    if os.environ.get("LAB_SANDBOX") != "private":
        return "only in a sandbox can another folder become /tmp"
    if not folder or not pathlib.Path(folder).is_dir():
        return "no folder was given for it"
    if type_of(folder) in IN_MEMORY:
        return f"{folder} lies on {type_of(folder)}; BENCH_DISK names another folder"
    return ""


@contextlib.contextmanager
def as_tmp(folder):
    """The folder is /tmp for as long as the block lasts, for what is started in it."""
    subprocess.run(["mount", "--bind", folder, "/tmp"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "/tmp"], check=True)
