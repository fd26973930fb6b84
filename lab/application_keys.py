"""The DAL's keys behind what the routing application is told: tunnels, VLANs, clusters and the overlay."""

import socket
import struct

OVERLAY_KEY = "/config/vyr/oap/proto_oap_enable"
REDISTRIBUTED_KEY = "/op/vlans/route_redistributed_vlans"


def tunnel_key(name):
    return f"/op/tunnel/{name}"


def cluster_key(name):
    return f"/op/clusters/{name}"


def vlan_key(vlan, address="10.1.1.1", mask="255.255.255.0"):
    return f"/op/vlans/route{{{address}:{mask}:{vlan}}}"


def tunnel_fields(name, **changes):
    """The 13 fields of a tunnel that is down, as text, with these changes."""
    return {"tunnel_name": name, "dst_mac": "02:00:5e:20:00:01", "pair_uuid": "5f0c-pair", "tunnel_index": "3",
            "mapid": "7", "tunnel_ip": "10.250.0.1", "mask": "255.255.255.252", "peer_tunnel_ip": "10.250.0.2",
            "peer_public_ip": "198.51.100.9", "flags": "1", "vlan_id": "40", "link_priority": "5",
            "tunnel_status": "0", **{field: str(value) for field, value in changes.items()}}


def ipv4_node(address, flags=0, reserved=0):
    """A cluster's node of 24 bytes: family, two bytes, an address of 16 bytes in network order, flags."""
    return struct.pack("=HH4s12xI", socket.AF_INET, reserved, socket.inet_aton(address), flags)


def ipv6_node(address, flags=0):
    return struct.pack("=HH16sI", socket.AF_INET6, 0, socket.inet_pton(socket.AF_INET6, address), flags)


def cluster_fields(ddg_ip="10.250.0.2", state=1, nodes=()):
    return {"ddg_ip": ddg_ip, "cluster_state": str(state), "node_num": str(len(nodes)), "nodelist": b"".join(nodes)}


class ApplicationKeys:
    """Sets and deletes them. Mixed into what has a `redis`."""

    def set_tunnel(self, name, **changes):
        """The whole hash at once: one notification."""
        self.redis.hset(tunnel_key(name), mapping=tunnel_fields(name, **changes))

    def change_tunnel(self, name, **changes):
        """These fields alone, at once."""
        self.redis.hset(tunnel_key(name), mapping=changes)

    def delete_tunnel(self, name):
        self.redis.delete(tunnel_key(name))

    def set_vlan(self, vlan, address="10.1.1.1", mask="255.255.255.0"):
        self.redis.set(vlan_key(vlan, address, mask), "")

    def delete_vlan(self, vlan, address="10.1.1.1", mask="255.255.255.0"):
        self.redis.delete(vlan_key(vlan, address, mask))

    def set_cluster(self, name, **fields):
        self.redis.hset(cluster_key(name), mapping=cluster_fields(**fields))

    def delete_cluster(self, name):
        self.redis.delete(cluster_key(name))

    def set_overlay(self, enable):
        """The key's value is one byte, no text."""
        self.redis.set(OVERLAY_KEY, bytes([enable]))

    def set_redistributed(self, *vlans):
        self.redis.set(REDISTRIBUTED_KEY, "{" + ":".join(map(str, vlans)) + "}")
