"""The link to the routing application: an end that is absent, slow, killed or talks nonsense."""

import itertools
import random
import struct

import pytest
from link_records import Told, replayed, tunnel, vlan

from application import Stranger
from application_keys import vlan_key
from lab import QUEUE_LENGTH, is_running

NOBODY = "rc: -1 errno: 2 (No such file or directory)"
REFUSED = "rc: -1 errno: 111 (Connection refused)"
FULL = "rc: -1 errno: 11 (Resource temporarily unavailable)"


def test_an_absent_application_costs_only_what_it_misses(link):
    link.application.quit()
    link.set_tunnel("t1")
    link.log.wait(NOBODY)
    link.log.wait("<VYRWRAP>:vyrwrap_send_tunnel_msg_to_vyr: Failed sending tunnel t1 (opcode:1,ts:0) to Vyr (ret:-1)")
    link.application.start()
    told = Told(link)
    assert told.replay("tunnels") == [tunnel(1, "t1")]
    link.delete_tunnel("t1")
    assert told() == [tunnel(2, "t1")]


def test_a_killed_application_gets_everything_when_it_is_back(link):
    link.application.kill()
    for n in range(1, 6):
        link.set_tunnel(f"t{n}", mapid=n)
        link.set_vlan(n)
    link.log.wait(REFUSED)
    link.log.wait("Failed sending tunnel t5")
    link.application.start()
    told = Told(link)
    assert told.replay("tunnels") == replayed(*[tunnel(1, f"t{n}", mapid=n) for n in range(1, 6)])
    assert told.replay("vlans") == [vlan(4, n) for n in range(1, 6)]


def test_an_application_that_starts_again_and_again(link):
    link.set_tunnel("t1")
    for _ in range(10):
        link.application.restart()
        assert Told(link).replay("tunnels") == [tunnel(1, "t1")]


def test_a_full_queue_loses_what_is_beyond_it_and_nothing_later(access_point):
    count = QUEUE_LENGTH + 88
    with access_point.redis.pipeline() as keys:
        for n in range(1, count + 1):
            keys.set(vlan_key(n), "")
        keys.execute()
    access_point.set_tunnel("t1")
    application = access_point.application
    application.start()
    application.stop_reading()
    application.replay("vlans")
    application.replay("tunnels")
    application.settle()
    assert access_point.log.find("vyrwrap_send_all_tunnels_to_vyr: Failed to send tunnel message to VYR-APP (ret:-1)")
    lost_vlans = sum(FULL in line for line in access_point.log.lines()) - 1
    assert lost_vlans > 0

    told = Told(access_point)
    application.read_again()
    wanted = [vlan(4, n) for n in sorted(range(1, count + 1), key=vlan_key)][:count - lost_vlans]
    application.wait(wanted[-1])
    assert told() == wanted
    assert told.replay("tunnels") == [tunnel(1, "t1")]
    access_point.delete_vlan(1)
    assert told() == [vlan(5, 1)]


@pytest.mark.parametrize("kind", ["any bytes", "a known family", "a known request"])
def test_datagrams_of_every_length_are_survived(link, told, kind):
    source = random.Random(1)
    families = itertools.cycle([(1, 2), (1, 5), (2, 1), (2, 7), (9, 3), (9, 5)])
    link.set_tunnel("t1")
    told()
    daemon = link.daemon.pid
    with Stranger() as stranger:
        for length in range(2001):
            datagram = source.randbytes(length)
            if kind == "a known family":
                datagram = datagram[:4] + struct.pack("=I", source.choice([1, 2, 9])) + datagram[8:]
            elif kind == "a known request":
                datagram = datagram[:4] + struct.pack("=II", *next(families)) + datagram[12:]
            stranger.send(datagram[:length])
    link.application.settle()
    assert is_running(daemon) and link.daemon.running
    assert link.log.find("vyrwrap_process_vyrapp_message: Unexpected msgType(0)")
    assert told.replay("tunnels") == [tunnel(1, "t1")]


@pytest.mark.parametrize("datagram, message", [
    (b"", "vyrwrap_process_vyrapp_message: Unexpected msgType(0)"),
    (struct.pack("=4xI", 3), "vyrwrap_process_vyrapp_message: Unexpected msgType(3)"),
    (struct.pack("=4xI", 2), "vyrwrap_process_vyrapp_msg_ike: Unexpected msgType(2), ike_Msg.msgType:(0)"),
    (struct.pack("=4xIII", 2, 1, 7), "vyrwrap_process_vyrapp_msg_ike: Unsupported opcode (7)"),
    (struct.pack("=4xIII", 1, 5, 77), "vyrwrap_process_vyrapp_msg_im: Unsupported opcode (77)"),
    (struct.pack("=4xII", 9, 5), "vyrwrap_process_vyrapp_msg_cluster: Unsupported opcode (5)"),
])
def test_an_unknown_request_is_said(link, told, datagram, message):
    mark = link.log.mark()
    link.application.send(datagram)
    link.log.wait(f"3 416 399816 <VYRWRAP>:{message}", mark)
    assert told() == []


def test_a_request_may_be_short_or_long(link, told):
    link.set_tunnel("t1")
    assert told() == [tunnel(1, "t1")]
    for rest in (b"", b"\xff" * 900, b"\xff" * 3000):
        link.application.send(struct.pack("=4xIII", 2, 1, 6) + rest)
        link.application.settle()
        assert told() == [tunnel(1, "t1")]


def test_a_stale_socket_does_not_hinder_a_start(link):
    link.daemon.kill()
    link.start_daemon()
    link.wait_ready()
    link.application.follow_all()
    link.set_tunnel("t1")
    assert Told(link).replay("tunnels") == [tunnel(1, "t1")]
