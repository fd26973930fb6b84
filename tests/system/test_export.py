"""The route table export: asked for on a DAL channel, left in a file."""

import os
import random
import stat
import struct
from pathlib import Path

import pytest
import stand_in

from lab import EXPORT_FILE, RELOAD_SECONDS, AccessPoint, child_of, wait_for
from messages import SUCCESS, decode, encode, frame, request
from process import descriptors

REQUEST_CODES = [3, 23, 27, 29, 25, 44]
OLD = b"as it was"
MOST_BODY = 1048575 - 4


def body(data=b"10.1.0.0/16 unicast\n", result=SUCCESS):
    return encode({1: 3, 2: result, 3: data})


@pytest.fixture(name="ap")
def fixture_ap(without_vyr):
    return without_vyr


@pytest.fixture(name="server")
def fixture_server(ap):
    server = stand_in.DataServer()
    yield server
    server.close()


def export(ap, server, data, kind=0):
    """One whole export that is answered with success."""
    mark = ap.log.mark()
    ap.ask_export(kind)
    seen = server.request()
    server.answer(frame(data))
    ap.log.wait(f"MRT data exported to {EXPORT_FILE} len {len(data)}", mark)
    return seen


def goes_on(ap, server):
    export(ap, server, body(b"goes on"))
    assert EXPORT_FILE.read_bytes() == body(b"goes on")


@pytest.mark.parametrize("kind", range(6))
def test_each_type_sends_its_request_and_leaves_the_answer(ap, server, kind):
    data = body(b"type %d" % kind)
    assert export(ap, server, data, kind) == request(REQUEST_CODES[kind])
    assert EXPORT_FILE.read_bytes() == data
    found = EXPORT_FILE.lstat()
    assert stat.S_ISREG(found.st_mode) and stat.S_IMODE(found.st_mode) == 0o600
    assert (found.st_uid, found.st_gid) == (os.geteuid(), os.getegid())


@pytest.mark.parametrize("kind", [6, 1 << 31, 0xFFFFFFFF, 0x03000000])
def test_an_unknown_type_sends_nothing(ap, server, kind):
    ap.ask_export(kind)
    assert export(ap, server, body(), 2) == request(27)
    ap.log.wait(f"Event Type {struct.unpack('=i', struct.pack('=I', kind))[0]}")


@pytest.mark.parametrize("data, code", [(b"", 3), (b"\5", 3), (b"\5\0", 3), (b"\5\0\0", 3), (b"\5\0\0\0", 44),
                                        (b"\5\0\0\0\1", 44), (b"\1\0\0\0" + bytes(100000), 23)],
                         ids=["none", "1", "2", "3", "4", "5", "many"])
def test_the_first_four_bytes_are_the_type(ap, server, data, code):
    assert export(ap, server, body(), data) == request(code)


@pytest.mark.parametrize("length", [0, 1, 4096, 65536, MOST_BODY])
def test_the_file_holds_exactly_the_body(ap, server, length):
    EXPORT_FILE.write_bytes(os.urandom(2 * MOST_BODY))
    data = body(bytes(n % 251 for n in range(max(length - 16, 0))))
    data += encode({15: b""}) * ((length - len(data)) // 2)
    export(ap, server, data)
    assert EXPORT_FILE.read_bytes() == data
    assert length - len(data) < 2


FAILURES = [
    (frame(body(result=1)), "<VYRWRAP>: Error proto resp msg not success 1"),
    (frame(encode({1: 3})), "<VYRWRAP>: Error proto resp msg not success 0"),
    (frame(b"\xff" * 300), "<VYRWRAP>: Error proto unpack for MRT data"),
    (frame(body())[:-1], "<VYRWRAP>: Connection closed by server while reading"),
    (frame(body())[:4], "<VYRWRAP>: Connection closed by server while reading"),
    (frame(body())[:3], "<VYRWRAP>: Connection closed by server while reading"),
    (b"", "<VYRWRAP>: Connection closed by server while reading"),
    (frame(b""), "<VYRWRAP>: Connection closed by server while reading"),
    (struct.pack("=I", 3), "<VYRWRAP>: Error undersize message from vyr: 3"),
    (struct.pack("=I", 0), "<VYRWRAP>: Error undersize message from vyr: 0"),
    (struct.pack("=I", 1 << 20), "<VYRWRAP>: Error dropping oversize messae from vyr: 1048576"),
    (b"\xff" * 4, "<VYRWRAP>: Error dropping oversize messae from vyr: -1"),
]


@pytest.mark.parametrize("answer, text", FAILURES, ids=[text[-30:] for _, text in FAILURES])
def test_a_failed_answer_leaves_the_file_as_it_was(ap, server, answer, text):
    EXPORT_FILE.write_bytes(OLD)
    ap.ask_export(0)
    server.request()
    server.answer(answer)
    if "closed by server" in text:
        server.hang_up()
    ap.log.wait(text)
    assert EXPORT_FILE.read_bytes() == OLD
    goes_on(ap, server)


def test_an_oversize_answer_leaves_the_connection_open(ap, server):
    ap.ask_export(0)
    server.request()
    server.answer(struct.pack("=I", 1 << 20))
    ap.log.wait("Error dropping oversize messae")
    ap.ask_export(1)
    assert server.request() == request(23)
    server.answer(frame(body()))
    wait_for(lambda: EXPORT_FILE.exists() and EXPORT_FILE.read_bytes() == body(), "the file holds the next answer")
    assert len([line for line in ap.log.lines() if line.endswith(" <VYRWRAP>: vyr server connected")]) == 1


def test_an_answer_that_comes_in_pieces_is_put_together(ap, server):
    data = frame(body(b"in pieces"))
    for cut in (1, 4, 5, len(data) - 1):
        EXPORT_FILE.unlink(missing_ok=True)
        mark = ap.log.mark()
        ap.ask_export(0)
        server.request()
        server.answer(data[:cut])
        ap.log.wait("<VYRWRAP>: Read failed due to Resource temporarily unavailable, will try again", mark)
        assert not EXPORT_FILE.exists()
        server.answer(data[cut:])
        ap.log.wait("MRT data exported", mark)
        assert EXPORT_FILE.read_bytes() == body(b"in pieces")


def test_random_answers_are_refused_one_after_the_other(ap, server):
    noise = random.Random(4)
    before = None
    for _ in range(30):
        mark = ap.log.mark()
        ap.ask_export(0)
        server.request()
        server.answer(frame(b"\xff" + noise.randbytes(noise.randrange(1, 3000))))
        ap.log.wait("Error proto unpack for MRT data", mark)
        before = before or descriptors(ap.daemon.pid)
    assert descriptors(ap.daemon.pid) == before
    assert not EXPORT_FILE.exists()
    goes_on(ap, server)


def test_a_connection_that_is_gone_when_it_is_written_to_stays_stored(ap, server):
    goes_on(ap, server)
    server.hang_up()
    for _ in range(3):
        mark = ap.log.mark()
        ap.ask_export(0)
        ap.log.wait("<VYRWRAP>: Server write error: Broken pipe", mark)
    assert EXPORT_FILE.read_bytes() == body(b"goes on")
    ap.set_route("10.7.0.0/16", "192.168.10.2", 5)
    ap.wait_static_file("route 10.7.0.0/16")


def test_a_peer_that_never_answers_costs_ten_seconds_and_no_more(ap, server):
    EXPORT_FILE.write_bytes(OLD)
    ap.ask_export(0)
    server.request()
    ap.set_route("10.7.0.0/16", "192.168.10.2", 5)
    ap.log.wait("vyrwrap message read error from vyr", seconds=20)
    ap.wait_static_file("route 10.7.0.0/16")
    assert EXPORT_FILE.read_bytes() == OLD
    server.answer(frame(body(b"late")))
    server.hang_up()
    ap.log.wait("Select timeout while waiting to read from vyr")


def test_without_a_routing_daemon_nothing_is_lost(ap):
    def fail():
        mark = ap.log.mark()
        ap.ask_export(0)
        ap.log.wait("<VYRWRAP>: Unable to connect to server control socket (/tmp/bird_data_exp.ctl), error: "
                    "No such file or directory", mark)
        ap.log.wait("Connect to  server failed", mark)

    EXPORT_FILE.write_bytes(OLD)
    fail()
    before = sorted(os.listdir(f"/proc/{ap.daemon.pid}/fd"))
    for _ in range(50):
        fail()
    assert sorted(os.listdir(f"/proc/{ap.daemon.pid}/fd")) == before
    assert EXPORT_FILE.read_bytes() == OLD
    server = stand_in.DataServer()
    goes_on(ap, server)
    server.close()


def put_directory(target):
    EXPORT_FILE.mkdir()


def put_symlink(target):
    EXPORT_FILE.symlink_to(target)


def put_dangling_symlink(target):
    EXPORT_FILE.symlink_to("/tmp/vyr-absent")


def put_hard_link(target):
    EXPORT_FILE.hardlink_to(target)


def put_pipe(target):
    os.mkfifo(EXPORT_FILE)


@pytest.mark.parametrize("put", [put_directory, put_symlink, put_dangling_symlink, put_hard_link, put_pipe])
def test_what_others_put_in_its_place_stays_as_it_is(ap, server, put):
    target = Path("/tmp/vyr-precious")
    target.write_bytes(OLD)
    put(target)
    ap.ask_export(0)
    server.request()
    server.answer(frame(body()))
    ap.log.wait("<VYRWRAP>: Error MRT data file write")
    assert target.read_bytes() == OLD
    assert not Path("/tmp/vyr-absent").exists()
    EXPORT_FILE.rmdir() if EXPORT_FILE.is_dir() and not EXPORT_FILE.is_symlink() else EXPORT_FILE.unlink()
    goes_on(ap, server)


def test_a_file_that_others_could_read_becomes_private(ap, server):
    EXPORT_FILE.write_bytes(OLD * 1000)
    EXPORT_FILE.chmod(0o666)
    goes_on(ap, server)
    assert stat.S_IMODE(EXPORT_FILE.stat().st_mode) == 0o600


DIES_ONCE = f"""#!/usr/bin/python3
import os, socket, struct
path = "{stand_in.DATA_SOCKET}"
first = not os.path.exists("/tmp/vyr-former")
listener = socket.socket(socket.AF_UNIX)
listener.bind(path + ".new")
listener.listen()
os.rename(path + ".new", path)
while True:
    connection, _ = listener.accept()
    connection.recv(1000)
    if first:
        connection.sendall({frame(body())[:-1]!r})
        END
    connection.sendall({frame(body())!r})
"""


@pytest.fixture(name="dying")
def fixture_dying():
    """An access point whose routing daemon dies in the middle of its first answer, in a way of the test's."""
    with AccessPoint(start=False) as ap:
        yield ap


def start_dying(ap, end):
    stand_in.install(DIES_ONCE.replace("END", end))
    ap.start_redis()
    ap.start_daemon()
    ap.wait_ready()
    EXPORT_FILE.write_bytes(OLD)
    ap.run_timer_at_once()
    wait_for(stand_in.DATA_SOCKET.exists, "the routing daemon listens")
    ap.ask_export(0)
    ap.log.wait("<VYRWRAP>: Connection closed by server while reading")
    assert EXPORT_FILE.read_bytes() == OLD


def test_one_that_ends_in_the_middle_of_an_answer_and_may_return_is_asked_again(dying):
    start_dying(dying, "os._exit(100)")
    dying.log.wait("No Vlan IP found in kernel!!")
    stand_in.DATA_SOCKET.rename("/tmp/vyr-former")
    dying.run_timer_at_once()
    wait_for(stand_in.DATA_SOCKET.exists, "the routing daemon listens again")
    dying.ask_export(0)
    wait_for(lambda: EXPORT_FILE.read_bytes() == body(), "the file holds the answer")


def test_one_that_is_killed_in_the_middle_of_an_answer_ends_the_daemon(dying):
    start_dying(dying, "os.kill(os.getpid(), 9)")
    dying.run_timer_at_once()
    assert dying.daemon.wait() == 9
    assert EXPORT_FILE.read_bytes() == OLD


def test_exports_what_bird_holds_while_routes_change(access_point):
    ap = access_point
    ap.ask_export(0)
    ap.log.wait("Connect to  server failed")
    ap.run_timer_at_once()
    ap.bird()
    wait_for(stand_in.DATA_SOCKET.exists, "vyr listens")
    child = child_of(ap.daemon.pid, "vyr")
    assert [os.readlink(f"/proc/{child}/fd/0")] == ["/dev/null"]

    def exported():
        EXPORT_FILE.unlink(missing_ok=True)
        ap.ask_export(0)
        wait_for(lambda: EXPORT_FILE.exists() and EXPORT_FILE.stat().st_size, "the export is there", 20)
        answer = decode(EXPORT_FILE.read_bytes())
        assert (answer[1], answer[2]) == (3, SUCCESS)
        return answer.get(3, b"").decode().splitlines()

    for n in range(60):
        ap.set_route(f"10.50.{n}.0/24", "192.168.10.2", 5)
        if n % 10 == 0:
            ap.reload_at_once()
        prefixes = [line.split()[0] for line in exported() if line[:1].isdigit()]
        assert len(prefixes) == len(set(prefixes))
    ap.wait_static_file("route 10.50.59.0/24")
    ap.reload_at_once()
    wait_for(lambda: sum(line.startswith("10.50.") for line in exported()) == 60, "the export has all routes",
             RELOAD_SECONDS)
    assert ap.daemon.running
