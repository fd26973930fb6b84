"""The packages, installed into an empty root, and the service in it as its unit says."""

import re
import shutil
import subprocess
from pathlib import Path

from conftest import NAMES, unit_of

from lab import route_key, wait_for
from network import kernel_routes
from process import wait_until_gone

SECOND_INSTANCE = 69
CONFIG_FILES = ("vyr.conf", "vyr_app.conf", "vyr_log.conf", "vyr_oap.conf", "vyr_static.conf")


def wait_started(service, errors):
    service.run_before()
    service.start(errors)
    said = []
    wait_for(lambda: said.extend(service.notices()) or "READY=1" in said, "the service is ready")


def wait_routes(prefixes, errors):
    wait_for(lambda: prefixes <= set(kernel_routes()), lambda: f"{prefixes} in the kernel: {kernel_routes()} "
             f"{errors.read_text()}", 40)


def client_output(root, *words):
    """Of the package's vyrc, which asks at the usual place."""
    usual = Path("/tmp/vyr.ctl")
    usual.symlink_to(root.path / "tmp/vyr.ctl")
    output = subprocess.run([root.path / "usr/lib/vyrwrap/vyrc", *words], check=True, capture_output=True, text=True)
    usual.unlink()
    return output.stdout


def test_the_main_job_from_installation_to_removal(root, empty, installed, service, store, tmp_path):
    assert all((root.path / path.lstrip("/")).exists() for path in unit_of(installed).all("ConditionPathExists"))
    errors = tmp_path / "errors"
    wait_started(service, errors)
    store.set(route_key("10.1.0.0/16", "192.168.10.2"), 5)
    store.set(route_key("0.0.0.0/0", "192.168.10.254"), 1)  # does not wait for the quiet period
    wait_routes({"10.1.0.0/16", "0.0.0.0/0"}, errors)
    assert str(kernel_routes()["10.1.0.0/16"][0]) == "192.168.10.2 metric 5"
    assert "Daemon is up" in client_output(root, "show", "status")
    assert {"10.1.0.0/16", "0.0.0.0/0"} <= set(kernel_routes())
    main = service.main_pid()
    assert service.stop() == 0
    wait_until_gone(main)
    assert service.notices() == ["STOPPING=1"]
    service.close()

    root.remove(*reversed(NAMES))
    kept = ("etc/", "var/lib/systemd/", "var/log/korvalog/")
    left = {path for path in root.contents() - empty if not path.startswith(kept)}
    assert left == {"var/log/korvalog"}
    root.purge(*NAMES)
    assert root.contents() - empty == set()


def test_removal_takes_what_a_killed_daemon_left_behind(root, empty, installed):
    for name in ("vyr_config_dirty_flag", *(f"{file}.new" for file in CONFIG_FILES)):
        (installed.path / "tmp" / name).touch()
    root.purge(*reversed(NAMES))
    assert root.contents() - empty == set()


def test_a_second_start_is_refused_for_good(installed, service, store, tmp_path):
    del store
    wait_started(service, tmp_path / "errors")
    first = service.process
    second = service.start(tmp_path / "second")
    service.process = first
    assert second.wait() == SECOND_INSTANCE
    assert str(SECOND_INSTANCE) in unit_of(installed).words("RestartPreventExitStatus")
    assert service.stop() == 0


def attempt(statement):
    """A Python program that tries one thing and prints how that ended."""
    return ["/usr/bin/python3", "-c", f"""
import ctypes, mmap, os, socket
libc = ctypes.CDLL(None, use_errno=True)
try:
    {statement}
    print("done")
except OSError as error:
    print(os.strerror(error.errno))
"""]


def test_the_service_can_do_no_more_than_its_unit_says(service):
    refused = "Operation not permitted"
    expected = {
        "open('/tmp/a', 'w')": "done",
        "open('/var/log/korvalog/a', 'w')": "done",
        "open('/run/vyrwrap/a', 'w')": "done",
        "open('/etc/a', 'w')": "Read-only file system",
        "open('/usr/a', 'w')": "Read-only file system",
        "open('/korva/bin/a', 'w')": "Read-only file system",
        "open('/run/a', 'w')": "Read-only file system",
        "socket.socket(socket.AF_NETLINK, socket.SOCK_RAW)": "done",
        "socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM)": refused,
        "socket.socket(socket.AF_INET, socket.SOCK_RAW, 89)": refused,
        "os.setuid(1)": refused,
        "os.chroot('/tmp')": refused,
        "mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE)": "done",
        "mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC)": refused,
    }
    assert {statement: service.run(*attempt(statement)).stdout.strip() for statement in expected} == expected


def test_cleaning_tmp_by_age_leaves_the_daemons_files(installed):
    ours = [".vyrwrap.lock", ".vyrwrap_mrt", "name", "vyr.conf", "vyr.conf.stock", "vyr_app.conf", "vyr_log.conf",
            "vyr_oap.conf", "vyr_static.conf", "vyrwrap.17.chldpid", ".sock/link"]
    for name in [*ours, "somebodys"]:
        file = installed.path / "tmp" / name
        file.touch()
        subprocess.run(["touch", "--date", "30 days ago", str(file)], check=True)
    (installed.path / "usr/lib/tmpfiles.d/tmp.conf").write_text("q /tmp 1777 root root m:10d\n")
    subprocess.run(["systemd-tmpfiles", f"--root={installed.path}", "--clean"], check=True)
    left = {str(path.relative_to(installed.path / "tmp")) for path in (installed.path / "tmp").rglob("*")}
    assert left == {*ours, ".sock"}


def test_links_of_the_installed_documents_lead_to_installed_files(installed):
    documents = list((installed.path / "usr/share/doc/vyrwrap").glob("*.md"))
    links = [(document, link) for document in documents
             for link in re.findall(r"\]\(([^)#\s]+)[)#]", document.read_text()) if "://" not in link]
    assert len(links) > 10
    assert [link for document, link in links if not (document.parent / link).exists()] == []


def test_installation_makes_the_folders_that_the_daemon_needs(installed):
    for folder in ("tmp/.sock", "var/log/korvalog"):
        assert (installed.path / folder).stat().st_mode & 0o7777 == 0o755


def test_the_datagram_queue_is_raised(installed, network):
    del network
    subprocess.run(["/usr/lib/systemd/systemd-sysctl", str(installed.path / "usr/lib/sysctl.d/50-vyrwrap.conf")],
                   check=True)
    assert Path("/proc/sys/net/unix/max_dgram_qlen").read_text() == "512\n"


def test_the_default_file_changes_nothing_as_it_comes(installed):
    lines = (installed.path / "etc/default/vyrwrap").read_text().splitlines()
    assert [line for line in lines if line and not line.startswith("#")] == []
    assert {line[1:].split("=")[0] for line in lines if "=" in line} >= {"DAL_URL", "KORVA_LOG", "KORVA_MAC",
                                                                         "KORVA_SERIAL"}


def test_systemd_has_nothing_to_say_against_the_unit(installed):
    for target in Path("/usr/lib/systemd/system").glob("*.target"):
        shutil.copy(target, installed.path / "usr/lib/systemd/system")
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", f"--root={installed.path}", "vyrwrap.service"],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")
