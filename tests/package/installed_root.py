"""An empty root that packages are installed into and taken out of again."""

import os
import subprocess
from pathlib import Path

_FORCE = ["--force-depends", "--force-script-chrootless", "--force-bad-path", "--force-unsafe-io"]
_DATABASE = ("var/lib/dpkg", "var/cache")


class InstalledRoot:
    def __init__(self, path: Path) -> None:
        self.path = path
        database = path / "var/lib/dpkg"
        for folder in ("info", "updates"):
            (database / folder).mkdir(parents=True)
        (database / "status").touch()
        for folder in ("tmp", "run", "proc", "dev", "etc/systemd/system", "var/lib/systemd", "var/log"):
            (path / folder).mkdir(parents=True)
        (path / "tmp").chmod(0o1777)

    def provide(self, *targets: str) -> None:
        """What other packages have put there: places to bind programs and folders of the machine to."""
        for target in targets:
            place = self.path / target.lstrip("/")
            place.parent.mkdir(parents=True, exist_ok=True)
            if Path(target).is_dir():
                place.mkdir(exist_ok=True)
            else:
                place.touch()

    def contents(self) -> set[str]:
        """Every file and folder, but for dpkg's own."""
        found = set()
        for folder, folders, files in os.walk(self.path):
            for name in folders + files:
                found.add(os.path.relpath(os.path.join(folder, name), self.path))
        return {path for path in found if not path.startswith(_DATABASE)}

    def _dpkg(self, *arguments: str) -> None:
        done = subprocess.run(["dpkg", "--root", str(self.path), "--log", "/dev/null", *_FORCE, *arguments],
                              capture_output=True, text=True, check=False,
                              env={**os.environ, "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive"})
        assert done.returncode == 0, done.stdout + done.stderr

    def install(self, *packages: Path) -> None:
        self._dpkg("--install", *map(str, packages))

    def remove(self, *names: str) -> None:
        self._dpkg("--remove", *names)

    def purge(self, *names: str) -> None:
        self._dpkg("--purge", *names)
