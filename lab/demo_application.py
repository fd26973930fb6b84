"""The demo's chapters on the routing application: tunnels, clusters, VLANs and the overlay."""

from application_keys import OVERLAY_KEY, REDISTRIBUTED_KEY, cluster_key, ipv4_node, tunnel_key, vlan_key
from lab import OVERLAY_FILE
from wait import wait_for

_CLUSTER_NODES = [ipv4_node("192.168.30.1"), ipv4_node("192.168.30.2", flags=1)]


def _told(story, ap, text, since, note=""):
    story.step(f"the application receives: {text} ...{note}", lambda: ap.application.wait(text, since))


def _do(story, ap, command, change):
    """Makes the change. Returns the mark from which its records come."""
    since = ap.application.mark()
    story.note(command)
    change()
    return since


def application_starts(story, ap):
    story.chapter("The routing application starts and asks for what there is")
    ap.application.start()
    story.step("it has asked for tunnels, VLANs and clusters, and is told of changes from now on",
               ap.application.follow_all)


def tunnel(story, ap):
    story.chapter("A tunnel comes up and changes its mapid")
    key = tunnel_key("t1")
    since = _do(story, ap, f"HSET {key} tunnel_name t1 mapid 7 tunnel_status 0 ...  (13 fields)",
                lambda: ap.set_tunnel("t1", mapid=7))
    _told(story, ap, 'tunnel added op=1 kind=1 name="t1"', since)
    since = _do(story, ap, f"HSET {key} tunnel_status 1", lambda: ap.change_tunnel("t1", tunnel_status=1))
    _told(story, ap, 'tunnel went-up op=4 kind=1 name="t1"', since)
    since = _do(story, ap, f"HSET {key} mapid 8", lambda: ap.change_tunnel("t1", mapid=8))
    _told(story, ap, 'tunnel deleted op=2 kind=1 name="t1"', since, "  (with the mapid 7)")
    _told(story, ap, 'tunnel added-up op=9 kind=1 name="t1"', since, "  (with the mapid 8)")
    story.step("in this order, and nothing else", lambda: _require_words(
        ap, since, [("deleted", "mapid=7"), ("added-up", "mapid=8")]))


def cluster(story, ap):
    story.chapter("A cluster finds its MAC address through the tunnel")
    since = _do(story, ap, f"HSET {cluster_key('c1')} ddg_ip 10.250.0.2 cluster_state 1 node_num 2 nodelist ...",
                lambda: ap.set_cluster("c1", nodes=_CLUSTER_NODES))
    _told(story, ap, 'cluster updated op=1 name="c1" ddg_ip=10.250.0.2 state=1 mac=02:00:5e:20:00:01 nodes=2', since)


def vlans(story, ap):
    story.chapter("VLANs are announced and withdrawn")
    since = _do(story, ap, f"SET {vlan_key(10)} ''; SET {vlan_key(20, '10.1.2.1')} ''",
                lambda: (ap.set_vlan(10), ap.set_vlan(20, "10.1.2.1")))
    _told(story, ap, "vlan announced op=4 kind=2 id=10 ip=10.1.1.1", since)
    _told(story, ap, "vlan announced op=4 kind=2 id=20 ip=10.1.2.1", since)
    since = _do(story, ap, f"DEL {vlan_key(10)}", lambda: ap.delete_vlan(10))
    _told(story, ap, "vlan withdrawn op=5 kind=2 id=10 ip=10.1.1.1", since)


def overlay(story, ap):
    story.chapter("The overlay is switched on, with its VLAN filter")
    story.step(f"{OVERLAY_FILE} is empty so far", lambda: ap.wait_overlay_file(""))
    _do(story, ap, f"SET {OVERLAY_KEY} (the byte 1)", lambda: ap.set_overlay(1))
    _in_overlay_file(story, ap, '\t local serial "LAB000001";')
    _do(story, ap, f"SET {REDISTRIBUTED_KEY} {{10:20}}", lambda: ap.set_redistributed(10, 20))
    _in_overlay_file(story, ap, "\treturn (ifvlan ~ [10,20]);")


def application_restarts(story, ap):
    story.chapter("The routing application dies and comes back")
    ap.application.kill()
    since = _do(story, ap, f"while it is away: HSET {tunnel_key('t2')} ...", lambda: ap.set_tunnel("t2", mapid=9))
    story.step("vyrwrap says that the record was lost", lambda: ap.log.wait("Failed sending tunnel t2"))
    ap.application.start()
    ap.application.follow_all()
    for text in ('tunnel added-up op=9 kind=1 name="t1"', 'tunnel added op=1 kind=1 name="t2"',
                 "datagram 696 bytes, 2 records", "vlan announced op=4 kind=2 id=20 ip=10.1.2.1",
                 'cluster updated op=1 name="c1"'):
        _told(story, ap, text, since)


def _in_overlay_file(story, ap, line):
    story.step(f"{OVERLAY_FILE} holds: {line.strip()}", lambda: wait_for(
        lambda: line in ap.overlay_file().splitlines(), lambda: f"it holds {ap.overlay_file()!r}"))


def _require_words(ap, since, wanted):
    received = [(line.split(" ")[1], line.split(" ")[8]) for line in ap.application.records(since)]
    assert received == wanted, f"they are {received!r}"


CHAPTERS = [application_starts, tunnel, cluster, vlans, overlay, application_restarts]
