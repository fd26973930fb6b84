"""Starts a service in an installed root the way its unit says, without a service manager.

What is followed: the environment, ExecStartPre= and ExecStart=, the notices of Type=notify, folders that the manager
makes, what is bound where and what may be written, capabilities, system calls, address families. Not followed: the
kernel tunables and other places that the manager covers besides (Protect...=, Restrict...=), which need root's own /sys
and devices.
"""

import os
import shutil
import signal
import socket
import subprocess
from pathlib import Path

from process import Process, child_of
from system_calls import filters_of
from unit_file import Unit, read_environment
from wait import wait_for

_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
_NOTIFY_SOCKET = "/run/systemd/notify"


class Service:
    def __init__(self, root: Path, unit: Unit, programs: list[tuple[str, str]]) -> None:
        """`programs` are (source, target) of what other packages would have put into the root."""
        self._root = root
        self._unit = unit
        self._programs = programs
        self._manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._manager.setblocking(False)
        self.process: Process | None = None
        path = self._in_root(_NOTIFY_SOCKET)
        path.parent.mkdir(parents=True, exist_ok=True)
        self._manager.bind(str(path))

    def close(self) -> None:
        if self.process and self.process.running:
            self.process.kill()
        self._manager.close()
        self._remove_folder(str(Path(_NOTIFY_SOCKET).parent))
        self._remove_runtime_folders()

    def _remove_folder(self, path: str) -> None:
        shutil.rmtree(self._in_root(path), ignore_errors=True)

    def _remove_runtime_folders(self) -> None:
        """The manager does so when the service is stopped and not started again."""
        for name in self._unit.words("RuntimeDirectory"):
            self._remove_folder(f"/run/{name}")

    def _in_root(self, path: str) -> Path:
        return self._root / path.lstrip("/")

    def _environment(self) -> dict[str, str]:
        environment = {"PATH": _PATH, "NOTIFY_SOCKET": _NOTIFY_SOCKET}
        for name, folder in self._folders():
            environment[name] = folder
        if self._unit.one("WatchdogSec"):
            environment["WATCHDOG_USEC"] = str(int(self._unit.one("WatchdogSec")) * 1000000)
        for value in self._unit.all("EnvironmentFile"):
            file = self._in_root(value.removeprefix("-"))
            if file.exists() or not value.startswith("-"):
                environment |= read_environment(file)
        return environment

    def _folders(self) -> list[tuple[str, str]]:
        runtime = [("RUNTIME_DIRECTORY", f"/run/{name}") for name in self._unit.words("RuntimeDirectory")]
        return runtime + [("LOGS_DIRECTORY", f"/var/log/{name}") for name in self._unit.words("LogsDirectory")]

    def _mounts(self) -> list[str]:
        """Where a folder is missing that something is bound to, the manager makes it, as here."""
        strict = self._unit.one("ProtectSystem") == "strict"
        mounts = ["--ro-bind" if strict else "--bind", str(self._root), "/", "--ro-bind", "/proc", "/proc"]
        mounts += ["--dev", "/dev"] if self._unit.is_on("PrivateDevices") else ["--dev-bind", "/dev", "/dev"]
        for source, target in self._programs:
            mounts += ["--ro-bind", source, target]
        for path in self._unit.words("ReadWritePaths") + [folder for _, folder in self._folders()]:
            self._in_root(path).mkdir(parents=True, exist_ok=True)
            mounts += ["--bind", str(self._in_root(path)), path]
        for pair in self._unit.words("BindReadOnlyPaths"):
            source, target = pair.split(":")
            self._in_root(target).mkdir(parents=True, exist_ok=True)
            mounts += ["--ro-bind", str(self._in_root(source)), target]
        assert not self._unit.is_on("PrivateTmp")
        return mounts

    def _wrapped(self, command: str, filters: list) -> list[str]:
        arguments = ["bwrap", *self._mounts(), "--cap-drop", "ALL"]
        for capability in self._unit.words("CapabilityBoundingSet"):
            arguments += ["--cap-add", capability]
        for file in filters:
            arguments += ["--add-seccomp-fd", str(file.fileno())]
        return [*arguments, "--chdir", "/", *command.split()]

    def run_before(self) -> None:
        """ExecStartPre=."""
        for command in self._unit.all("ExecStartPre"):
            done = self.run(*command.removeprefix("-").split())
            assert done.returncode == 0, done.stderr

    def start(self, errors: Path) -> Process:
        filters = filters_of(self._unit)
        self.process = Process(self._unit.one("ExecStart"), self._wrapped(self._unit.one("ExecStart"), filters), errors,
                               self._environment(), descriptors=[file.fileno() for file in filters])
        return self.process

    def run(self, *command: str) -> subprocess.CompletedProcess:
        """Another command in the service's surroundings."""
        filters = filters_of(self._unit)
        return subprocess.run([*self._wrapped("", filters), *command], env=self._environment(), capture_output=True,
                              pass_fds=[file.fileno() for file in filters], text=True, check=False)

    def main_pid(self) -> int:
        name = Path(self._unit.one("ExecStart").split()[0]).name
        return wait_for(lambda: child_of(self.process.pid, name), f"{name} runs")

    def stop(self) -> int:
        """KillMode=mixed: the main process alone is asked. Returns its status."""
        os.kill(self.main_pid(), signal.SIGTERM)
        status = self.process.wait()
        self._remove_runtime_folders()
        return status

    def notices(self) -> list[str]:
        """What the service has told its manager since the last call."""
        said = []
        while True:
            try:
                said.append(self._manager.recv(4096).decode())
            except BlockingIOError:
                return said
