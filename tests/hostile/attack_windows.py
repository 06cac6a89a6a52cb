#!/usr/bin/env python3
"""A peer states that it takes everything, and takes nothing: whoever sends to it must not keep all that for it."""

import struct
import time

from support import measures, peers, processes, wire
from support.scenarios import main, scenario

MOST_GROWTH_MEBIBYTES = 96.0
MOST_LATE_GROWTH_MEBIBYTES = 6.0
WATCH_SECONDS = 10.0
EVERYTHING = (1 << 64) - 1
NUMBER = struct.Struct(">BQ")
WINDOW = {"undelivered_bytes": EVERYTHING, "undelivered_calls": EVERYTHING}


def take_nothing(tell, name, reads, stated):
    """A listener that makes a client ready and gives no credit."""
    link = peers.broker_link()
    listener = peers.RawListener()
    listener.register(name, link)
    peers.look_up("nobody", link=link)
    tell("registered")
    peer = peers.accept_client(listener, **stated)
    peer.stream.settimeout(None)
    while reads:
        if not peer.stream.recv(1 << 20):
            break
    return link, listener, peer


def let_go_of_everything(tell, name, stated):
    """Settles each call at once, as one who will never answer it, but never says that it has dealt with it."""
    link = peers.broker_link()
    listener = peers.RawListener()
    listener.register(name, link)
    peers.look_up("nobody", link=link)
    tell("registered")
    peer = peers.accept_client(listener, **stated)
    while True:
        kind, body, _ = peer.next()
        if kind == wire.CALL and wire.MESSAGE.encode() in body:
            break
    first = wire.cbor.decode(body)[0]
    let_go_of_the_rest(peer, first)
    return link, listener


def let_go_of_the_rest(peer, first):
    """Of calls whose numbers rise by one."""
    unsettled, data = first, bytes(peer.received)
    number = first + 1
    while True:
        at = 0
        while at + 8 <= len(data):
            end = at + 8 + int.from_bytes(data[at : at + 4], "little")
            if end > len(data):
                break
            at = end
            number += 1
        head = wire.header(wire.REPLY_DROPPED, NUMBER.size)
        settled = b"".join(head + NUMBER.pack(0x1B, each) for each in range(unsettled, number))
        unsettled = number
        peer.stream.settimeout(None)
        peer.send(settled)
        more = peer.stream.recv(1 << 20)
        if not more:
            return
        data = data[at:] + more


class Pair:
    """A client that sends without end, and the listener that it sends to."""

    def __init__(self, stack, name, attack, message_bytes, *arguments):
        self.name = name
        attacker = stack.enter_context(processes.Attacker(attack, name, *arguments))
        attacker.told()
        self.client = stack.enter_context(processes.client_victim(name))
        self.client.expect("ready")
        self.before = measures.resident_mebibytes(self.client.pid)
        self.highest = measures.Highest(lambda: measures.resident_mebibytes(self.client.pid))
        self.client.ask(f"flood {message_bytes}")

    def check(self, checks, halfway):
        end = self.highest.look()
        checks.most(f"growth of the client, {self.name}", end - self.before, MOST_GROWTH_MEBIBYTES, "MiB")
        late = end - halfway
        checks.most(f"of which late, {self.name}", late, MOST_LATE_GROWTH_MEBIBYTES, "MiB")
        checks.least(f"messages that it has sent, {self.name}", self.client.figures()["accepted"], 1)
        self.client.kill()


def watch(pairs, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for pair in pairs:
            pair.highest.look()
        time.sleep(0.05)
    return [pair.highest.value for pair in pairs]


def check_growth(checks, pairs):
    halfway = watch(pairs, WATCH_SECONDS / 2)
    watch(pairs, WATCH_SECONDS / 2)
    for pair, value in zip(pairs, halfway):
        pair.check(checks, value)


@scenario("AClientIsBoundedWhenItsListenerStatesAnEndlessWindow")
def endless_windows(checks, stack):
    stack.enter_context(processes.broker())
    check_growth(checks, [Pair(stack, "calls let go of", let_go_of_everything, 1, WINDOW)])
    check_growth(
        checks,
        [
            Pair(stack, "small ones read", take_nothing, 64, True, WINDOW),
            Pair(stack, "large ones read", take_nothing, 1 << 20, True, WINDOW),
            Pair(stack, "small ones not read", take_nothing, 4096, False, WINDOW),
            Pair(stack, "endless ones not read", take_nothing, 8 << 20, False, WINDOW | {"frame_bytes": EVERYTHING}),
        ],
    )


if __name__ == "__main__":
    main()
