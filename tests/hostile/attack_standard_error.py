#!/usr/bin/env python3
"""Peers that make a process write lines to a standard error that takes none, or takes all.

Nobody waits for a line to be written, and lines that say the same again and again are counted instead.
"""

import os
import tempfile
import time

from support import peers, processes, wire
from support.scenarios import NEVER, main, newcomer_seconds, register_seconds, scenario

OTHERS_SECONDS = 1.0
BAD_CONNECTIONS = 40_000
MOST_LINES = 200
FILL = b"x" * 65536


def full_pipe(stack):
    """Both ends of a pipe that has no room left; writing to it blocks for good."""
    reading, writing = os.pipe()
    stack.callback(os.close, writing)
    os.set_blocking(writing, False)
    for size in (65536, 1):
        try:
            while True:
                os.write(writing, FILL[:size])
        except BlockingIOError:
            pass
    os.set_blocking(writing, True)
    return reading, writing


def bad_peer(number):
    """What breaks the protocol in one of several ways."""
    return (
        b"\xff" * 8,
        wire.hello() + wire.header(99, b""),
        wire.frame(wire.CREDIT, 1, 1),
        wire.hello() + wire.frame(wire.REPLY, 5, 5),
        wire.hello() + wire.hello(),
        wire.header(wire.HELLO, 1 << 30),
        wire.hello() + wire.frame(wire.CALL, "no number"),
    )[number % 7]


def misbehave(tell, at_broker, count):
    """Connection after connection that breaks the protocol."""
    endpoint = None if at_broker else peers.look_up("victim")
    for number in range(count):
        try:
            peer = peers.broker_link(1.0, says_hello=False) if at_broker else endpoint.connect(1.0)
            with peer:
                peer.send(bad_peer(number))
                if number % 50 == 0:
                    peer.is_cut_off_within(1.0)
        except peers.DEFENDED:
            continue
    tell("done")


def check_blocked(checks, stack, at_broker):
    reading, writing = full_pipe(stack)
    broker = stack.enter_context(processes.broker(stderr=writing if at_broker else None))
    victim = stack.enter_context(processes.listener_victim(stderr=None if at_broker else writing))
    endpoint = peers.look_up("victim")
    other = stack.enter_context(endpoint.connect(5.0))
    other.introduce()
    other.wait_until_ready()
    check_others(checks, stack, at_broker, other, "with nobody reading")
    os.close(reading)
    check_others(checks, stack, at_broker, other, "with nobody to read")
    checks.equal("broker and victim live", (broker.is_alive(), victim.is_alive()), (True, True))


def check_others(checks, stack, at_broker, other, when):
    attacker = stack.enter_context(processes.Attacker(misbehave, at_broker, 100))
    attacker.told(50.0)
    if at_broker:
        checks.most(f"another registers and is found, {when}", register_seconds(bound=4.0), OTHERS_SECONDS, "s")
    checks.most(f"one who was there before is answered, {when}", answer_seconds(other), OTHERS_SECONDS, "s")
    checks.most(f"a newcomer's first reply, {when}", newcomer_seconds(bound=4.0), OTHERS_SECONDS, "s")


def answer_seconds(peer):
    start = time.monotonic()
    try:
        peer.ask({"do": "answer"})
        return time.monotonic() - start
    except peers.DEFENDED:
        return NEVER


@scenario("AListenerWhoseStandardErrorIsAFullPipeServesOthersAfterBadPeers")
def full_pipe_of_a_listener(checks, stack):
    check_blocked(checks, stack, False)


@scenario("ABrokerWhoseStandardErrorIsAFullPipeServesOthersAfterBadPeers")
def full_pipe_of_the_broker(checks, stack):
    check_blocked(checks, stack, True)


@scenario("ALogSinkThatTakesASecondHoldsNobodyUp")
def slow_sink(checks, stack):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim(sink_pause=1000))
    other = stack.enter_context(peers.look_up("victim").connect(20.0))
    other.introduce()
    other.wait_until_ready()
    attacker = stack.enter_context(processes.Attacker(misbehave, False, 16))
    attacker.told(50.0)
    checks.most("one who was there before is answered", answer_seconds(other), OTHERS_SECONDS, "s")
    checks.most("a newcomer's first reply", newcomer_seconds(bound=20.0), OTHERS_SECONDS, "s")
    checks.least("lines that have reached the sink", victim.figures()["lines"], 1)


def lines_of(file):
    size = os.fstat(file.fileno()).st_size
    return os.pread(file.fileno(), size, 0).count(b"\n")


def check_lines(checks, stack, at_broker):
    log = stack.enter_context(tempfile.TemporaryFile())
    broker = stack.enter_context(processes.broker(stderr=log if at_broker else None))
    stack.enter_context(processes.listener_victim(stderr=None if at_broker else log))
    attacker = stack.enter_context(processes.Attacker(misbehave, at_broker, BAD_CONNECTIONS))
    attacker.told(50.0)
    time.sleep(1.5)  # the last of what is told once a second
    checks.most("lines that were written", lines_of(log), MOST_LINES)
    checks.least("lines that were written", lines_of(log), 1)
    checks.most("a newcomer's first reply", newcomer_seconds(bound=5.0), OTHERS_SECONDS, "s")
    checks.equal("the broker lives", broker.is_alive(), True)


@scenario("AFloodOfBadConnectionsToAListenerWritesFewLines")
def lines_of_a_listener(checks, stack):
    check_lines(checks, stack, False)


@scenario("AFloodOfBadLinksToTheBrokerWritesFewLines")
def lines_of_the_broker(checks, stack):
    check_lines(checks, stack, True)


if __name__ == "__main__":
    main()
