"""The front's two sockets: what BIRD holds is exported, and too many routes are reported."""

import os
import socket
from pathlib import Path

import pytest

from lab import is_running, wait_for
from messages import ROUTE_LIMIT, SUCCESS, DataSocket, decode, request
from network import add_foreign_routes
from vyr_files import route, write_static

EVENT_SOCKET = "/tmp/bird_event_exp.ctl"


@pytest.fixture(name="vyr")
def fixture_vyr(lab, start):
    vyr = start()
    lab.wait_route("10.1.0.0/16", ["192.168.10.2"], 5)
    return vyr


def exported(code):
    client = DataSocket()
    client.send(request(code))
    answer = client.answer()
    client.close()
    return answer


def test_exports_the_routes_that_bird_holds(lab, vyr):
    answer = exported(3)
    assert (answer[1], answer[2]) == (3, SUCCESS)
    assert b"10.1.0.0/16          unicast" in answer[3]
    assert b"\tvia 192.168.10.2 on br0\n" in answer[3]


@pytest.mark.parametrize("code, text", [(23, b"Kernel.metric: 5"), (27, b"10.1.0.0/16"), (29, b"static1"), (25, b"br0")])
def test_exports_what_each_code_asks_for(vyr, code, text):
    answer = exported(code)
    assert answer[2] == SUCCESS
    assert text in answer[3]


@pytest.mark.parametrize("code", [44, 0, 7])
def test_refuses_what_bird_cannot_give(vyr, code):
    answer = exported(code)
    assert answer[2] != SUCCESS
    assert 3 not in answer


def test_answers_one_client_again_and_again(vyr):
    client = DataSocket()
    for _ in range(50):
        client.send(request(3))
        assert client.answer()[2] == SUCCESS
    client.send(b"\xff" * 100)
    assert client.answer()[2] != SUCCESS
    client.send(request(3))
    assert client.answer()[2] == SUCCESS
    client.close()


def test_a_client_that_does_not_read_holds_up_nobody(lab, vyr):
    write_static(*[route(f"10.{n // 256}.{n % 256}.0/24", "192.168.10.2") for n in range(272)])
    os.kill(vyr.pid, 1)
    wait_for(lambda: len(lab.routes()) == 272, "272 routes in the kernel")
    lazy = [DataSocket() for _ in range(5)]
    for client in lazy:
        client.send(request(23))
    assert exported(3)[2] == SUCCESS
    for client in lazy:
        client.close()
    assert exported(3)[2] == SUCCESS
    assert is_running(vyr.pid)


@pytest.fixture(name="events")
def fixture_events(lab):
    """The daemon's end of the event socket."""
    Path(EVENT_SOCKET).unlink(missing_ok=True)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(EVENT_SOCKET)
    listener.listen(10)
    listener.settimeout(10)
    yield listener
    listener.close()


def test_reports_more_routes_than_the_limit_once(events, lab, vyr):
    add_foreign_routes(600)
    connection, _ = events.accept()
    connection.settimeout(10)
    message = decode(connection.recv(1 << 20))
    assert message[1] == ROUTE_LIMIT
    limit = decode(message[4])
    assert limit[1] == 1 and limit[3] == 512
    assert 512 < limit[2] <= 610
    connection.settimeout(2.5)
    with pytest.raises(TimeoutError):
        connection.recv(1)
    assert is_running(vyr.pid)


def test_reports_nothing_at_the_limit(events, lab, vyr):
    held = int(lab.vyrc("show", "route", "count").split("routes for ")[1].split()[0])
    add_foreign_routes(512 - held)
    wait_for(lambda: "for 512 networks in table master4" in lab.vyrc("show", "route", "count"), "512 routes in BIRD", 20)
    events.settimeout(2.5)
    with pytest.raises(TimeoutError):
        events.accept()
