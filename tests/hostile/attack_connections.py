#!/usr/bin/env python3
"""Connections without end: silent ones, and ones that called once and then idle.

A newcomer is served all the same, at a listener and at the broker.
"""

import time

from support import peers, processes
from support.scenarios import NEVER, main, newcomer_seconds, register_seconds, scenario

BESIDE_SILENT_ONES_SECONDS = 1.0
BESIDE_IDLE_ONES_SECONDS = 4.0
WATCH_SECONDS = 4.0
HELD_AT_ONCE = 8000
DESCRIPTOR_LIMIT = 1024


def connect_without_end(tell, at_broker):
    """Connects and says nothing, as fast as it goes; lets go of the oldest only to have room for more."""
    endpoint = None if at_broker else peers.look_up("victim")
    held = []
    told = False
    while True:
        try:
            held.append(peers.broker_link(0.05, says_hello=False) if at_broker else endpoint.connect(0.05))
        except peers.DEFENDED:
            pass
        if len(held) >= HELD_AT_ONCE:
            held.pop(0).close()
        if not told and len(held) > 300:
            told = True
            tell("connecting")


def worst(measure):
    longest, end = 0.0, time.monotonic() + WATCH_SECONDS
    while longest != NEVER and time.monotonic() < end:
        longest = max(longest, measure())
        time.sleep(0.1)
    return longest


def check_silent(checks, stack, at_broker, attackers):
    stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim(descriptors=20_000))
    newcomer_seconds()
    crowd = [stack.enter_context(processes.Attacker(connect_without_end, at_broker)) for _ in range(attackers)]
    for attacker in crowd:
        attacker.told()
    if at_broker:
        seconds = worst(lambda: register_seconds(bound=5.0))
        checks.most("until another registers and is found, the longest", seconds, BESIDE_SILENT_ONES_SECONDS, "s")
    else:
        seconds = worst(lambda: newcomer_seconds(bound=5.0))
        checks.most("a newcomer's first reply, the longest", seconds, BESIDE_SILENT_ONES_SECONDS, "s")
    for attacker in crowd:
        attacker.kill()
    checks.most("a newcomer's first reply afterwards", newcomer_seconds(bound=5.0), BESIDE_SILENT_ONES_SECONDS, "s")


@scenario("ANewcomerToAListenerIsServedBesideSilentConnectionsWithoutEnd")
def silent_at_the_listener(checks, stack):
    check_silent(checks, stack, False, 1)


@scenario("ANewcomerToAListenerIsServedBesideSilentConnectionsOfFourProcesses")
def silent_at_the_listener_by_many(checks, stack):
    check_silent(checks, stack, False, 4)


@scenario("ANewcomerToTheBrokerIsServedBesideSilentConnectionsWithoutEnd")
def silent_at_the_broker(checks, stack):
    check_silent(checks, stack, True, 1)


@scenario("ANewcomerToTheBrokerIsServedBesideSilentConnectionsOfFourProcesses")
def silent_at_the_broker_by_many(checks, stack):
    check_silent(checks, stack, True, 4)


def call_once_and_idle(tell, at_broker, count):
    endpoint = None if at_broker else peers.look_up("victim")
    held = []
    for _ in range(count):
        try:
            if at_broker:
                held.append(peers.broker_link(0.3))
                peers.look_up("nobody", link=held[-1])
            else:
                held.append(endpoint.connect(0.3))
                held[-1].introduce()
                held[-1].wait_until_ready()
                held[-1].ask({"do": "answer"})
        except peers.DEFENDED:
            if len(held) > DESCRIPTOR_LIMIT // 2 and len(held) > count - 10:
                break
    tell("idle")
    return held


def check_idle(checks, stack, at_broker, attackers):
    stack.enter_context(processes.broker(descriptors=DESCRIPTOR_LIMIT if at_broker else None))
    stack.enter_context(processes.listener_victim(descriptors=None if at_broker else DESCRIPTOR_LIMIT))
    newcomer_seconds()
    count = (DESCRIPTOR_LIMIT + 20) // attackers
    crowd = [stack.enter_context(processes.Attacker(call_once_and_idle, at_broker, count)) for _ in range(attackers)]
    for attacker in crowd:
        attacker.told(40.0)
    measure = register_seconds if at_broker else newcomer_seconds
    for number in range(3):
        checks.most(f"newcomer {number + 1} is served", measure(bound=5.0), BESIDE_IDLE_ONES_SECONDS, "s")


@scenario("ANewcomerToAListenerIsServedWhenIdleConnectionsHaveAllDescriptors")
def idle_at_the_listener(checks, stack):
    check_idle(checks, stack, False, 1)


@scenario("ANewcomerToAListenerIsServedWhenIdleConnectionsOfFourProcessesHaveAllDescriptors")
def idle_at_the_listener_by_many(checks, stack):
    check_idle(checks, stack, False, 4)


@scenario("ANewcomerToTheBrokerIsServedWhenIdleLinksHaveAllDescriptors")
def idle_at_the_broker(checks, stack):
    check_idle(checks, stack, True, 1)


if __name__ == "__main__":
    main()
