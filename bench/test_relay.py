"""The relay, on which the figures of the benchmark depend."""
import contextlib
import random
import socket
import struct
import threading
import time

import pytest

from bench import round_trips
from contestants import HOST, Link

MIB = 1 << 20
DEADLINE = 60


@contextlib.contextmanager
def connection(**link):
    """(near end, far end, seconds until the far end accepted) of a connection through the relay."""
    with socket.create_server((HOST, 0)) as listener, Link(target=listener.getsockname()[1], relayed=True, **link) as way:
        start = time.monotonic()
        with socket.create_connection((HOST, way.port), DEADLINE) as near, listener.accept()[0] as far:
            far.settimeout(DEADLINE)
            yield near, far, time.monotonic() - start


def send_all(end, data):
    """Sends the data and then closes the direction, in a thread of its own."""
    def send():
        end.sendall(data)
        end.shutdown(socket.SHUT_WR)
    thread = threading.Thread(target=send)
    thread.start()
    return thread


def receive_all(end):
    return b"".join(iter(lambda: end.recv(MIB), b""))


def both_ways(near, far):
    return [(near, far), (far, near)]


def test_delays_the_bytes_of_each_direction():
    with connection(rtt_ms=40) as (near, far, _):
        for sender, receiver in both_ways(near, far):
            seconds = []
            for _ in range(10):
                start = time.monotonic()
                sender.sendall(b"!")
                receiver.recv(1)
                seconds.append(time.monotonic() - start)
            assert min(seconds) >= 0.020
            assert min(seconds) < 0.025


def test_takes_the_whole_round_trip():
    with socket.create_server((HOST, 0)) as echo, Link(rtt_ms=40, target=echo.getsockname()[1]) as link:
        trips = round_trips(echo, link.port, 10)
    assert min(trips) >= 0.040
    assert min(trips) < 0.045


def test_opens_a_connection_after_a_round_trip_and_a_half():
    with connection(rtt_ms=40) as (_, _, seconds):
        assert seconds >= 0.060


@pytest.mark.parametrize("rtt_ms", [0, 40])
def test_limits_the_bandwidth_of_each_direction(rtt_ms):
    data = bytes(4 * MIB)
    expected = len(data) * 8 / 80e6 + rtt_ms / 2000
    with connection(rtt_ms=rtt_ms, gbit=0.08) as (near, far, _):
        for sender, receiver in both_ways(near, far):
            start = time.monotonic()
            thread = send_all(sender, data)
            assert len(receive_all(receiver)) == len(data)
            seconds = time.monotonic() - start
            thread.join()
            assert expected * 0.999 <= seconds < expected * 1.5


@pytest.mark.parametrize("link", [{}, {"rtt_ms": 10}, {"rtt_ms": 10, "gbit": 1}], ids=["direct", "far", "far, narrow"])
def test_carries_every_byte_unchanged_both_ways_at_once(link):
    # More than the relay's buffers hold, and no multiple of its read size.
    up, down = (random.Random(seed).randbytes(24 * MIB + seed) for seed in (1, 2))
    with connection(**link) as (near, far, _):
        threads = [send_all(near, up), send_all(far, down)]
        received = {}
        reader = threading.Thread(target=lambda: received.update(up=receive_all(far)))
        reader.start()
        assert receive_all(near) == down
        reader.join()
        assert received["up"] == up
        for thread in threads:
            thread.join()


def test_holds_back_a_sender_whose_receiver_does_not_read():
    with connection() as (near, far, _):
        near.settimeout(1)
        sent = 0
        with pytest.raises(TimeoutError):
            while sent < 200 * MIB:
                sent += near.send(bytes(MIB))
        far.setblocking(True)
        near.shutdown(socket.SHUT_WR)
        assert len(receive_all(far)) == sent


def test_passes_the_end_of_one_direction_on_and_keeps_the_other_open():
    with connection(rtt_ms=10) as (near, far, _):
        near.sendall(b"question")
        near.shutdown(socket.SHUT_WR)
        assert receive_all(far) == b"question"
        for _ in range(3):
            far.sendall(b"answer")
        far.shutdown(socket.SHUT_WR)
        assert receive_all(near) == b"answer" * 3


def test_closes_one_end_when_the_other_is_reset():
    with connection(rtt_ms=10) as (near, far, _):
        far.sendall(b"last words")
        assert near.recv(10, socket.MSG_WAITALL) == b"last words"
        far.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        far.close()
        assert near.recv(1) == b""


def test_closes_a_connection_that_no_server_accepts():
    with socket.create_server((HOST, 0)) as listener:
        port = listener.getsockname()[1]
    with Link(target=port, relayed=True) as link, socket.create_connection((HOST, link.port), DEADLINE) as near:
        assert near.recv(1) == b""


def test_serves_several_connections_at_once():
    with socket.create_server((HOST, 0)) as listener, Link(target=listener.getsockname()[1], relayed=True) as link, \
            contextlib.ExitStack() as stack:
        pairs = []
        for number in range(20):
            near = stack.enter_context(socket.create_connection((HOST, link.port), DEADLINE))
            pairs.append((number, near, stack.enter_context(listener.accept()[0])))
        for number, near, far in pairs:
            near.sendall(b"%02d" % number)
        for number, near, far in reversed(pairs):
            assert far.recv(2, socket.MSG_WAITALL) == b"%02d" % number
