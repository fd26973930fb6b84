"""A simple model of the daemon's static routes: keys and their events go in, the file's text comes out."""

import socket
import string
from dataclasses import dataclass, field

ROUTES = 272
NEXT_HOPS = 5
KEY_LENGTH = 127
METRIC_LENGTH = 4
TEXT_LENGTH = 199

GATEWAY, IPSEC, PPPOE, CLUSTER = 0, 2, 5, 7


@dataclass
class Hop:
    kind: int = GATEWAY
    gateway: int = 0
    vlan: int = 0
    name: bytes = b""

    @property
    def named(self):
        return self.kind in (IPSEC, CLUSTER)

    def is_same(self, held):
        if self.named:
            return held is not None and held.kind == self.kind and held.name == self.name
        return held is not None and held.gateway == self.gateway

    def text(self):
        if self.named:
            quotable = not any(byte < 0x20 or byte in (0x22, 0x7f) for byte in self.name)
            return b'"' + (self.name if quotable else b"NULL") + b'"'
        if self.kind == PPPOE:
            return b'"__pppoe__vlan%u_%s"' % (self.vlan & 0xffffffff, dotted(self.gateway))
        return dotted(self.gateway)


@dataclass
class Entry:
    dest: int = 0
    mask: int = 0
    metric: int = 0
    hops: list = field(default_factory=lambda: [None] * NEXT_HOPS)

    @property
    def in_use(self):
        return any(self.hops)

    def is_of(self, dest, mask):
        return self.in_use and self.mask == mask and self.dest & mask == dest & mask


class RouteModel:
    def __init__(self):
        self._table = [Entry() for _ in range(ROUTES)]

    def key_set(self, key, value):
        """A notification "set" and the value that is read for it."""
        self._apply(key, value, self._add)

    def key_deleted(self, key):
        self._apply(key, b"", self._delete)

    def key_scanned(self, key, value):
        """Found at start: neither the key nor the value is cut."""
        route = parse(key)
        if route:
            self._change(route, number(value), self._add)

    def file(self):
        return b"protocol static {\n  ipv4;\n" + b"".join(map(route_text, filter(lambda e: e.in_use, self._table))) + b"}\n"

    def _apply(self, key, value, change):
        route = parse(key)
        if route and len(key) <= KEY_LENGTH and b"\0" not in key:
            self._change(route, number(value[:METRIC_LENGTH]), change)

    @staticmethod
    def _change(route, metric, change):
        dest, mask, hop = route
        if not dest or dest >> 24 not in (0, 127):
            change(dest, mask, metric & 0xffffffff, hop)

    def _find(self, dest, mask, hop):
        for entry in self._table:
            if entry.is_of(dest, mask):
                for slot, held in enumerate(entry.hops):
                    if hop.is_same(held):
                        return entry, slot
        return None, None

    def _delete(self, dest, mask, _, hop):
        entry, slot = self._find(dest, mask, hop)
        if entry:
            entry.hops[slot] = None

    def _add(self, dest, mask, metric, hop):
        entry = next((e for e in self._table if e.is_of(dest, mask) and e.metric == metric), None)
        target = entry or next((e for e in self._table if not e.in_use), None)
        slot = next((n for n, held in enumerate(entry.hops) if hop.is_same(held)), None) if entry else None
        if slot is None:
            if entry and None not in entry.hops:
                return
            slot = entry.hops.index(None) if entry else 0
            self._take_from_other_metric(dest, mask, hop)
        if target:
            target.dest, target.mask, target.metric = dest, mask, metric
            target.hops[slot] = hop

    def _take_from_other_metric(self, dest, mask, hop):
        entry, _ = self._find(dest, mask, hop)
        if entry:
            entry.hops = [None if hop.is_same(held) else held for held in entry.hops]


def route_text(entry):
    metric = entry.metric or 1
    hops = [hop.text() for hop in entry.hops if hop]
    indent = b"        " if len(hops) > 1 else b"    "
    return (b"  route %s/%d metric %u via " % (dotted(entry.dest), entry.mask.bit_count(), metric) +
            b" \n      via ".join(hops) +
            b" {\n%skrt_metric = %u;\n%spreference = 256;\n  };\n" % (indent, metric, indent))


def parse(key):
    """(destination, mask, next hop) of a key, None for one that is refused."""
    brace = key.find(b"{")
    colon = key.find(b":")
    if not key.startswith(b"/") or brace < 0 or colon < 0:
        return None
    dest_text = key[brace + 1:colon] if colon > brace else b""
    parts = key[colon + 1:].split(b":", 2)
    if len(parts) < 3 or b"}" not in parts[2]:
        return None
    dest, mask = address(dest_text), address(parts[0])
    hop = next_hop(number(parts[1]), parts[2].split(b"}", 1)[0])
    return None if dest is None or mask is None or hop is None else (dest, mask, hop)


def next_hop(kind, text):
    cut = text[:TEXT_LENGTH]
    if kind == 1:
        return Hop(gateway=(address(text, TEXT_LENGTH) or 0))
    if kind == 2:
        return Hop(IPSEC, name=cut)
    if kind == 3:
        return Hop(CLUSTER, name=(b"cluster_" + cut)[:40])
    if kind == 4:
        return pppoe(text)
    return Hop()


def pppoe(text):
    vlan, dash, rest = text.partition(b"-") if not text.lstrip(SPACE).startswith(b"-") else signed(text)
    words = rest.split()
    digits = vlan.lstrip(SPACE).lstrip(b"+-")
    if not dash or not digits.isdigit() or not words or len(text) > TEXT_LENGTH:
        return None
    gateway = address(words[0])
    return None if gateway is None else Hop(PPPOE, gateway, number(vlan))


def signed(text):
    head, _, rest = text.partition(b"-")
    vlan, dash, rest = rest.partition(b"-")
    return head + b"-" + vlan, dash, rest


SPACE = string.whitespace.encode()


def number(text):
    """As atoi, held within an int."""
    text = text.lstrip(SPACE)
    digits = text[1:] if text[:1] in (b"+", b"-") else text
    length = next((n for n, byte in enumerate(digits) if not 0x30 <= byte <= 0x39), len(digits))
    value = int(digits[:length] or b"0")
    return max(min(-value if text[:1] == b"-" else value, 2**31 - 1), -2**31)


def address(text, longest=16):
    """What inet_aton makes of it."""
    if len(text) > longest:
        return None
    try:
        return int.from_bytes(socket.inet_aton(text.decode("latin-1")), "big")
    except (OSError, ValueError):
        return None


def dotted(value):
    return socket.inet_ntoa(value.to_bytes(4, "big")).encode()
