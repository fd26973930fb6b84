"""Clusters in every state: from a hash in the DAL to records at the routing application."""

import pytest
from link_records import NO_MAC, cluster, removed_cluster, tunnel

from application_keys import cluster_fields, cluster_key, ipv4_node, ipv6_node, tunnel_fields

MAC = tunnel_fields("")["dst_mac"]
PEER = tunnel_fields("")["peer_tunnel_ip"]
TWO_NODES = [ipv4_node("192.168.1.2", flags=5, reserved=0xffff), ipv6_node("2001:db8::7", flags=0x80000001)]
TWO_TEXTS = ["192.168.1.2/family:2/flags:0x5", "2001:db8::7/family:10/flags:0x80000001"]
ONE = [ipv4_node("192.168.1.2")]
ONE_TEXT = ["192.168.1.2/family:2/flags:0x0"]


@pytest.fixture(name="peer")
def fixture_peer(link, told):
    """A tunnel through which clusters are reached."""
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]


@pytest.mark.usefixtures("peer")
class TestThroughATunnel:
    def test_an_active_cluster_has_the_tunnels_mac(self, link, told):
        link.set_cluster("c1", nodes=TWO_NODES)
        assert told() == [cluster("c1", MAC, nodes=TWO_TEXTS)]
        assert told.replay("clusters") == [cluster("c1", MAC, nodes=TWO_TEXTS)]

    def test_an_inactive_one_is_deleted_with_its_nodes_and_not_replayed(self, link, told):
        link.set_cluster("c1", state=0, nodes=TWO_NODES)
        assert told() == [cluster("c1", NO_MAC, state=0, nodes=TWO_TEXTS)]
        assert told.replay("clusters") == []

    @pytest.mark.parametrize("count", [1, 12])
    def test_as_many_nodes_as_there_may_be(self, link, told, count):
        link.set_cluster("c1", nodes=[ipv4_node(f"10.0.0.{n}", n) for n in range(count)])
        texts = [f"10.0.0.{n}/family:2/flags:0x{n:x}" for n in range(count)]
        assert told() == [cluster("c1", MAC, nodes=texts)]
        assert told.replay("clusters") == [cluster("c1", MAC, nodes=texts)]

    def test_it_comes_and_goes(self, link, told):
        for change, wanted in [
                (lambda: link.set_cluster("c1", state=0, nodes=ONE), cluster("c1", NO_MAC, state=0, nodes=ONE_TEXT)),
                (lambda: link.redis.hset(cluster_key("c1"), "cluster_state", 200),
                 cluster("c1", MAC, state=200, nodes=ONE_TEXT)),
                (lambda: link.set_cluster("c1", nodes=TWO_NODES), cluster("c1", MAC, nodes=TWO_TEXTS)),
                (lambda: link.redis.hdel(cluster_key("c1"), "ddg_ip"), removed_cluster("c1")),
                (lambda: link.redis.hset(cluster_key("c1"), "ddg_ip", PEER), cluster("c1", MAC, nodes=TWO_TEXTS)),
                (lambda: link.delete_cluster("c1"), removed_cluster("c1"))]:
            change()
            assert told() == [wanted]

    @pytest.mark.parametrize("changes, problem", [
        ({"node_num": "0"}, "2 fields have problem: node_num,nodelist,"),
        ({"node_num": "13"}, "2 fields have problem: node_num,nodelist,"),
        ({"node_num": "many"}, "2 fields have problem: node_num,nodelist,"),
        ({"node_num": "2"}, "ERROR: nodelist len (24) mismatch (node-size:24,count:2)"),
        ({"nodelist": ONE[0] * 12 + b"x"}, "mismatch (node-size:24,count:1)"),
        ({"nodelist": ""}, "dal_hget failed(cluster-key:/op/clusters/c1, field:3/nodelist)"),
        ({"ddg_ip": ""}, "1 fields have problem: ddg_ip,"),
        ({"cluster_state": ""}, "1 fields have problem: cluster_state,"),
    ])
    def test_what_cannot_be_read_is_left_out(self, link, told, changes, problem):
        link.redis.hset(cluster_key("c1"), mapping={**cluster_fields(nodes=ONE), **changes})
        assert told() == []
        assert link.log.find(problem)
        link.set_cluster("c2", nodes=ONE)
        assert told() == [cluster("c2", MAC, nodes=ONE_TEXT)]
        mark = link.log.mark()
        assert told.replay("clusters") == [cluster("c2", MAC, nodes=ONE_TEXT)]
        assert link.log.find(problem, mark)

    @pytest.mark.parametrize("name, sent", [("c" * 32, "c" * 32), ("50%% %s%n", "50% %s%n")])
    def test_names_at_their_limits(self, link, told, name, sent):
        link.set_cluster(name, nodes=ONE)
        assert told() == [cluster(sent, MAC, nodes=ONE_TEXT)]
        assert told.replay("clusters") == [cluster(name, MAC, nodes=ONE_TEXT)]

    @pytest.mark.parametrize("name", ["", "c" * 33, "c" * 4000], ids=["empty", "33", "4000"])
    def test_a_name_of_a_wrong_length_is_refused(self, link, told, name):
        link.set_cluster(name, nodes=ONE)
        link.set_cluster("z", nodes=ONE)
        assert told() == [cluster("z", MAC, nodes=ONE_TEXT)]
        assert link.log.find("has wrong len(") or len(name) > 900  # the text is cut
        assert told.replay("clusters")[-1] == cluster("z", MAC, nodes=ONE_TEXT)

    def test_300_clusters_are_replayed_one_by_one(self, link, told):
        with link.redis.pipeline() as keys:
            for n in range(300):
                keys.hset(cluster_key(f"c{n:03}"), mapping=cluster_fields(state=n % 4, nodes=ONE))
            keys.execute()
        assert len(told()) == 300
        assert told.replay("clusters") == [cluster(f"c{n:03}", MAC, state=n % 4, nodes=ONE_TEXT)
                                           for n in range(300) if n % 4]


def test_without_a_matching_tunnel_nothing_is_sent(link, told):
    link.set_tunnel("t1", peer_tunnel_ip="10.250.0.3")
    link.set_cluster("c1", nodes=ONE)
    assert told() == [tunnel(1, "t1", peer_tunnel_ip="10.250.0.3")]
    assert link.log.find("vyrwrap_cluster_info_subs_callback: Error in preparing cluster message to VYR-APP")
    assert link.log.find(f"Unable to find cluster with ddg IP {PEER}")
    assert told.replay("clusters") == []
    link.set_tunnel("t2", mapid=8)
    assert told() == [tunnel(1, "t2", mapid=8)]
    assert told.replay("clusters") == [cluster("c1", MAC, nodes=ONE_TEXT)]


def test_an_unknown_ddg_ip_is_ignored_but_looked_up_in_a_replay(link, told):
    link.set_cluster("c1", ddg_ip="0.0.0.0", nodes=ONE)
    assert told() == []
    assert told.replay("clusters") == []
    link.set_tunnel("t0", peer_tunnel_ip="0.0.0.0")
    assert told() == [tunnel(1, "t0", peer_tunnel_ip="0.0.0.0")]
    assert told.replay("clusters") == [cluster("c1", MAC, ddg_ip="0.0.0.0", nodes=ONE_TEXT)]


def test_the_first_of_two_tunnels_gives_the_mac(link, told):
    link.set_tunnel("t2", dst_mac="02:00:5e:20:00:02", mapid=8)
    link.set_tunnel("t1")
    told()
    link.set_cluster("c1", nodes=ONE)
    assert told() == [cluster("c1", "02:00:5e:20:00:02", nodes=ONE_TEXT)]
    link.delete_tunnel("t2")
    told()
    assert told.replay("clusters") == [cluster("c1", MAC, nodes=ONE_TEXT)]


def test_a_key_without_a_hash_is_refused(link, told):
    link.redis.set(cluster_key("c1"), "no hash")
    assert told() == []
    assert link.log.find("vyrwrap_cluster_info_subs_callback: Error in getting cluster name from keyspace notification")
    assert told.replay("clusters") == []
