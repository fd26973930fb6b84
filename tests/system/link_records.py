"""What the routing application prints for the records that it should receive."""

from application_keys import tunnel_fields

UP_FLAG = 0x20
TUNNEL_OPERATIONS = {1: "added", 2: "deleted", 3: "updated", 4: "went-up", 5: "went-down", 9: "added-up"}
VLAN_OPERATIONS = {4: "announced", 5: "withdrawn"}
NO_MAC = "00:00:00:00:00:00"

_MARKER_VLAN, _MARKER_ADDRESS = 4095, "10.255.255.254"


def tunnel(opcode, name, **changes):
    fields = tunnel_fields(name, **changes)
    up = fields["tunnel_status"] == "1"
    flags = int(fields["flags"]) | (UP_FLAG if up else 0)
    return (f'tunnel {TUNNEL_OPERATIONS[opcode]} op={opcode} kind=1 name="{fields["tunnel_name"]}" '
            f'mac={fields["dst_mac"]} uuid="{fields["pair_uuid"]}" index={fields["tunnel_index"]} '
            f'mapid={fields["mapid"]} ip={fields["tunnel_ip"]} mask={fields["mask"]} peer={fields["peer_tunnel_ip"]} '
            f'public={fields["peer_public_ip"]} flags=0x{flags:x} vlan={fields["vlan_id"]} '
            f'priority={fields["link_priority"]} status={int(up)}')


def replayed(*tunnels):
    """The lines of one datagram of several tunnels."""
    return [*tunnels, f"datagram {348 * len(tunnels)} bytes, {len(tunnels)} records"]


def vlan(opcode, number, address="10.1.1.1", mask="255.255.255.0"):
    return f"vlan {VLAN_OPERATIONS[opcode]} op={opcode} kind=2 id={number} ip={address} mask={mask}"


def cluster(name, mac, ddg_ip="10.250.0.2", state=1, nodes=()):
    """Of an active cluster, or of one that is set but inactive. `nodes` are their texts."""
    operation, opcode = ("updated", 1) if state else ("deleted", 2)
    return f'cluster {operation} op={opcode} name="{name}" ddg_ip={ddg_ip} state={state} mac={mac} ' + \
        " ".join([f"nodes={len(nodes)}", *(f"node={node}" for node in nodes)])


def removed_cluster(name):
    return cluster(name, NO_MAC, ddg_ip="0.0.0.0", state=0)


class Told:
    """What the daemon tells the routing application, from one call to the next."""

    def __init__(self, access_point):
        self._access_point = access_point
        self._mark = access_point.application.mark()

    def __call__(self):
        """All that it told, up to the last change that was made so far. It follows the VLANs already."""
        access_point, application = self._access_point, self._access_point.application
        mark = application.mark()
        access_point.set_vlan(_MARKER_VLAN, _MARKER_ADDRESS)
        application.wait(vlan(4, _MARKER_VLAN, _MARKER_ADDRESS), mark)
        access_point.delete_vlan(_MARKER_VLAN, _MARKER_ADDRESS)
        application.wait(vlan(5, _MARKER_VLAN, _MARKER_ADDRESS), mark)
        lines = [line for line in application.records(self._mark) if _MARKER_ADDRESS not in line]
        self._mark = application.mark()
        return lines

    def replay(self, what):
        """What a replay is answered with."""
        self()
        self._access_point.application.replay(what)
        self._access_point.application.settle()
        return self()
