"""What the tests of the packages share."""

import os
import sysconfig
from pathlib import Path

import pytest
import redis
from installed_root import InstalledRoot
from service import Service
from unit_file import Unit

from lab import ADDRESSES, BRIDGE, Process, wait_for_redis
from network import add_bridge, ip, remove_bridge

PACKAGES = Path(os.environ["PACKAGES"])
NAMES = ("vyrwrap", "vyrwrap-bird2")
MACHINE_FOLDERS = ("/usr/bin", f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}", "/usr/lib64",
                   sysconfig.get_path("stdlib"))
MACHINE_PROGRAMS = ("/usr/sbin/bird", "/usr/sbin/birdc")


def pytest_collection_modifyitems(items):
    if os.environ.get("LAB_SANDBOX") == "host":
        for item in items:
            item.add_marker(pytest.mark.skip("LAB=host: a machine without sandboxes cannot start a service in a root"))


def package_file(name):
    (found,) = PACKAGES.glob(f"{name}_*.deb")
    return found


@pytest.fixture(name="root")
def fixture_root(tmp_path_factory):
    """With what the packages depend on, and links as on a system whose /bin is in /usr."""
    root = InstalledRoot(tmp_path_factory.mktemp("installed") / "root")
    for link in ("bin", "lib", "lib64"):
        (root.path / link).symlink_to(f"usr/{link}")
    root.provide(*MACHINE_FOLDERS, *MACHINE_PROGRAMS)
    return root


@pytest.fixture(name="empty")
def fixture_empty(root):
    return root.contents()


@pytest.fixture(name="installed")
def fixture_installed(root, empty):
    del empty  # taken before
    root.install(*map(package_file, NAMES))
    return root


@pytest.fixture(name="network")
def fixture_network():
    add_bridge(BRIDGE, *ADDRESSES)
    yield
    ip("route", "flush", "proto", "bird")
    remove_bridge(BRIDGE)


@pytest.fixture(name="store")
def fixture_store(tmp_path):
    """Where the packages' defaults look for it."""
    server = Process("redis-server", ["redis-server", "--port", "6379", "--save", "", "--appendonly", "no", "--dir",
                                      str(tmp_path)], tmp_path / "redis.err")
    client = redis.Redis(port=6379)
    wait_for_redis(client)
    yield client
    server.stop()


def unit_of(root):
    drop_ins = sorted(root.path.glob("usr/lib/systemd/system/vyrwrap.service.d/*.conf"))
    return Unit(root.path / "lib/systemd/system/vyrwrap.service", *drop_ins)


@pytest.fixture(name="service")
def fixture_service(installed, network):
    del network
    programs = [(path, path) for path in (*MACHINE_FOLDERS, *MACHINE_PROGRAMS)]
    service = Service(installed.path, unit_of(installed), programs)
    yield service
    service.close()
