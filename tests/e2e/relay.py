"""A relay between the tool and a server, which damages the connections that it carries.

The place is chosen by messages or by a count of bytes, never by the clock. A fault is a function of the Link, one
connection; it changes what happens to everything that the relay receives from then on.
"""
import collections
import errno
import selectors
import socket
import struct
import threading
import time

from world import HOST

SERVER = (HOST, 2222)
READ_BYTES = 65536
NEWKEYS = 21
END = b""


# --- faults ----------------------------------------------------------------------------------

def fin(link):
    """Each end sees the other one close the connection in order; nothing is ever reset."""
    link.fall_silent()
    for end in link.ends:
        end.shutdown(socket.SHUT_WR)


def rst(link):
    """Both ends are reset."""
    link.fall_silent()
    for end in link.ends:
        end.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        end.close()


def stall(link):
    """Nothing is forwarded any more; both ends stay open."""
    link.fall_silent()


def delay(link):
    """All bytes arrive 50 ms later, in each direction."""
    for way in link.ways:
        way.delay = 0.05


def one_byte(link):
    """Every byte is a packet of its own."""
    for way in link.ways:
        way.piece = 1


def throttle(link):
    """Forwards 128 KiB per second."""
    for way in link.ways:
        way.piece, way.interval = 1024, 1 / 128


def trickle(link):
    """Forwards 2 MiB per second, in pieces smaller than a packet."""
    for way in link.ways:
        way.piece, way.interval = 8192, 1 / 256


def corrupt(offset, mask=1):
    """A fault that flips bits of one of the bytes that the server sends next."""
    def flip(link):
        link.down.flip = (offset, mask)
    return flip


# --- points ----------------------------------------------------------------------------------

def after_bytes(count):
    """Finds the place after this number of bytes."""
    def place(data):
        nonlocal count
        if len(data) < count:
            count -= len(data)
            return None
        return count
    return place


class Dialog:
    """Follows what the client sends, to find the place before a message of the key exchange, or before what it sends in
    its nth turn after that.
    """

    def __init__(self, message=None, turn=None):
        self._message = message
        self._turn = turn
        self._text = b""  # of the key exchange, which can be read
        self._next = 0  # where in it the next message begins
        self._encrypted = False
        self._answered = True

    def server_speaks(self):
        self._answered = True

    def __call__(self, data):
        """The offset of the place in the data that the client sends, or None."""
        if self._encrypted:
            return self._take_turn(0)
        begin = len(self._text)
        self._text += data
        for offset, kind in self._messages():
            if kind == self._message:
                return offset - begin
        rest = self._next - begin
        return self._take_turn(rest) if self._encrypted and rest < len(data) else None

    def _messages(self):
        """(offset, number) of each further message whose beginning has arrived."""
        if self._next == 0:
            self._next = self._text.find(b"\n") + 1  # the version
        while 0 < self._next and self._next + 6 <= len(self._text) and not self._encrypted:
            offset = self._next
            size, _, kind = struct.unpack_from(">IBB", self._text, offset)
            self._next += 4 + size
            self._encrypted = kind == NEWKEYS
            yield offset, kind

    def _take_turn(self, offset):
        if self._answered and self._turn is not None:
            self._answered = False
            self._turn -= 1
            if self._turn == 0:
                return offset
        return None


# --- the relay -------------------------------------------------------------------------------

class Way:
    """One direction of a connection."""

    def __init__(self, link, source, sink):
        self.delay = 0
        self.piece = READ_BYTES  # bytes that go in one packet
        self.interval = 0  # from one packet to the next
        self.place = None  # finds where the fault is to strike
        self.flip = None  # (offset, mask)
        self._link = link
        self._source = source
        self._sink = sink
        self._queue = collections.deque()  # (when it is due, bytes or END)
        self._last = 0

    def read(self):
        data = self._source.recv(READ_BYTES)
        if not data:
            self._link.forget(self._source)
            self._carry([END])
            return
        self._link.heard(self)
        offset = self.place(data) if self.place else None
        if offset is not None:
            self.place = None
            self._carry(self._pieces(data[:offset]))
            self._link.strike()
            data = data[offset:]
        self._carry(self._pieces(data))

    def _pieces(self, data):
        data = self._flipped(data)
        return [data[begin:begin + self.piece] for begin in range(0, len(data), self.piece)]

    def _carry(self, pieces):
        for piece in pieces:
            self._last = max(time.monotonic() + self.delay, self._last + self.interval)
            self._queue.append((self._last, piece))
        self.deliver()

    def _flipped(self, data):
        if self.flip:
            offset, mask = self.flip
            if offset < len(data):
                self.flip = None
                return data[:offset] + bytes([data[offset] ^ mask]) + data[offset + 1:]
            self.flip = offset - len(data), mask
        return data

    def deliver(self):
        """Sends what is due."""
        while self._queue and self._queue[0][0] <= time.monotonic() and not self._link.silent:
            _, piece = self._queue.popleft()
            if piece is END:
                self._sink.shutdown(socket.SHUT_WR)
            else:
                self._sink.sendall(piece)

    def due(self):
        return [self._queue[0][0]] if self._queue and not self._link.silent else []


class Link:
    """One connection of the tool, and the one to the server that belongs to it."""

    def __init__(self, relay, client, server, dialog):
        self.ends = client, server
        self.up = Way(self, client, server)
        self.down = Way(self, server, client)
        self.ways = self.up, self.down
        self.silent = False
        self._relay = relay
        self._dialog = dialog
        self.up.place = dialog
        for end, way in zip(self.ends, self.ways):
            end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            relay.selector.register(end, selectors.EVENT_READ, lambda way=way: self._guarded(way.read))

    def _guarded(self, work):
        """When one end is reset or closed, closes both."""
        try:
            work()
        except OSError as error:
            if error.errno not in (errno.ECONNRESET, errno.EPIPE, errno.ENOTCONN, errno.ETIMEDOUT):
                raise
            self.fall_silent()
            self.close()

    def heard(self, way):
        """Tells the dialog which side's turn is over."""
        if self._dialog and way is self.down:
            self._dialog.server_speaks()

    def deliver(self):
        for way in self.ways:
            self._guarded(way.deliver)

    def strike(self):
        self._relay.struck(self)

    def fall_silent(self):
        self.silent = True
        for end in self.ends:
            self.forget(end)

    def forget(self, end):
        if end.fileno() >= 0 and end in self._relay.selector.get_map():
            self._relay.selector.unregister(end)

    def close(self):
        for end in self.ends:
            end.close()


class Relay:
    """While it is entered, carries connections from port 22, or the listener, to port 2222. A fault strikes each of
    them at the point: "connected", or the place that the Dialog of at() finds; or when the test says so.
    """

    def __init__(self, fault=None, at=None, listener=None):
        self.links = []
        self.struck_at = None  # when a fault was last done, on the monotonic clock
        self.selector = selectors.DefaultSelector()
        self._fault = fault
        self._at = at
        self._listener = listener or socket.create_server((HOST, 22))
        self._posted, self._posting = socket.socketpair()
        self._work = collections.deque()
        self._running = True
        self._error = None
        self._thread = threading.Thread(target=self._run)

    def __enter__(self):
        self.selector.register(self._listener, selectors.EVENT_READ, self._accept)
        self.selector.register(self._posted, selectors.EVENT_READ, self._do_posted)
        self._thread.start()
        return self

    def __exit__(self, kind, error, trace):
        self._post(self._stop)
        self._thread.join(60)
        assert not self._thread.is_alive(), "the relay does not end"
        for link in self.links:
            link.close()
        for end in self._listener, self._posted, self._posting, self.selector:
            end.close()
        if self._error and not error:
            raise self._error

    def strike(self, after=0):
        """Strikes the last connection, at once or after the server has sent this many more bytes."""
        done = threading.Event()

        def place():
            if after:
                self.links[-1].down.place = after_bytes(after)
            else:
                self.struck(self.links[-1])
            done.set()
        self._post(place)
        assert done.wait(60), "the relay does not answer"

    # The functions below run on the relay's own thread.

    def struck(self, link):
        self.struck_at = time.monotonic()
        self._fault(link)

    def _post(self, work):
        self._work.append(work)
        self._posting.send(b"!")

    def _do_posted(self):
        self._posted.recv(1)
        self._work.popleft()()

    def _stop(self):
        self._running = False

    def _run(self):
        try:
            while self._running:
                due = [when for link in self.links for way in link.ways for when in way.due()]
                patience = max(0, min(due) - time.monotonic()) if due else None
                for key, _ in self.selector.select(patience):
                    # An earlier event of this round may have ended the link.
                    if key.fileobj.fileno() >= 0:
                        key.data()
                for link in self.links:
                    link.deliver()
        except BaseException as error:
            self._error = error

    def _accept(self):
        client = self._listener.accept()[0]
        dialog = self._at() if callable(self._at) else None
        link = Link(self, client, socket.create_connection(SERVER), dialog)
        self.links.append(link)
        if self._at == "connected":
            self.struck(link)
