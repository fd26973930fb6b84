"""An access point inside the sandbox: Redis, vyrwrap, the routing daemon and a VLAN interface.

    with AccessPoint() as ap:
        ap.set_route("10.1.0.0/16", "192.168.10.2", metric=5)
        ap.wait_route("10.1.0.0/16", via=["192.168.10.2"], metric=5)
"""

import ipaddress
import os
import re
import shutil
import signal
import struct
import subprocess
from pathlib import Path

import redis

from application import OUTPUT, Application
from application_keys import ApplicationKeys
from logfile import LogFile
from network import add_bridge, kernel_routes, raise_queue_length, remove_bridge
from process import Process, child_of, children_of, is_running
from subscriber import Subscriber
from wait import wait_for

ROOT = Path(__file__).resolve().parent.parent
BINARIES = Path(os.environ.get("LAB_BINARIES", ROOT / "build" / "bin"))

BRIDGE = "br0"
ADDRESSES = ("192.168.10.1/24", "192.168.20.1/24")
QUEUE_LENGTH = 512
MAC = "02:00:5e:10:00:01"
SERIAL = "LAB000001"

REDIS_SOCKET = Path("/run/lab/redis.sock")
STATIC_FILE = Path("/tmp/vyr_static.conf")
OVERLAY_FILE = Path("/tmp/vyr_oap.conf")
LOG_CONFIG_FILE = Path("/tmp/vyr_log.conf")
EXPORT_FILE = Path("/tmp/.vyrwrap_mrt")
LOG = Path("/tmp/vyrwrap.log")

LEVEL_KEY = "/op/syslog/facility/network/level"
VYR_LEVEL_KEY = "/op/vyr/logging/vyr_log_level"
EXPORT_CHANNEL = "/ipc/event/vyrwrap/mrt"
LIMIT_CHANNEL = "/event/ap/route_limit"

STATUS_VYR_ENDED = 5  # the daemon's own, when no signal killed the routing daemon

# The daemon launches the routing daemon on its second timer run, and reloads it on the second one after a change; the
# timer runs every 5 s. Some room is left for a busy machine.
LAUNCH_SECONDS = 20
RELOAD_SECONDS = 20

# Route export, static routes, redistributed VLANs: what is subscribed to before the static routes are read.
_OWN_PATTERNS = 3

_LEFT_BEHIND = ["/tmp/vyr*", "/tmp/.vyrwrap*", "/tmp/.sock", "/tmp/bird_*_exp.ctl", "/run/lab", "/tmp/redis.err",
                str(OUTPUT), "/tmp/name"]
_SANITIZER_REPORT = re.compile(r"AddressSanitizer|LeakSanitizer|runtime error:")


def route_key(prefix, next_hop, kind=1):
    """The DAL's key of a static route. Host bits of the prefix stay."""
    interface = ipaddress.ip_interface(prefix)
    return f"/op/staticroute/{{{interface.ip}:{interface.netmask}:{kind}:{next_hop}}}"


def _running_bird(vyr):
    """The child that routes: vyr has one before it, of the same name, that only checks the configuration."""
    bird = child_of(vyr, "bird")
    try:
        return bird if bird and b"-f" in Path(f"/proc/{bird}/cmdline").read_bytes().split(b"\0") else None
    except OSError:
        return None


def wait_for_redis(client):
    """Waits until the server answers, which the client need not have reached before."""
    def answers():
        try:
            return client.ping()
        except redis.RedisError:
            return False

    wait_for(answers, "Redis answers")


class AccessPoint(ApplicationKeys):
    """One at a time in a sandbox. As a context manager it is set up and started, and ended with all that it made."""

    def __init__(self, start=True):
        """With `start` false nothing but the surroundings is set up: no Redis, no daemon."""
        self._start = start
        self.redis_server = None
        self.daemon = None
        self.log = LogFile(LOG)
        self.application = Application(self.log)

    def __enter__(self):
        try:
            self.set_up()
            if self._start:
                self.start_redis()
                self.start_daemon()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exception):
        self.close()

    # Surroundings

    def set_up(self):
        """Folders, programs, templates and the VLAN interface."""
        if not os.environ.get("LAB_SANDBOX"):
            raise RuntimeError("the lab changes /tmp, /etc/bird and the network: run it with lab/sandbox")
        add_bridge(BRIDGE, *ADDRESSES)
        raise_queue_length(QUEUE_LENGTH)
        for folder in ("/tmp/.sock", "/var/log/korvalog", "/etc/bird", "/korva/bin", REDIS_SOCKET.parent):
            Path(folder).mkdir(parents=True, exist_ok=True)
        for template in (ROOT / "lab" / "etc-bird").iterdir():
            shutil.copy(template, "/etc/bird")
        for program in ("vyrwrap", "vyr", "vyrc", "rpapp"):
            link = Path("/korva/bin", program)
            link.unlink(missing_ok=True)
            if (BINARIES / program).exists():
                link.symlink_to(BINARIES / program)

    def close(self):
        """Ends all that was started and removes all that was made. Says where a sanitizer found something."""
        reports = []
        for process in (self.daemon, self.redis_server, self.application.process):
            if process and process.running:
                process.stop()
            if process and process.stderr.exists():
                reports += [line for line in process.stderr.read_text(errors="replace").splitlines()
                            if _SANITIZER_REPORT.search(line)]
        remove_bridge(BRIDGE)
        for pattern in _LEFT_BEHIND:
            for path in Path("/").glob(pattern[1:]):
                shutil.rmtree(path) if path.is_dir() else path.unlink()
        assert not reports, reports

    # Redis

    def start_redis(self, *options):
        """With options of its own, as "--maxmemory", "1mb"."""
        arguments = ["redis-server", "--port", "0", "--unixsocket", str(REDIS_SOCKET), "--save", "", "--appendonly",
                     "no", "--dir", str(REDIS_SOCKET.parent), *options]
        self.redis_server = Process("redis-server", arguments, "/tmp/redis.err")
        wait_for_redis(self.redis)

    def stop_redis(self):
        """All keys are gone with it."""
        self.redis_server.stop()

    @property
    def redis(self):
        return redis.Redis(unix_socket_path=str(REDIS_SOCKET))

    def set_route(self, prefix, next_hop, metric=1, kind=1):
        self.redis.set(route_key(prefix, next_hop, kind), metric)

    def run_timer_at_once(self):
        """Makes the daemon do what its timer does: a change of a default route does not wait."""
        self.redis.set(route_key("0.0.0.0/0", "192.168.10.254"), int(self.redis.incr("/lab/timer")) % 255 + 1)

    def delete_route(self, prefix, next_hop, kind=1):
        self.redis.delete(route_key(prefix, next_hop, kind))

    def ask_export(self, kind):
        """Asks for an export over the DAL. The type is a number, or the message's bytes."""
        data = kind if isinstance(kind, bytes) else struct.pack("=I", kind)
        self.redis.publish(EXPORT_CHANNEL, data)

    def subscribe(self, channel):
        return Subscriber(self.redis, channel)

    # The daemon and its child

    @staticmethod
    def environment(**more):
        """What vyrwrap is started with."""
        return {**os.environ, "PATH": f"/korva/bin:{os.environ['PATH']}:/usr/sbin:/sbin",
                "DAL_URL": f"unix://{REDIS_SOCKET}", "KORVA_LOG": f"file:{LOG}", "KORVA_MAC": MAC,
                "KORVA_SERIAL": SERIAL, **more}

    def start_daemon(self, **environment):
        """Starts vyrwrap; arguments are added to its environment."""
        self.daemon = Process("vyrwrap", ["/korva/bin/vyrwrap"], "/tmp/vyrwrap.err", self.environment(**environment))

    @property
    def errors(self):
        """What vyrwrap and vyr print to their standard error."""
        return LogFile("/tmp/vyrwrap.err")

    def wait_ready(self, seconds=10):
        """Waits until the daemon follows the static routes: a change from here on is noticed."""
        wait_for(lambda: self.daemon.running and self.redis.pubsub_numpat() >= _OWN_PATTERNS, "vyrwrap has subscribed",
                 seconds)

    def vyr(self, seconds=LAUNCH_SECONDS):
        """The process id of the routing daemon, once it runs."""
        return self.daemon.child("vyr", seconds)

    def wait_only_vyr(self, seconds=20):
        """Until no command of a reload is left beside the routing daemon: one that ends behind it has the daemon forget the
        signal that killed it."""
        wait_for(lambda: children_of(self.daemon.pid) == [self.vyr()],
                 lambda: f"vyr is the only child, of {children_of(self.daemon.pid)}", seconds)

    def bird(self, seconds=LAUNCH_SECONDS):
        """The process id of BIRD under the routing daemon, once it runs."""
        vyr = self.vyr(seconds)
        return wait_for(lambda: _running_bird(vyr), "vyr has a child bird that routes")

    def reload_at_once(self):
        """Makes the routing daemon read its files now, without the daemon's quiet period."""
        os.kill(self.vyr(), signal.SIGHUP)

    # What can be seen

    def static_file(self):
        return STATIC_FILE.read_text(errors="replace") if STATIC_FILE.exists() else ""

    def wait_static_file(self, text, present=True, seconds=10):
        """Waits until the file that the daemon writes holds the text, or no longer does."""
        wait_for(lambda: (text in self.static_file()) == present,
                 f"{STATIC_FILE} {'holds' if present else 'no longer holds'} {text!r}", seconds)

    def overlay_file(self):
        return OVERLAY_FILE.read_text(errors="replace") if OVERLAY_FILE.exists() else ""

    def wait_overlay_file(self, wanted, seconds=10):
        """Waits until the overlay's file is exactly this text."""
        wait_for(lambda: self.overlay_file() == wanted,
                 lambda: f"{OVERLAY_FILE} is {wanted!r}; it is {self.overlay_file()!r}", seconds)

    def routes(self):
        return kernel_routes()

    def wait_route(self, prefix, via=(), metric=0, kind="unicast", seconds=LAUNCH_SECONDS + RELOAD_SECONDS):
        """Waits until the kernel holds exactly this route for the prefix."""
        wanted = (kind, metric, sorted(via))

        def held():
            return [(route.type, route.metric, sorted(route.via)) for route in kernel_routes().get(prefix, [])]

        wait_for(lambda: held() == [wanted], lambda: f"the kernel holds {prefix} {wanted}; it holds {held()}", seconds,
                 every=0.05)

    def wait_no_route(self, prefix, seconds=RELOAD_SECONDS):
        wait_for(lambda: prefix not in kernel_routes(), f"the kernel no longer holds {prefix}", seconds, every=0.05)

    def vyrc(self, *words):
        """Runs the routing daemon's client; its output."""
        return subprocess.run(["/korva/bin/vyrc", *words], check=True, capture_output=True, text=True, timeout=20).stdout


__all__ = ["AccessPoint", "Process", "child_of", "is_running", "route_key", "wait_for"]
