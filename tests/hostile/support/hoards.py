"""Making a victim keep things: each connection hands over what it has, as far as it is taken, and then stays."""

import array
import select
import socket
import time

from . import peers

PIECE_BYTES = 1 << 18


class Load:
    """What one connection sends: bytes, each with descriptors that go with their first byte."""

    def __init__(self, pieces):
        self.pieces = [(memoryview(data), list(descriptors)) for data, descriptors in pieces]

    def step(self, stream):
        data, descriptors = self.pieces[0]
        if descriptors:
            control = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
            sent = stream.sendmsg([data[:PIECE_BYTES]], control)
        else:
            sent = stream.send(data[:PIECE_BYTES])
        self.pieces[0] = data[sent:], []
        if not self.pieces[0][0]:
            self.pieces.pop(0)


def hoard(tell, connect, count, load_of, seconds):
    """Opens so many connections and has each send its load; tells once all is sent, or the time is over.

    What is cut off stays away.
    """
    loads, held = {}, []
    poll = select.poll()
    for number in range(count):
        try:
            peer = connect()
        except peers.DEFENDED:
            continue
        peer.stream.setblocking(False)
        peer.place = number
        held.append(peer)
        loads[peer.stream.fileno()] = peer.stream, Load(load_of(peer))
        poll.register(peer.stream, select.POLLOUT)
    end = time.monotonic() + seconds
    told = False
    while True:
        if not told and (not loads or time.monotonic() > end):
            told = True
            tell("hoarded")
        for descriptor, _ in poll.poll(100):
            stream, load = loads[descriptor]
            try:
                load.step(stream)
            except BlockingIOError:
                continue
            except peers.DEFENDED:
                load.pieces = []
            if not load.pieces:
                poll.unregister(descriptor)
                del loads[descriptor]
