"""A service unit with its drop-ins, as far as a test has to understand it."""

import re
from pathlib import Path


class Unit:
    """Settings by name, each with its values in order; an empty value takes back what stood before."""

    def __init__(self, *files: Path) -> None:
        self._values: dict[str, list[str]] = {}
        for file in files:
            self._read(file.read_text())

    def _read(self, text: str) -> None:
        for line in text.replace("\\\n", " ").splitlines():
            found = re.fullmatch(r"\s*([A-Za-z]+)=(.*)", line)
            if not found:
                continue
            name, value = found.group(1), found.group(2).strip()
            if value:
                self._values.setdefault(name, []).append(value)
            else:
                self._values[name] = []

    def all(self, name: str) -> list[str]:
        return self._values.get(name, [])

    def words(self, name: str) -> list[str]:
        """Those of all its values, for settings that are lists."""
        return " ".join(self.all(name)).split()

    def one(self, name: str, default: str = "") -> str:
        return self.all(name)[-1] if self.all(name) else default

    def is_on(self, name: str) -> bool:
        return self.one(name) in ("yes", "true", "on", "1")


def read_environment(file: Path) -> dict[str, str]:
    """An EnvironmentFile= without quoting, which ours does not use."""
    lines = [line.strip() for line in file.read_text().splitlines()]
    return dict(line.split("=", 1) for line in lines if "=" in line and not line.startswith(("#", ";")))
