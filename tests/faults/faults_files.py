"""A /tmp that is full, read-only, or has directories in the files' places."""

import os
import shutil
import subprocess
import time
from pathlib import Path

from fault import Fault

from lab import LOG_CONFIG_FILE, OVERLAY_FILE, STATIC_FILE

STATUS_NO_CONFIGURATION = 255


class Locked(Fault):
    """Files that cannot be written, for one reason or another."""
    reason = ""
    before_start = True
    statuses = {"starting": STATUS_NO_CONFIGURATION}

    def meanwhile(self, world):
        if world.ap.daemon.running:
            world.change()
            time.sleep(12)  # over a reload

    def promised(self, doing):
        if doing.starts:
            return [f"3 416 399816 <VYRWRAP>: Failed to open /tmp/vyr.conf- {self.reason}"]
        return [f"3 416 399816 <VYRWRAP>: vyrwrapStaticRouteApply: Write into vyr configuration file failed - "
                f"{self.reason}.Route add failed for 10.200.1.0/24 via ",
                f"3 416 399816 <VYRWRAP>: Failed to open /tmp/vyr_log.conf - {self.reason}",
                "3 416 399816 <OAPCLI>: failed to create config file"]


class Full(Locked):
    name, title, reason = "tmp-full", "/tmp full", "No space left on device"

    def strike(self, world):
        usage = os.statvfs("/tmp")
        used = (usage.f_blocks - usage.f_bfree) * usage.f_frsize
        if not used:
            Path("/tmp/filler").write_bytes(bytes(usage.f_frsize))
            used = usage.f_frsize
        self.size = usage.f_blocks * usage.f_frsize
        self._resize(used)

    def end(self, world):
        self._resize(self.size)

    @staticmethod
    def _resize(size):
        subprocess.run(["mount", "-o", f"remount,size={size}", "/tmp"], check=True)


class ReadOnly(Locked):
    name, title, reason = "tmp-read-only", "/tmp read-only", "Read-only file system"

    def strike(self, world):
        # over itself: a file system with files open for writing stays writable, but not another view of it
        subprocess.run(["mount", "--bind", "/tmp", "/tmp"], check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", "/tmp"], check=True)

    def end(self, world):
        subprocess.run(["umount", "--lazy", "/tmp"], check=True)


class Directory(Locked):
    name, title, reason = "directory", "target file replaced by a directory", "Is a directory"
    targets = (STATIC_FILE, OVERLAY_FILE, LOG_CONFIG_FILE, Path("/tmp/vyr.conf"))

    def strike(self, world):
        for target in self.targets[:3] if world.ap.daemon else self.targets:
            target.unlink(missing_ok=True)
            target.mkdir()

    def end(self, world):
        for target in self.targets:
            if target.is_dir():
                shutil.rmtree(target)


FAULTS = [Full, ReadOnly, Directory]
