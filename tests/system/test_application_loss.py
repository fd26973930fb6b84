"""The DAL lost and back while tunnels, VLANs, clusters and the overlay are followed."""

import os
import signal

import pytest
from link_records import Told, cluster, removed_cluster, replayed, tunnel, vlan
from overlay_text import overlay_file

from application_keys import OVERLAY_KEY, cluster_fields, cluster_key, ipv4_node, tunnel_fields, tunnel_key, vlan_key
from lab import wait_for

MAC = tunnel_fields("")["dst_mac"]
NODE, NODE_TEXT = ipv4_node("192.168.1.2"), "192.168.1.2/family:2/flags:0x0"

# The client connects again after at most 2 s, and the daemon's timer, of 5 s, subscribes to everything again.
BACK_SECONDS = 20

# Tunnels and clusters follow it, but say so at information level only.
SUBSCRIBED_AGAIN = "vyrwrap_oap_config_dal_init: subscribing to OAP config"


def lose(ap, meanwhile=lambda: None):
    """Redis dies and comes back empty. Returns once the daemon has subscribed to everything again."""
    mark = ap.log.mark()
    ap.redis_server.kill()
    meanwhile()
    ap.start_redis()
    wait_back(ap, mark)


def wait_back(ap, mark):
    ap.log.wait(SUBSCRIBED_AGAIN, mark, BACK_SECONDS)
    wait_for(lambda: ap.redis.pubsub_numpat() >= 9, "everything is subscribed to again")


def test_everything_is_followed_again(link, told):
    link.set_tunnel("t1")
    link.set_vlan(12)
    link.set_cluster("c1", nodes=[NODE])
    link.set_overlay(1)
    link.set_redistributed(10, 20)
    link.wait_overlay_file(overlay_file([10, 20]))
    assert len(told()) == 3
    lose(link)
    # What was told stands; the list of redistributed VLANs is read again, the enable key is not.
    assert told() == []
    link.wait_overlay_file(overlay_file())

    link.set_cluster("c1", nodes=[NODE])
    link.set_tunnel("t1", tunnel_status=1)
    link.set_vlan(13)
    assert told() == [cluster("c1", MAC, nodes=[NODE_TEXT]), tunnel(4, "t1", tunnel_status=1), vlan(4, 13)]
    link.set_redistributed(30)
    link.wait_overlay_file(overlay_file([30]))
    link.set_overlay(0)
    link.wait_overlay_file("")
    assert told.replay("tunnels") == [tunnel(9, "t1", tunnel_status=1)]
    link.delete_cluster("c1")
    link.delete_tunnel("t1")
    link.delete_vlan(13)
    assert told() == [removed_cluster("c1"), tunnel(2, "t1", tunnel_status=1), vlan(5, 13)]


def test_without_the_dal_a_replay_sends_what_is_known(link, told):
    for n in (1, 2):
        link.set_tunnel(f"t{n}", mapid=n)
    link.set_vlan(12)
    link.set_cluster("c1", nodes=[NODE])
    assert len(told()) == 4

    def ask():
        since = link.application.mark()
        for what in ("tunnels", "vlans", "clusters"):
            link.application.replay(what)
        link.application.settle()
        link.application.wait_records(replayed(*[tunnel(1, f"t{n}", mapid=n) for n in (1, 2)]), since)
        for function in ("vyrwrap_read_all_tunnels_from_dal", "vyrwrap_read_all_send_clusters_from_dal_to_vyr"):
            assert link.log.find(f"<VYRWRAP>:{function}: dal_sync_ctx_chk() returned error(")
        assert link.log.find("<VYRWRAP>:vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal: dal_scan() returned error(")

    lose(link, meanwhile=ask)
    link.set_vlan(13)
    assert vlan(4, 13) in told()
    assert told.replay("vlans") == [vlan(4, 13)]


def test_tunnels_and_clusters_are_followed_after_a_loss_without_any_request(access_point):
    """VLANs are not."""
    access_point.application.start()
    access_point.application.settle()
    mark = access_point.log.mark()
    patterns = wait_for(lambda: access_point.redis.pubsub_numpat() == 6 and 6, "the daemon has subscribed")
    access_point.redis_server.kill()
    access_point.start_redis()
    access_point.log.wait(SUBSCRIBED_AGAIN, mark, BACK_SECONDS)
    wait_for(lambda: access_point.redis.pubsub_numpat() == patterns + 2, "tunnels and clusters as well")
    access_point.set_vlan(12)
    access_point.set_tunnel("t1")
    access_point.application.wait_records([tunnel(1, "t1")])
    access_point.set_cluster("c1", nodes=[NODE])
    access_point.application.wait_records([tunnel(1, "t1"), cluster("c1", MAC, nodes=[NODE_TEXT])])


@pytest.mark.parametrize("what", ["tunnels", "clusters"])
def test_lost_in_the_middle_of_a_replay(link, what):
    """What was read before stands; what could not be read is said."""
    count = 3000
    with link.redis.pipeline() as keys:
        keys.config_set("notify-keyspace-events", "")
        keys.hset(tunnel_key("t1"), mapping=tunnel_fields("t1"))
        for n in range(count):
            if what == "tunnels":
                keys.hset(tunnel_key(f"x{n:04}"), mapping={"tunnel_name": "incomplete"})
            else:
                keys.hset(cluster_key(f"c{n:04}"), mapping=cluster_fields(state=1, nodes=[NODE]))
        keys.config_set("notify-keyspace-events", "AKE")
        keys.execute()
    since = link.application.mark()
    if what == "clusters":
        link.application.replay("tunnels")
        link.application.wait(tunnel(1, "t1"), since)
    mark = link.log.mark()
    link.application.process.write(f"replay {what}")
    if what == "tunnels":
        link.log.wait("Error reading tunnel(x0010) info from DAL", mark)
    else:
        link.application.wait('name="c0010"', since)
    link.redis_server.kill()
    link.application.settle()
    assert link.log.find(f"({'x' if what == 'tunnels' else 'c'}{count - 1}) info from DAL", mark)
    assert link.application.records(since)[-1].startswith("tunnel added" if what == "tunnels" else "cluster updated")
    assert len(link.application.records(since)) < count
    link.start_redis()
    wait_back(link, mark)
    told = Told(link)
    assert told.replay("clusters") == []
    assert told.replay("tunnels") == [tunnel(1, "t1")]


def test_connections_cut_while_keys_change(link, told):
    """The keys stay: what changed meanwhile is not told, but replayed."""
    link.set_tunnel("t1")
    link.set_overlay(1)
    link.wait_overlay_file(overlay_file())
    assert told() == [tunnel(1, "t1")]
    mark = link.log.mark()
    for kind in ("pubsub", "normal"):
        link.redis.execute_command("CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
    link.change_tunnel("t1", tunnel_status=1)
    link.set_vlan(12)
    link.set_redistributed(40)
    wait_back(link, mark)
    link.wait_overlay_file(overlay_file([40]))
    told()
    assert told.replay("tunnels") == [tunnel(9, "t1", tunnel_status=1)]
    assert told.replay("vlans") == [vlan(4, 12)]
    link.redis.delete(OVERLAY_KEY)
    link.wait_overlay_file("")


def test_a_server_that_hangs_is_a_lost_one(link, told):
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]
    mark, since = link.log.mark(), link.application.mark()
    os.kill(link.redis_server.pid, signal.SIGSTOP)
    try:
        link.application.replay("tunnels")
        link.application.settle()
        link.application.wait_records([tunnel(1, "t1")], since)
    finally:
        os.kill(link.redis_server.pid, signal.SIGCONT)
    wait_back(link, mark)
    link.set_vlan(12)
    link.application.wait(vlan(4, 12))
    link.redis.delete(vlan_key(12))
    link.application.wait(vlan(5, 12))
