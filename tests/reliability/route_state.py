"""What the static route file and the kernel must hold, told from the route keys of the store alone.

Where the daemon's state also depends on the order of changes, every state that some order leads to is taken: the order
of entries and next hops, the metric where several keys name one next hop, and whether a metric was read whole (at a
scan) or cut to four characters (at a change).
"""

import ipaddress
import re
from dataclasses import dataclass, field

from route_model import KEY_LENGTH, METRIC_LENGTH, NEXT_HOPS, ROUTES, Entry, Hop, dotted, number, parse, route_text

from lab import ADDRESSES, BRIDGE

FOLDER = b"/op/staticroute/"

_NO_HOP = dotted(0)  # what stands in the file for a route that has just lost its last next hop
_HEAD, _TAIL = b"protocol static {\n  ipv4;\n", b"}\n"
_HOP = rb'(?:"[^"\n]*"|[0-9.]+)'
_ROUTE = re.compile(rb"  route ([0-9.]+)/(\d+) metric (\d+) via (" + _HOP + rb"(?: \n      via " + _HOP + rb")*) \{\n")
_LINKS = [ipaddress.ip_interface(address) for address in ADDRESSES]
_INTERFACES = {BRIDGE, f"{BRIDGE}-peer", "lo"}
_LARGEST_PLAIN_METRIC = 2**31 - 1


@dataclass
class Wanted:
    """A next hop of a network: the metrics and texts that it may have, and whether it must be there."""

    metrics: set = field(default_factory=set)
    texts: set = field(default_factory=set)
    keys: int = 0
    certain: bool = True

    def add(self, metrics, text, certain):
        self.metrics |= metrics
        self.texts.add(text)
        self.keys += 1
        self.certain = certain and self.keys == 1

    def fits(self, metric, text):
        return text in self.texts and metric in map(shown, self.metrics)


@dataclass
class Shown:
    """An entry of the file: hops are texts."""

    dest: int
    length: int
    metric: int
    hops: list

    def __str__(self):
        return f"{dotted(self.dest).decode()}/{self.length} metric {self.metric} via {b', '.join(self.hops).decode()}"


def shown(metric):
    """A metric of 0 is written as 1."""
    return metric or 1


def read_file(data):
    """The entries of a file that is right to the byte; ValueError tells where it is not."""
    if not data:
        return []
    if not data.startswith(_HEAD) or not data.endswith(_TAIL):
        raise ValueError(f"begins {data[:40]!r} and ends {data[-40:]!r}")
    entries, place, end = [], len(_HEAD), len(data) - len(_TAIL)
    while place < end:
        found = _ROUTE.match(data, place)
        if not found:
            raise ValueError(f"byte {place}: {data[place:place + 80]!r}")
        entry = _entry(found)
        text = _text(entry)
        if data[place:place + len(text)] != text:
            raise ValueError(f"byte {place}: {data[place:place + len(text)]!r} is not {text!r}")
        entries.append(entry)
        place += len(text)
    return entries


def _entry(found):
    dest = int.from_bytes(ipaddress.IPv4Address(found[1].decode()).packed, "big")
    return Shown(dest, int(found[2]), int(found[3]), re.findall(_HOP, found[4]))


class _TextHop(Hop):
    def text(self):
        return self.name


def _text(entry):
    mask = (1 << entry.length) - 1  # only the number of its bits is written
    return route_text(Entry(entry.dest, mask, entry.metric, [_TextHop(name=hop) for hop in entry.hops]))


def wanted_routes(store):
    """{(network, mask): {identity of a next hop: Wanted}}"""
    networks = {}
    for key, value in store.items():
        route = parse(key) if key.startswith(FOLDER) and b"\0" not in key else None
        if not route:
            continue
        dest, mask, hop = route
        if dest and dest >> 24 in (0, 127):
            continue
        identity = (hop.kind, hop.name) if hop.named else hop.gateway
        whole_text = isinstance(value, bytes) and len(key) <= KEY_LENGTH
        metrics = {number(value), number(value[:METRIC_LENGTH])} if isinstance(value, bytes) else {0}
        hops = networks.setdefault((dest & mask, mask), {})
        hops.setdefault(identity, Wanted()).add({metric & 0xffffffff for metric in metrics}, hop.text(), whole_text)
    for hops in networks.values():
        _doubt_names_beside_no_gateway(hops)
    return networks


def _doubt_names_beside_no_gateway(hops):
    """A next hop without a gateway has the gateway of all named ones, 0, and takes the place of one of them."""
    names = [identity for identity in hops if isinstance(identity, tuple)]
    for identity in names if 0 in hops else ():
        hops[identity].certain = hops[0].certain = False


def file_differences(store, data):
    """Each difference between the static route file and the store, in a line."""
    try:
        entries = read_file(data)
    except ValueError as problem:
        return [f"static file: malformed, {problem}"]
    networks = wanted_routes(store)
    held, lost = _held_by_network(networks, entries)
    out = [f"static file: a route that the store does not have: {entry}" for entry in lost if not _is_emptied(entry)]
    emptied = [entry for entry in lost if _is_emptied(entry)]
    full = len(entries) >= ROUTES and _entry_count(networks) > ROUTES
    for network, hops in networks.items():
        out += _network_differences(network, hops, held.get(network, []), full, emptied)
    if len(emptied) > 1:
        out.append(f"static file: {len(emptied)} routes without next hop: {', '.join(map(str, emptied))}")
    return out


def _entry_count(networks):
    return sum(len({min(hop.metrics) for hop in hops.values()}) for hops in networks.values())


def _is_emptied(entry):
    return entry.hops == [_NO_HOP]


def _held_by_network(networks, entries):
    """The entries that belong to a network, and those that belong to none."""
    held, lost = {}, []
    for entry in entries:
        fitting = [network for network in networks if _is_of(entry, network)]
        if fitting:
            best = max(fitting, key=lambda network: _fitting_hops(networks[network], entry))
            held.setdefault(best, []).append(entry)
        else:
            lost.append(entry)
    return held, lost


def _is_of(entry, network):
    dest, mask = network
    return mask.bit_count() == entry.length and entry.dest & mask == dest


def _fitting_hops(hops, entry):
    return sum(any(wanted.fits(entry.metric, text) for wanted in hops.values()) for text in entry.hops)


def _network_differences(network, hops, entries, full, emptied):
    name = f"{dotted(network[0]).decode()}/{dotted(network[1]).decode()}"
    held = [(entry.metric, text, entry) for entry in entries for text in entry.hops]
    out = []
    for wanted in sorted(hops.values(), key=lambda each: not each.certain):
        found = next((each for each in held if wanted.fits(each[0], each[1])), None)
        if found:
            held.remove(found)
        elif wanted.certain and not full and not _has_five(hops, entries, wanted):
            out.append(f"static file: {name} lacks via {_one_of(wanted.texts)} at metric {_one_of(wanted.metrics)}; "
                       f"it has {'; '.join(map(str, entries)) or 'nothing'}")
    for metric, text, entry in held:
        if _is_emptied(entry):
            emptied.append(entry)
        else:
            out.append(f"static file: {name} has via {text.decode(errors='replace')} at metric {metric} without a key")
    return out + _split_entries(name, hops, entries)


def _has_five(hops, entries, wanted):
    """A sixth next hop of a network and metric is refused."""
    metrics = set(map(shown, wanted.metrics))
    rivals = [other for other in hops.values() if metrics & set(map(shown, other.metrics))]
    return len(rivals) > NEXT_HOPS and any(len(entry.hops) == NEXT_HOPS for entry in entries if entry.metric in metrics)


def _split_entries(name, hops, entries):
    """Two entries with the same metric are one too many, but for the metrics 0 and 1, which look the same."""
    for metric in {entry.metric for entry in entries}:
        count = sum(entry.metric == metric for entry in entries if not _is_emptied(entry))
        most = len({each for wanted in hops.values() for each in wanted.metrics if shown(each) == metric})
        if count > max(most, 1):
            return [f"static file: {name} has {count} entries with metric {metric}"]
    return []


def _one_of(values):
    return "/".join(sorted(value.decode(errors="replace") if isinstance(value, bytes) else str(value)
                           for value in values))


# The kernel's table

def kernel_differences(data, table):
    """Each difference between BIRD's routes in the kernel and what the static route file asks for. Networks that BIRD
    may refuse are left out."""
    try:
        wanted, doubtful = wanted_in_kernel(read_file(data))
    except ValueError as problem:
        return [f"static file: malformed, {problem}"]
    held = {destination: [(route.type, route.metric, frozenset(route.via)) for route in routes]
            for destination, routes in table.items() if destination not in doubtful}
    return [f"kernel: {network} is {held.get(network)}, not {wanted.get(network)}"
            for network in sorted(held.keys() | wanted.keys()) if held.get(network) != wanted.get(network)]


def wanted_in_kernel(entries):
    """({network: its one route}, networks of which nothing can be said). The lowest metric wins that has a gateway."""
    networks, doubtful = {}, set()
    for entry in entries:
        mask = 0xffffffff << (32 - entry.length) & 0xffffffff
        network = f"{dotted(entry.dest & mask).decode()}/{entry.length}"
        if _is_doubtful(entry, mask):
            doubtful.add(network)
        gateways = {text.decode() for text in entry.hops if _is_neighbour(text)}
        if gateways:
            networks.setdefault(network, {}).setdefault(entry.metric, set()).update(gateways)
    wanted = {network: [("unicast", min(metrics), frozenset(metrics[min(metrics)]))]
              for network, metrics in networks.items() if network not in doubtful}
    return wanted, doubtful


def _is_doubtful(entry, mask):
    address = entry.dest & mask
    odd_place = entry.length and (address >> 24 in (0, 127) or address >> 24 >= 224)
    on_link = any(address == int(link.network.network_address) and entry.length == link.network.prefixlen
                  for link in _LINKS)
    return odd_place or on_link or entry.metric > _LARGEST_PLAIN_METRIC or any(map(_is_odd_hop, entry.hops))


def _is_odd_hop(text):
    if text.startswith(b'"'):
        return text.strip(b'"').decode(errors="replace") in _INTERFACES
    address = ipaddress.IPv4Address(text.decode())
    return address == ipaddress.IPv4Address(0) or any(
        address in (link.ip, link.network.network_address, link.network.broadcast_address) for link in _LINKS)


def _is_neighbour(text):
    return not text.startswith(b'"') and any(ipaddress.IPv4Address(text.decode()) in link.network for link in _LINKS)
