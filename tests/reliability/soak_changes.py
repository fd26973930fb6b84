"""Changes of every kind to the DAL: valid ones over a space of keys that the daemon's tables have room for, malformed
ones, expiries, renames and keys of other types; and what others ask of the daemon in between."""

import redis
from stand_in import EventPeer

from application_keys import (OVERLAY_KEY, REDISTRIBUTED_KEY, cluster_fields, cluster_key, ipv4_node, ipv6_node,
                              tunnel_fields, tunnel_key, vlan_key)
from lab import EXPORT_CHANNEL, LEVEL_KEY, VYR_LEVEL_KEY, route_key

NETWORKS = 50  # of up to five next hops, each with a metric of its own: 250 of the table's 272 entries at most
TUNNELS, CLUSTERS, VLANS = 40, 20, 30
STRAYS = 3
STRAY_NAMES = [f"other-{n}" for n in range(STRAYS)]  # in the hashes of tunnels with other keys: they cannot be removed

_FOLDERS = ("/op/staticroute/", "/op/tunnel/", "/op/clusters/", "/op/vlans/route", "/config/vyr/oap/")
_HOPS = [(1, f"192.168.{net}.{n}") for net in (10, 20) for n in range(2, 7)] + \
    [(2, "branch-map"), (2, 'a "quoted" map'), (3, "site"), (3, "a-cluster-with-a-name-of-more-than-32-characters"),
     (4, "7-192.168.20.9"), (4, "4094-192.168.10.9")]
_METRICS = ["0", "1", "2", "3", "5", "7", "9", "12345", "-1", "", "x", " 4"]
_BAD_ROUTES = ["{", "}", "{}", "{10.9.0.0}", "{10.9.0.0:255.255.0.0}", "{10.9.0.0:255.255.0.0:1}",
               "{10.9.0.0:255.255.0.0:1:192.168.10.2", "{10.9.0.256:255.255.0.0:1:192.168.10.2}",
               "{10.9.0.0:255.255.0.0.0:1:192.168.10.2}", "{:255.255.0.0:1:192.168.10.2}", "{127.0.0.1:255.0.0.0:1:192.168.10.2}",
               "{0.1.2.3:255.255.255.0:1:192.168.10.2}", "{10.9.0.0:255.255.0.0:4:7}", "{10.9.0.0:255.255.0.0:4:7-x}",
               "{10.9.0.0:255.255.0.0:2:" + "n" * 300, "x:{10.9.0.0:255.255.0.0:1:192.168.10.2}", "%s%n%x{", "\n\r\t{:::}",
               "{10.9.0.0:255.255.0.0:1:\x00}", "\xff\xfe{10.9.0.0", "", "{" * 120, ":" * 120]
_BAD_VLANS = ["{10.1.1.1:255.255.255.0:0}", "{10.1.1.1:255.255.255.0:4096}", "{10.1.1.1:255.255.255.0:-5}", "{", "",
              "{10.1.1.1:255.255.255.0:12", "{10.1.1.1.1:255.255.255.0:12}", "{10.1.1.1:12}", "_other", "{:::}",
              "{10.1.1.1:255.255.255.0:12" + "0" * 150]
_BAD_TUNNELS = [{"mapid": "0"}, {"mapid": "x"}, {"dst_mac": "no mac"}, {"tunnel_ip": "10.300.0.1"}, {"flags": ""},
                {"tunnel_status": "257"}, {"vlan_id": "70000"}, {"tunnel_index": "99999999999"}, {"pair_uuid": "u" * 100},
                {"peer_public_ip": "\n"}, {"link_priority": "-1"}]
_BAD_CLUSTERS = [{"node_num": "13"}, {"node_num": "0"}, {"node_num": "x"}, {"nodelist": b"n" * 47}, {"nodelist": b""},
                 {"ddg_ip": "nowhere"}, {"ddg_ip": ""}, {"cluster_state": "256"}, {"cluster_state": "x"}]
_REDISTRIBUTED = ["{}", "{10}", "{10:20}", "{10:4096:0:20}", "10:20", "{", "", "{:::}", "{1}:2:3}", "{000000000012:7}",
                  "{" + ":".join(map(str, range(1, 4000))) + "}", "x" * 30000]
_OVERLAY = [b"\1", b"\1", b"\1", b"\0", b"\2", b"1", b"", b"\1and more"]
_VYR_LEVELS = ["warn", "notice", "info", "debug", "loud", "", "warn" * 20]
_OWN_LEVELS = ["emerg", "crit", "err", "error", "warning", "notice", "info", "debug", "loud", ""]


def hops_of(network):
    """Five next hops that differ, and no two of them with one gateway."""
    return [_HOPS[(network + 3 * n) % len(_HOPS)] for n in range(5)]


def network_prefix(network):
    """The first is the default route; the lengths differ."""
    return "0.0.0.0/0" if network == 0 else f"10.{network}.{network % 3}.0/{(16, 24, 22, 32)[network % 4]}"


def a_route(dice):
    network = min(dice.randrange(NETWORKS * 10) // 10, dice.randrange(NETWORKS))
    kind, hop = dice.choice(hops_of(network))
    return route_key(network_prefix(network), hop, kind)


def a_tunnel(dice):
    n = dice.randrange(TUNNELS)
    fields = tunnel_fields(f"t{n}", mapid=dice.randrange(1, TUNNELS * 2), tunnel_status=dice.randrange(3),
                           peer_tunnel_ip=f"10.250.0.{n}", dst_mac=f"02:00:5e:20:00:{dice.randrange(256):02x}",
                           flags=dice.randrange(64))
    return tunnel_key(f"t{n}"), fields


def a_cluster(dice):
    node = dice.choice([ipv4_node("10.0.0.1", dice.randrange(9)), ipv6_node("fe80::1", 3)])
    name = dice.choice(["c%d", "c%d", "c%d", "%%d-%d", "s %d\"\\", "n" * 31 + "%d"]) % dice.randrange(CLUSTERS)
    return cluster_key(name), cluster_fields(ddg_ip=f"10.250.0.{dice.randrange(TUNNELS)}", state=dice.randrange(3),
                                             nodes=[node] * dice.randrange(1, 13))


def a_vlan(dice):
    n = dice.randrange(1, VLANS)
    return vlan_key(n, f"10.1.{n}.1", dice.choice(["255.255.255.0", "255.255.0.0"]))


class Changes:
    """`one` makes the next change. The same dice give the same changes."""

    def __init__(self, access_point, server, dice):
        self._access_point, self._server, self._dice = access_point, server, dice
        self.made = self.refused = 0
        self._kinds = [
            (30, self._set_route), (14, self._delete_route), (9, self._set_tunnel), (4, self._delete_tunnel),
            (4, self._damage_tunnel), (1, self._stray_tunnel), (5, self._set_cluster), (3, self._delete_cluster),
            (2, self._damage_cluster), (5, self._set_vlan), (4, self._delete_vlan), (4, self._set_redistributed),
            (4, self._set_overlay), (2, self._set_vyr_level), (2, self._set_own_level), (5, self._set_malformed_key),
            (2, self._set_other_type), (4, self._let_expire), (3, self._rename), (3, self._several_at_once),
            (2, self._ask_export), (1, self._report_limit), (1, self._ask_replay)]

    def one(self):
        """A change that Redis refuses, or cannot take just now, counts as refused."""
        weights, kinds = zip(*self._kinds)
        kind, = self._dice.choices(kinds, weights)
        self.made += 1
        try:
            kind(self._server)
        except (redis.RedisError, OSError):
            self.refused += 1

    def some(self, count):
        for _ in range(count):
            self.one()

    # Routes

    def _set_route(self, keys):
        keys.set(a_route(self._dice), self._dice.choice(_METRICS[:7] * 4 + _METRICS))

    def _delete_route(self, keys):
        keys.delete(a_route(self._dice))

    # Tunnels, clusters, VLANs

    def _set_tunnel(self, keys):
        key, fields = a_tunnel(self._dice)
        keys.hset(key, mapping=fields)

    def _damage_tunnel(self, keys):
        key, fields = a_tunnel(self._dice)
        if self._dice.randrange(2):
            keys.hdel(key, *self._dice.sample(sorted(fields), self._dice.choice([1, 2, 13])))
        else:
            keys.hset(key, mapping={**fields, **self._dice.choice(_BAD_TUNNELS)})

    def _stray_tunnel(self, keys):
        n = self._dice.randrange(STRAYS)
        if self._dice.randrange(3):
            keys.hset(tunnel_key(f"s{n}"), mapping=tunnel_fields(STRAY_NAMES[n], mapid=1000 + self._dice.randrange(5)))
        else:
            keys.delete(tunnel_key(f"s{n}"))

    def _delete_tunnel(self, keys):
        keys.delete(a_tunnel(self._dice)[0])

    def _set_cluster(self, keys):
        key, fields = a_cluster(self._dice)
        keys.hset(key, mapping=fields)

    def _damage_cluster(self, keys):
        key, fields = a_cluster(self._dice)
        if self._dice.randrange(2):
            keys.hdel(key, self._dice.choice(sorted(fields)))
        else:
            keys.hset(key, mapping={**fields, **self._dice.choice(_BAD_CLUSTERS)})

    def _delete_cluster(self, keys):
        keys.delete(a_cluster(self._dice)[0])

    def _set_vlan(self, keys):
        keys.set(a_vlan(self._dice), self._dice.choice(["", "anything"]))

    def _delete_vlan(self, keys):
        keys.delete(a_vlan(self._dice))

    # Settings

    def _set_redistributed(self, keys):
        self._set_or_delete(keys, REDISTRIBUTED_KEY, _REDISTRIBUTED)

    def _set_overlay(self, keys):
        self._set_or_delete(keys, OVERLAY_KEY, _OVERLAY)

    def _set_vyr_level(self, keys):
        self._set_or_delete(keys, VYR_LEVEL_KEY, _VYR_LEVELS)

    def _set_own_level(self, keys):
        self._set_or_delete(keys, LEVEL_KEY, _OWN_LEVELS)

    def _set_or_delete(self, keys, key, values):
        value = self._dice.choice([None, *values])
        keys.delete(key) if value is None else keys.set(key, value)

    # Whatever else a store may hold

    def _set_malformed_key(self, keys):
        texts = {"/op/staticroute/": _BAD_ROUTES, "/op/vlans/route": _BAD_VLANS}
        folder = self._dice.choice(_FOLDERS)
        text = self._dice.choice(texts.get(folder, ["", "n" * 250, "\x00", "%s%n", "a\nb", "{:}"]))
        key = (folder + text).encode("latin-1")
        self._dice.choice([lambda: keys.set(key, self._dice.choice(_METRICS)), lambda: keys.delete(key),
                           lambda: keys.hset(key, "mapid", "1")])()

    def _set_other_type(self, keys):
        key = self._dice.choice(_FOLDERS) + f"{{10.9.9.{self._dice.randrange(4)}:255.255.255.255:1:192.168.10.9}}"
        self._dice.choice([lambda: keys.rpush(key, "item"), lambda: keys.sadd(key, "member"), lambda: keys.delete(key),
                           lambda: keys.zadd(key, {"member": 1})])()

    def _let_expire(self, keys):
        milliseconds = self._dice.randrange(1, 3000)
        key, fields = self._dice.choice([a_tunnel, a_cluster])(self._dice)
        route, vlan = a_route(self._dice), a_vlan(self._dice)
        self._dice.choice([
            lambda: keys.set(route, 3, px=milliseconds), lambda: keys.pexpire(route, milliseconds),
            lambda: keys.set(vlan, "", px=milliseconds), lambda: keys.pexpire(vlan, milliseconds),
            lambda: (keys.hset(key, mapping=fields), keys.pexpire(key, milliseconds)),
            lambda: keys.set(OVERLAY_KEY, b"\1", px=milliseconds),
            lambda: keys.set(REDISTRIBUTED_KEY, "{30}", px=milliseconds)])()

    def _rename(self, keys):
        make = self._dice.choice([a_route, a_route, a_vlan, lambda dice: a_cluster(dice)[0]])
        keys.rename(make(self._dice), make(self._dice))

    def _several_at_once(self, keys):
        """As one transaction. The second key names the first one's next hop, with other host bits."""
        first, second = (route_key(f"10.200.0.{n}/16", "192.168.10.2") for n in (0, 1))
        with keys.pipeline() as commands:
            commands.set(first, 1).set(second, 2).delete(second).set(first, 3)
            for _ in range(self._dice.randrange(10)):
                self._set_route(commands)
            commands.execute()

    # What others ask of the daemon

    def _ask_export(self, keys):
        keys.publish(EXPORT_CHANNEL, self._dice.choice([bytes([n, 0, 0, 0]) for n in range(7)] + [b"", b"x" * 99]))

    def _report_limit(self, _):
        peer = EventPeer()
        self._dice.choice([lambda: peer.report(1, self._dice.randrange(9999), 512), lambda: peer.send(b"\xff" * 50),
                           lambda: None])()
        peer.close()

    def _ask_replay(self, _):
        application = self._access_point.application.process
        if application.running:
            application.write(f"replay {self._dice.choice(['tunnels', 'vlans', 'clusters'])}")


def refill(server, store):
    """Puts back what `read_store` gave, in place of what has been set since; keys of other types are left out."""
    with server.pipeline(transaction=False) as commands:
        for key, value in store.items():
            if isinstance(value, bytes):
                commands.set(key, value)
            elif value:
                commands.delete(key).hset(key, mapping=value)
        commands.execute()
