"""Ends of connections that speak the wire themselves, with or without manners."""

import array
import os
import socket
import tempfile
import time

from . import cbor, wire

BROKER = "velto-ipc/org.velto.VeltoIPCDaemon"
CHUNK = 1 << 18
CONNECT_RETRY_SECONDS = 0.01


class Gone(Exception):
    """The other end has ended the connection."""


# What an attacker meets when its victim defends itself: it goes on with what it has.
DEFENDED = (Gone, TimeoutError, OSError)


class Peer:
    """One end of a connection."""

    def __init__(self, stream, timeout=10.0):
        self.stream = stream
        self.stream.settimeout(timeout)
        self.received = bytearray()
        self.descriptors = []
        self.next_identifier = 1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.stream.close()
        for descriptor in self.descriptors:
            os.close(descriptor)
        self.descriptors = []

    def send(self, data, descriptors=()):
        try:
            if descriptors:
                data = data[self._send_with(data, descriptors) :]
            self.stream.sendall(data)
        except (BrokenPipeError, ConnectionResetError) as error:
            raise Gone from error

    def _send_with(self, data, descriptors):
        rights = array.array("i", descriptors)
        return self.stream.sendmsg([data], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, rights)])

    def number(self):
        self.next_identifier += 1
        return self.next_identifier - 1

    def next(self):
        """Type, body and descriptors of the next frame."""
        head = self._bytes(8)
        length, kind = int.from_bytes(head[:4], "little"), head[4]
        count = int.from_bytes(head[6:8], "little")
        body = self._bytes(length)
        taken, self.descriptors = self.descriptors[:count], self.descriptors[count:]
        return kind, body, taken

    def next_of(self, *kinds):
        while True:
            kind, body, descriptors = self.next()
            if kind in kinds:
                return kind, cbor.decode(body), descriptors

    def _bytes(self, count):
        while len(self.received) < count:
            try:
                data, control, _, _ = self.stream.recvmsg(CHUNK, 4096)
            except ConnectionResetError as error:
                raise Gone from error
            for _, _, rights in control:
                arrived = array.array("i")
                arrived.frombytes(rights[: len(rights) - len(rights) % arrived.itemsize])
                self.descriptors += arrived
            if not data:
                raise Gone
            self.received += data
        taken = bytes(self.received[:count])
        del self.received[:count]
        return taken

    def is_cut_off_within(self, seconds):
        """Reads whatever comes until the other end ends the connection."""
        self.stream.settimeout(seconds)
        try:
            while True:
                self.next()
        except Gone:
            return True
        except TimeoutError:
            return False

    # What an honest client of a listener does.

    def introduce(self):
        """The hello and the ping. Nothing is waited for."""
        self.send(wire.hello() + wire.ping(self.number()))

    def wait_until_ready(self):
        while True:
            kind, items, _ = self.next_of(wire.CALL)
            if items[1] == "connectionUUID:":
                return items[3]

    def ask(self, entries):
        """Sends a message and waits for its reply."""
        identifier = self.number()
        self.send(wire.message(identifier, entries))
        return self.answer_to(identifier)

    def answer_to(self, identifier):
        while True:
            kind, items, descriptors = self.next_of(
                wire.REPLY, wire.REPLY_DROPPED, wire.REFUSAL, wire.REPLY_REFUSAL
            )
            if items[0] == identifier:
                return kind, items[1:], descriptors


def connected(path, timeout=10.0):
    """Waits, as the library does, while the listener's backlog is full."""
    end = time.monotonic() + timeout
    while True:
        stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        stream.settimeout(timeout)
        try:
            stream.connect(path)
            return Peer(stream, timeout)
        except BlockingIOError:
            stream.close()
            if time.monotonic() > end:
                raise
            time.sleep(CONNECT_RETRY_SECONDS)
        except BaseException:
            stream.close()
            raise


def broker_link(timeout=10.0, says_hello=True):
    link = connected(os.path.join(os.environ["XDG_RUNTIME_DIR"], BROKER), timeout)
    if says_hello:
        link.send(wire.hello())
    return link


class Endpoint:
    """A way to a listener, as the broker gives it: a handle on its socket and the end of a pipe that hangs up."""

    def __init__(self, descriptors):
        self.handle, self.hang_up = descriptors

    def connect(self, timeout=10.0):
        return connected(f"/proc/self/fd/{self.handle}", timeout)

    def close(self):
        os.close(self.handle)
        os.close(self.hang_up)


def look_up(name, timeout=10.0, link=None):
    """The endpoint of a name; None when it has none."""
    own = link or broker_link(timeout)
    try:
        identifier = own.number()
        own.send(wire.call(identifier, wire.LOOK_UP, True, name))
        kind, items, descriptors = own.answer_to(identifier)
        if kind != wire.REPLY or len(descriptors) != 2:
            return None
        return Endpoint(descriptors)
    finally:
        if link is None:
            own.close()


class RawListener:
    """A listening socket of one's own, and the pipe whose hang-up would tell that it is gone."""

    def __init__(self, backlog=4096):
        with tempfile.TemporaryDirectory(dir=os.environ["XDG_RUNTIME_DIR"]) as directory:
            path = os.path.join(directory, "socket")
            self.stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.stream.bind(path)
            self.stream.listen(backlog)
            self.handle = os.open(path, os.O_PATH)
        self.hang_up, self.kept_end = os.pipe()

    def register(self, name, link):
        link.send(
            wire.call(link.number(), wire.REGISTER, False, wire.endpoint(), name, descriptors=2),
            [self.handle, self.hang_up],
        )

    def close(self):
        self.stream.close()
        for descriptor in (self.handle, self.hang_up, self.kept_end):
            os.close(descriptor)

    def accept(self, timeout=10.0):
        self.stream.settimeout(timeout)
        return Peer(self.stream.accept()[0], timeout)


def accept_client(listener, identifier="hostile", **stated):
    """Accepts a client and makes it ready, as a listener of the library would."""
    peer = listener.accept()
    peer.send(wire.hello(**stated))
    peer.send(wire.call(peer.number(), "setStrictMessageTypesRemote:", False, True))
    peer.send(wire.call(peer.number(), "connectionUUID:", False, identifier))
    return peer
