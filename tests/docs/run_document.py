"""Runs one document's commands in the lab's sandbox, in order, and compares what they print with what it shows.

    run_document.py DOCUMENT BUILD
"""

import os
import pty
import subprocess
import sys
import time
from pathlib import Path

from blocks import Block, blocks_of, matches, steps_of
from elsewhere import ELSEWHERE, GO_ON, INSTALLING

from lab import ROOT, AccessPoint

# They only look: repeated until they show what the document shows, as the daemon takes its time.
LOOKING = ("cat ", "grep ", "ip ", "pgrep ", "redis-cli get", "redis-cli pubsub", "stat ", "test ", "wc ",
           "/korva/bin/vyrc show")
PATIENCE = 30
CLONE = Path("/tmp/clone")
OUTPUT = Path("/tmp/clone-started")
PROGRAMS = Path("/tmp/clone-bin")


class Failed(Exception):
    """A command does not do what the document says."""


def started_output() -> str:
    """What the programs that go on have printed."""
    return OUTPUT.read_text(errors="replace") if OUTPUT.exists() else ""


class Reader:
    """Who types what a document says: in a clone of the project, at a terminal."""

    def __init__(self, document: str, build: Path) -> None:
        self.document = document
        self.started: list[tuple[str, subprocess.Popen]] = []
        self.count = 0
        CLONE.mkdir()
        for entry in ROOT.iterdir():
            (CLONE / entry.name).symlink_to(build if entry.name == "build" else entry)
        PROGRAMS.mkdir()
        (PROGRAMS / "sudo").write_text('#!/bin/sh\nexec "$@"\n')
        (PROGRAMS / "sudo").chmod(0o755)
        self.environment = {**os.environ, "LC_ALL": "C.UTF-8",
                            "PATH": f"{PROGRAMS}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}

    def run(self, arguments: list[str]) -> tuple[int, str]:
        """Its status, and what a terminal shows of it."""
        terminal, end = pty.openpty()
        process = subprocess.Popen(arguments, cwd=CLONE, env=self.environment, stdin=subprocess.DEVNULL, stdout=end,
                                   stderr=end)
        os.close(end)
        printed = b""
        try:
            while data := os.read(terminal, 65536):
                printed += data
        except OSError:  # how a terminal ends
            pass
        os.close(terminal)
        return process.wait(), printed.decode(errors="replace").replace("\r\n", "\n")

    def start(self, command: str) -> None:
        with OUTPUT.open("ab") as output:
            process = subprocess.Popen(["bash", "-c", f"exec {command}"], cwd=CLONE, env=self.environment,
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.started.append((command, process))
        self.count += 1

    def step(self, command: str, shown: list[str]) -> None:
        deadline = time.monotonic() + (PATIENCE if command.startswith(LOOKING) else 0)
        while True:
            status, printed = self.run(["bash", "-c", command])
            if status == 0 and matches(shown, printed):
                return
            if time.monotonic() >= deadline:
                raise Failed(f"{command}\nended with {status} and printed:\n{printed}instead of:\n" + "\n".join(shown))
            time.sleep(0.1)

    def script(self, text: str) -> None:
        """A sh block, line by line but for those that are run elsewhere."""
        own: list[str] = []
        for line in text.splitlines():
            if line in GO_ON:
                self.part(own)
                own = []
                self.start(line)
            elif line not in [entry.command for entry in ELSEWHERE]:
                own.append(line)
        self.part(own)

    def part(self, lines: list[str]) -> None:
        status, printed = self.run(["sh", "-euc", "\n".join(lines)])
        self.count += len(lines)
        if status != 0:
            raise Failed("\n".join(lines) + f"\nended with {status} and printed:\n{printed}")

    def block(self, block: Block) -> None:
        if block.language == "sh":
            self.script(block.text)
        elif block.language == "console":
            for step in steps_of(block):
                self.step(*step)
                self.count += 1
        elif block.language == "python":
            status, printed = self.run(["python3", "-c", block.text])
            self.count += 1
            if status != 0:
                raise Failed(f"the program ended with {status} and printed:\n{printed}")

    def end(self) -> None:
        for command, process in self.started:
            if process.poll() is not None:
                raise Failed(f"{command}\nended with {process.returncode}")
            process.terminate()
            process.wait(20)


def take_out_installation() -> None:
    """As on a machine where nothing of ours has been installed."""
    for folder in ("/korva/bin", "/etc/bird", "/tmp/.sock", "/var/log/korvalog"):
        subprocess.run(["rm", "-rf", folder], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "none", "/usr/local"], check=True)


def main() -> int:
    document, build = sys.argv[1], Path(sys.argv[2])
    reader = Reader(document, build)
    block = None
    with AccessPoint(start=False) as ap:
        ap.start_redis("--port", "6379")
        if document in INSTALLING:
            take_out_installation()
        else:
            ap.start_daemon()
            ap.wait_ready()
        try:
            for block in blocks_of(ROOT / document):
                reader.block(block)
            reader.end()
        except Failed as failure:
            print(f"{document}:{block.line if block else 1}: {failure}\n{started_output()}")
            return 1
    print(f"{document}: {reader.count} commands")
    return 0


sys.exit(main())
