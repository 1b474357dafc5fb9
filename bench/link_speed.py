"""Measures a link itself: its throughput and its round-trip times."""
import socket
import threading
import time

from contestants import HOST

MIB = 1 << 20


def seconds_to_send(listener, port, size):
    """The seconds until the last byte has arrived."""
    block = bytes(MIB)

    def send():
        with socket.create_connection((HOST, port)) as sender:
            for begin in range(0, size, MIB):
                sender.sendall(block[:size - begin])
    start = time.perf_counter()
    thread = threading.Thread(target=send)
    thread.start()
    with listener.accept()[0] as receiver:
        buffer = bytearray(MIB)
        received = 0
        while count := receiver.recv_into(buffer):
            received += count
    thread.join()
    assert received == size, f"{received} bytes have arrived, and not {size}"
    return time.perf_counter() - start


def round_trips(listener, port, count):
    """The seconds for each of `count` single bytes to be sent there and back."""
    trips = []
    with socket.create_connection((HOST, port)) as near, listener.accept()[0] as far:
        for _ in range(count):
            start = time.perf_counter()
            near.sendall(b"!")
            far.sendall(far.recv(1))
            near.recv(1)
            trips.append(time.perf_counter() - start)
    return trips
