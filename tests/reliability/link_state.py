"""What the routing application must be told in a replay, told from the store alone, as the lines that rpapp prints."""

import os
import re
import socket
import struct
from collections import Counter

import link_records
from route_model import address, dotted, number

from application import APPLICATION_SOCKET

TUNNELS, VLANS, CLUSTERS = b"/op/tunnel/", b"/op/vlans/route", b"/op/clusters/"
MOST_TUNNELS = 200

_FIELDS = ("tunnel_name", "dst_mac", "pair_uuid", "tunnel_index", "mapid", "tunnel_ip", "mask", "peer_tunnel_ip",
           "peer_public_ip", "flags", "vlan_id", "link_priority", "tunnel_status")
_NAME_LENGTH, _KEY_LENGTH = 200, 191
_CLUSTER_NAME_LENGTH = 32
_MOST_NODES, _NODE_SIZE = 12, 24
_LONGEST_VLAN_ADDRESS = 15


def text_of(value):
    """What C reads of it."""
    return value.split(b"\0")[0]


def quoted_text(value):
    """As rpapp prints it between quotes."""
    out = bytearray()
    for byte in text_of(value):
        if byte < 0x20 or byte == 0x7f:
            out += b"\\x%02x" % byte
        else:
            out += b"\\" * (byte in b'"\\') + bytes([byte])
    return out.decode(errors="replace")


def ip(value):
    return dotted(address(text_of(value), 4096) or 0).decode()


def mac(value):
    text = text_of(value).decode("latin-1").lower()
    return text if re.fullmatch("[0-9a-f]{2}(:[0-9a-f]{2}){5}", text) else link_records.NO_MAC


# Tunnels

def tunnel_line(fields):
    """The line of a hash in a replay, None when it is refused."""
    if not isinstance(fields, dict) or not all(fields.get(name.encode()) for name in _FIELDS):
        return None
    values = {name: fields[name.encode()] for name in _FIELDS}
    if number(values["mapid"]) == 0:
        return None
    numbers = {name: number(values[name]) for name in _FIELDS if name not in ("tunnel_name", "dst_mac", "pair_uuid")}
    up = numbers["tunnel_status"] & 0xff == 1
    return link_records.tunnel(
        9 if up else 1, "", tunnel_name=quoted_text(text_of(values["tunnel_name"])[:199]), dst_mac=mac(values["dst_mac"]),
        pair_uuid=quoted_text(text_of(values["pair_uuid"])[:39]), tunnel_index=numbers["tunnel_index"],
        mapid=numbers["mapid"] & 0xffffffff, flags=numbers["flags"] & 0xffffffff, vlan_id=numbers["vlan_id"] & 0xffff,
        link_priority=numbers["link_priority"] & 0xff, tunnel_status=int(up),
        **{name: ip(values[name]) for name in ("tunnel_ip", "mask", "peer_tunnel_ip", "peer_public_ip")})


def wanted_tunnels(store):
    """(lines that must come, names of keys whose earlier record may still be there)"""
    lines, unreadable = [], set()
    for key in store:
        name = key[len(TUNNELS):]
        if not key.startswith(TUNNELS) or b"\0" in key or len(name) > _NAME_LENGTH:
            continue
        line = tunnel_line(store.get(key[:_KEY_LENGTH]))
        if line:
            lines.append(line)
        else:
            unreadable.add(quoted_text(name))
    return lines, unreadable


def is_refused_whole(store, lines):
    """With too many tunnels none is told."""
    return not lines and len(wanted_tunnels(store)[0]) > MOST_TUNNELS


def tunnel_differences(store, lines, kept):
    """`lines` are those of a tunnel replay, `kept` the names of records that stay behind."""
    wanted, unreadable = wanted_tunnels(store)
    if is_refused_whole(store, lines):
        return []
    lines = [line for line in lines if not line.startswith("datagram ")]
    kept = {quoted_text(name.encode()) for name in kept}
    missing, extra = Counter(wanted) - Counter(lines), Counter(lines) - Counter(wanted)
    return [f"replay: lacks {line}" for line in missing.elements()] + \
        [f"replay: has {line} without a key" for line in extra.elements() if name_in(line) not in unreadable | kept]


def name_in(line):
    return re.search('name="((?:[^"\\\\]|\\\\.)*)"', line)[1]


# VLANs

def vlan_line(key):
    """The line of a key, None when it is refused."""
    brace, colon = key.find(b"{"), key.find(b":")
    if brace < 0 or colon < 0:
        return None
    address_text = key[brace + 1:colon] if colon > brace else b""
    mask_text, found, rest = key[colon + 1:].partition(b":")
    place, mask = (address(text, _LONGEST_VLAN_ADDRESS) for text in (address_text, mask_text))
    if not found or place is None or mask is None or b"}" not in rest or not 0 < number(rest) < 4096:
        return None
    return link_records.vlan(4, number(rest), dotted(place).decode(), dotted(mask).decode())


def vlan_differences(store, lines):
    """`lines` are those of a VLAN replay."""
    keys = sorted(key for key in store if key.startswith(VLANS) and b"\0" not in key)
    return _list_differences([line for line in map(vlan_line, keys) if line], lines)


def _list_differences(wanted, lines):
    if wanted == lines:
        return []
    missing, extra = Counter(wanted) - Counter(lines), Counter(lines) - Counter(wanted)
    return [f"replay: lacks {line}" for line in missing.elements()] + \
        [f"replay: has {line} without a key" for line in extra.elements()] or ["replay: not in the order of the keys"]


# Clusters

def node_text(node):
    family, = struct.unpack_from("=H", node)
    flags, = struct.unpack_from("=I", node, 20)
    shown = ""
    if family in (socket.AF_INET, socket.AF_INET6):
        shown = socket.inet_ntop(family, node[4:8] if family == socket.AF_INET else node[4:20])
    return f"{shown}/family:{family}/flags:0x{flags:x}"


def cluster_line(name, fields, peers):
    """The line of an active cluster, None when it is refused. `peers` is {peer's address: its MAC}."""
    if not isinstance(fields, dict) or len(name) > _CLUSTER_NAME_LENGTH:
        return None
    ddg_ip, state, node_num, nodes = (fields.get(each, b"") for each in (b"ddg_ip", b"cluster_state", b"node_num",
                                                                        b"nodelist"))
    count, nodes = number(text_of(node_num)), nodes[:_MOST_NODES * _NODE_SIZE]
    if not ddg_ip or not state or not 1 <= count <= _MOST_NODES or len(nodes) != count * _NODE_SIZE:
        return None
    active = number(text_of(state)) & 0xff
    if not active or ip(ddg_ip) not in peers:
        return None
    texts = [node_text(nodes[at:at + _NODE_SIZE]) for at in range(0, len(nodes), _NODE_SIZE)]
    return link_records.cluster(quoted_text(name), peers[ip(ddg_ip)], ip(ddg_ip), active, texts)


def cluster_differences(store, lines, tunnels):
    """`lines` are those of a cluster replay, `tunnels` of a tunnel replay right before: the first tunnel to a cluster's
    address gives the MAC."""
    peers = {}
    for line in tunnels:
        found = re.search(r" mac=(\S+) .* peer=(\S+) ", line)
        if found:
            peers.setdefault(found[2], found[1])
    keys = sorted(key for key in store if key.startswith(CLUSTERS) and b"\0" not in key)
    wanted = [cluster_line(key[len(CLUSTERS):], store[key], peers) for key in keys]
    return _list_differences([line for line in wanted if line], lines)


# Replays

def replay(application, what):
    """The lines of one whole replay."""
    mark = application.mark()
    application.replay(what)
    application.settle()
    end = os.urandom(6)  # behind the answer in the application's own queue: when it is printed, so is the answer
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        sender.settimeout(10)
        sender.sendto(end, str(APPLICATION_SOCKET))
    last = f"unknown 6 bytes: {end.hex()}"
    application.wait(last, mark)
    lines = application.records(mark)
    return lines[:lines.index(last)]
