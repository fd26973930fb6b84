"""Route-limit events: from the routing daemon's event socket to a subscriber of the DAL."""

import os
import random
import time
from pathlib import Path

import pytest
from stand_in import EventPeer

from lab import LIMIT_CHANNEL
from messages import ROUTE_LIMIT, decode_limit_event, encode, limit_report
from network import add_foreign_routes
from process import descriptors, processor_seconds

NAME_FILE = Path("/tmp/name")

# The values 1, 4000 and 4096, without and with a device name.
NAMELESS = bytes.fromhex("740001 0a00 2a08080110a01f188020 00")
NAMED = bytes.fromhex("740001 0a09 1a0741502d3742310a 2a08080110a01f188020 00")


@pytest.fixture(name="ap")
def fixture_ap(without_vyr):
    return without_vyr


@pytest.fixture(name="heard")
def fixture_heard(ap):
    return ap.subscribe(LIMIT_CHANNEL)


@pytest.fixture(name="peer")
def fixture_peer(ap):
    peer = EventPeer()
    yield peer
    peer.close()


def deliver(ap, peer, data):
    """Sends, and waits until the daemon has taken all of it in one read: the socket has no frames."""
    mark = ap.log.mark()
    peer.send(data)
    ap.log.wait(f"<VYRWRAP> : buffer RECIEVED from VYR of length = {len(data)}", mark)


def test_an_event_is_published_byte_for_byte(ap, heard, peer):
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMELESS
    ap.log.wait("Publish event (116) /event/ap/route_limit success")


def test_the_device_name_comes_with_its_line_feed_and_stays(heard, peer):
    NAME_FILE.write_text("AP-7B1\nnot this\n")
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMED
    NAME_FILE.unlink()
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMED
    NAME_FILE.write_text("AP-8")
    peer.report(1, 4000, 4096)
    assert decode_limit_event(heard.wait()).device_name == "AP-8"
    NAME_FILE.write_text("")
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMELESS


def test_a_long_device_name_is_cut(heard, peer):
    NAME_FILE.write_text("n" * 5000)
    peer.report(1, 2, 3)
    assert decode_limit_event(heard.wait()).device_name == "n" * 128


@pytest.mark.parametrize("put", [lambda: os.mkfifo(NAME_FILE), NAME_FILE.mkdir,
                                 lambda: NAME_FILE.symlink_to("/etc/passwd")], ids=["pipe", "directory", "symlink"])
def test_a_name_that_is_no_file_is_no_name(heard, peer, put):
    put()
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMELESS


@pytest.mark.parametrize("values", [(0, 0, 0), (0xFFFFFFFF,) * 3, (1, 127, 128)])
def test_any_values_are_passed_on(heard, peer, values):
    peer.report(*values)
    assert decode_limit_event(heard.wait())[3:] == values


def test_reports_in_one_send_become_one_event(ap, heard, peer):
    """The socket has no frames: who sends several reports has to wait in between. Together they are one message, of
    which the last values count."""
    deliver(ap, peer, limit_report(1, 600, 512) + limit_report(1, 700, 512))
    assert decode_limit_event(heard.wait())[3:] == (1, 700, 512)
    assert heard.all_until_now() == []


@pytest.mark.parametrize("data", [encode({1: ROUTE_LIMIT}), encode({1: 72, 4: encode({1: 1})}), encode({1: 3, 2: 2}),
                                  encode({4: encode({1: 1, 2: 2, 3: 3})}), encode({99: b"unknown"})],
                         ids=["no-limit", "72", "answer", "no-type", "unknown"])
def test_other_messages_are_dropped_silently(ap, heard, peer, data):
    mark = ap.log.mark()
    deliver(ap, peer, data)
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMELESS
    assert not [line for line in ap.log.lines(mark) if line.startswith("3 ")]


def test_bytes_that_are_no_message_are_refused(ap, heard, peer):
    noise = random.Random(82)
    for _ in range(100):
        data = b"\xff" + noise.randbytes(noise.randrange(1, 2000))
        mark = ap.log.mark()
        deliver(ap, peer, data)
        ap.log.wait("<VYRWRAP>: Error in unpacking protobuf response", mark)
    whole = limit_report(1, 4000, 4096)
    for end in range(1, len(whole)):
        deliver(ap, peer, whole[:end])
    peer.send(noise.randbytes(1 << 20))
    peer.close()
    ap.log.wait("<VYRWRAP>: vyr event socket is closed")
    EventPeer().report(1, 4000, 4096)
    assert heard.wait() == NAMELESS
    assert heard.all_until_now() == []


def test_a_peer_may_close_and_return_a_hundred_times(ap, heard):
    before = None
    for n in range(101):
        mark = ap.log.mark()
        peer = EventPeer()
        peer.report(1, n, 512)
        assert decode_limit_event(heard.wait()).route_count == n
        peer.close()
        ap.log.wait("<VYRWRAP>: vyr event socket is closed", mark)
        before = before or descriptors(ap.daemon.pid)
    assert descriptors(ap.daemon.pid) == before


def test_a_second_peer_waits_without_costing_processor_time(ap, heard, peer):
    peer.report(1, 1, 512)
    assert decode_limit_event(heard.wait()).route_count == 1
    second = EventPeer()
    second.report(1, 2, 512)
    before = processor_seconds(ap.daemon.pid)
    began = time.process_time()
    while time.process_time() - began < 0.5:  # what a daemon that spins would use as well
        pass
    assert processor_seconds(ap.daemon.pid) - before < 0.1
    peer.report(1, 3, 512)
    assert decode_limit_event(heard.wait()).route_count == 3
    assert heard.all_until_now() == []
    peer.close()
    assert decode_limit_event(heard.wait()).route_count == 2
    second.close()


def test_a_peer_that_sends_nothing_holds_up_nobody(ap, peer):
    ap.set_route("10.7.0.0/16", "192.168.10.2", 5)
    ap.wait_static_file("route 10.7.0.0/16", seconds=5)


def test_events_while_the_dal_is_away_are_lost_and_later_ones_are_not(ap, peer):
    ap.stop_redis()
    ap.log.wait("<DAL>: lost the server")
    for n in range(20):
        mark = ap.log.mark()
        peer.report(1, n, 512)
        ap.log.wait("Publish event (116) /event/ap/route_limit failed", mark)
    mark = ap.log.mark()
    ap.start_redis()
    heard = ap.subscribe(LIMIT_CHANNEL)
    ap.log.wait("answers again", mark, seconds=25)
    peer.report(1, 4000, 4096)
    assert heard.wait() == NAMELESS
    assert heard.all_until_now() == []


def test_more_routes_than_the_limit_reach_a_subscriber(access_point):
    """Every part is real: the kernel's routes, BIRD that learns them, vyr that counts."""
    NAME_FILE.write_text("AP-1\n")
    heard = access_point.subscribe(LIMIT_CHANNEL)
    add_foreign_routes(600)
    access_point.run_timer_at_once()
    event = decode_limit_event(heard.wait(20))
    assert event[:4] == (116, 1, "AP-1\n", 1)
    assert 512 < event.route_count <= 610 and event.max_routes == 512
    access_point.log.wait("<VYRWRAP>: Received Route Limit Event from VYR: 1 Route Count: "
                          f"{event.route_count} Max Route Limit: 512. Sending Route Limit event.")
