#!/usr/bin/env python3
"""Replies that take long to decode, several at once: whoever else talks to the process is answered meanwhile."""

import os
import signal
import time

from support import floods, measures, peers, processes, shapes, wire
from support.scenarios import NEVER, main, newcomer_seconds, scenario

OTHERS_SECONDS = 0.5
WATCH_SECONDS = 5.0
PAUSE_SECONDS = 0.01


def reply_at_once(tell, count, value):
    """So many clients that are asked something, and all answer at the same moment."""
    endpoint = peers.look_up("victim")
    asked = []
    for _ in range(count):
        peer = floods.fill_deep(endpoint.connect())
        peer.introduce()
        peer.wait_until_ready()
        asked.append(peer)
    tell("ready")
    frames = []
    for peer in asked:
        while True:
            _, items, _ = peer.next_of(wire.CALL)
            if items[1] == wire.MESSAGE:
                frames.append(wire.reply(items[0], {"value": wire.cbor.Raw(value)}))
                break
    tell("asked")
    signal.sigwait([signal.SIGUSR1])
    send_together(asked, frames)
    tell("answered")
    return asked


def call_at_once(tell, count, value):
    endpoint = peers.look_up("victim")
    callers, frames = [], []
    for _ in range(count):
        peer = floods.fill_deep(endpoint.connect())
        peer.introduce()
        peer.wait_until_ready()
        callers.append(peer)
        frames.append(wire.message(peer.number(), {"do": "answer", "value": wire.cbor.Raw(value)}))
    tell("ready")
    tell("asked")
    signal.sigwait([signal.SIGUSR1])
    send_together(callers, frames)
    tell("answered")
    return callers


def send_together(senders, frames):
    rest = {peer.stream: memoryview(frame) for peer, frame in zip(senders, frames)}
    for stream in rest:
        stream.setblocking(False)
    while rest:
        for stream in list(rest):
            try:
                rest[stream] = rest[stream][stream.send(rest[stream]) :]
            except BlockingIOError:
                time.sleep(0.0005)
            except OSError:
                rest[stream] = b""
            if not rest[stream]:
                del rest[stream]


def longest_wait(peer):
    """Of one who asks for little, again and again."""
    longest, end = 0.0, time.monotonic() + WATCH_SECONDS
    while time.monotonic() < end:
        start = time.monotonic()
        try:
            peer.ask({"do": "answer"})
        except peers.DEFENDED:
            return NEVER
        longest = max(longest, time.monotonic() - start)
        time.sleep(PAUSE_SECONDS)
    return longest


def check_others(checks, stack, attack, count, value):
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim())
    attacker = stack.enter_context(processes.Attacker(attack, count, value))
    attacker.told()
    measures.seconds_until(lambda: victim.figures()["ready"] >= count, 10.0)
    victim.ask(f"waiters {count} 30 keep")
    attacker.told()
    endpoint = peers.look_up("victim")
    with endpoint.connect(WATCH_SECONDS * 3) as other:
        other.introduce()
        other.wait_until_ready()
        before = measures.processor_seconds(victim.pid)
        os.kill(attacker.pid, signal.SIGUSR1)
        checks.most("the longest that another waits for its reply", longest_wait(other), OTHERS_SECONDS, "s")
        print(f"   processor time: {measures.processor_seconds(victim.pid) - before:.1f} s", flush=True)
    checks.most("a newcomer's first reply", newcomer_seconds(bound=5.0), OTHERS_SECONDS, "s")


@scenario("OthersAreAnsweredWhileEightCostlyRepliesAreDecoded")
def costly_replies(checks, stack):
    check_others(checks, stack, reply_at_once, 8, shapes.costly(65, 1000))


@scenario("OthersAreAnsweredWhileTwentyFourLargeRepliesAreDecoded")
def large_replies(checks, stack):
    check_others(checks, stack, reply_at_once, 24, shapes.large())


@scenario("OthersAreAnsweredWhileTwentyFourLargeRepliesOfArraysAreDecoded")
def large_replies_of_containers(checks, stack):
    check_others(checks, stack, reply_at_once, 24, shapes.large_of_containers())


@scenario("OthersAreAnsweredWhileTwentyFourLargeCallsAreDecoded")
def large_calls(checks, stack):
    check_others(checks, stack, call_at_once, 24, shapes.large_of_containers())


def look_up_at_once(tell, count, value):
    callers = [floods.fill_deep(peers.broker_link()) for _ in range(count)]
    for peer in callers:
        peers.look_up("nobody", link=peer)
    frames = [wire.call(peer.number(), wire.LOOK_UP, True, wire.cbor.Raw(value)) for peer in callers]
    tell("ready")
    signal.sigwait([signal.SIGUSR1])
    send_together(callers, frames)
    tell("answered")
    return callers


@scenario("OthersLookUpWhileManyLargeCallsToTheBrokerAreDecoded")
def large_calls_to_the_broker(checks, stack):
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    attacker = stack.enter_context(processes.Attacker(look_up_at_once, 96, shapes.large_of_containers()))
    attacker.told()
    os.kill(attacker.pid, signal.SIGUSR1)
    longest, end = 0.0, time.monotonic() + WATCH_SECONDS
    while time.monotonic() < end:
        longest = max(longest, newcomer_seconds(bound=5.0))
        time.sleep(PAUSE_SECONDS)
    checks.most("the longest until another is served", longest, OTHERS_SECONDS, "s")


if __name__ == "__main__":
    main()
