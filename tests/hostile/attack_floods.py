#!/usr/bin/env python3
"""Frames that cost their sender nothing, as fast as they are taken, on more connections than there are spare threads.

Whoever else comes has to be served in time, at a listener and at the broker.
"""

import time

from support import floods, peers, processes, wire
from support.scenarios import NEVER, main, newcomer_seconds, register_seconds, scenario

NEWCOMER_SECONDS = 1.0
WATCH_SECONDS = 2.5
CUT_OFF_SECONDS = 2.0

CREDIT_FOR_NOTHING = floods.Repeated(wire.frame(wire.CREDIT, 0, 0))
UNKNOWN_METHOD = floods.calls("nonsense:", False, "x")
UNKNOWN_METHOD_WITH_REPLY = floods.calls("nonsense:", True, "x")
REFUSED_ARGUMENT = floods.calls(wire.MESSAGE, True, ["not", "a", "string"], {})
DROPPED_REPLY = floods.calls(wire.MESSAGE, True, "raw", {})
CALL_WITHOUT_REPLY = floods.calls(wire.MESSAGE, False, "raw", {})
PING = floods.calls("ping", False)
ANSWERED = floods.calls(wire.MESSAGE, True, "raw", {"do": "answer"})
LOOK_UP = floods.calls(wire.LOOK_UP, True, "victim")
DROP = floods.calls("killListenerConnection:", False, "nobody")
REFUSED_LOOK_UP = floods.calls(wire.LOOK_UP, True, 5)


def flood_listener(tell, count, blocks):
    floods.flood(tell, floods.listener_connection(), count, blocks)


def flood_broker(tell, count, blocks):
    floods.flood(tell, floods.link, count, blocks)


def worst(measure):
    """Of several tries, one behind the other, over some time."""
    longest, end = 0.0, time.monotonic() + WATCH_SECONDS
    while longest != NEVER and time.monotonic() < end:
        longest = max(longest, measure())
        time.sleep(0.05)
    return longest


def check_newcomers(checks, stack, what, attack, count, blocks, attackers, measure):
    blocks.prepare()
    with processes.Attacker(attack, count // attackers, blocks) as first:
        others = [
            stack.enter_context(processes.Attacker(attack, count // attackers, blocks)) for _ in range(attackers - 1)
        ]
        for attacker in [first, *others]:
            attacker.told()
        checks.most(f"the longest that a newcomer waits, {what}", worst(measure), NEWCOMER_SECONDS, "s")
        for attacker in others:
            attacker.kill()


def check_listener(checks, stack, floods_by_name, count, attackers=1):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    for what, blocks in floods_by_name.items():
        check_newcomers(
            checks, stack, what, flood_listener, count, blocks, attackers, lambda: newcomer_seconds(bound=5.0)
        )
    checks.equal("the victim lives", victim.is_alive(), True)


def check_broker(checks, stack, floods_by_name, count, attackers=1):
    broker = stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    for what, blocks in floods_by_name.items():
        check_newcomers(
            checks, stack, what, flood_broker, count, blocks, attackers, lambda: register_seconds(bound=5.0)
        )
    checks.equal("the broker lives", broker.is_alive(), True)


@scenario("ANewcomerToAListenerIsServedWhile32FloodItWithCredit")
def credit_at_the_listener(checks, stack):
    check_listener(checks, stack, {"credit for nothing": CREDIT_FOR_NOTHING}, 32, attackers=32)


@scenario("ANewcomerToAListenerIsServedWhile32FloodItWithCalls")
def calls_at_the_listener(checks, stack):
    check_listener(
        checks,
        stack,
        {"dropped replies": DROPPED_REPLY, "no reply": CALL_WITHOUT_REPLY, "pings": PING, "answered": ANSWERED},
        32,
        attackers=8,
    )


@scenario("ANewcomerToAListenerIsServedWhile600FloodItWithCalls")
def many_with_calls_at_the_listener(checks, stack):
    check_listener(checks, stack, {"dropped replies": DROPPED_REPLY, "a refused argument": REFUSED_ARGUMENT}, 600)


@scenario("ANewcomerToAListenerIsServedWhile600FloodItWithWhatIsRefused")
def many_at_the_listener(checks, stack):
    check_listener(checks, stack, {"credit for nothing": CREDIT_FOR_NOTHING, "no such method": UNKNOWN_METHOD}, 600)


@scenario("ANewcomerToAListenerIsServedWhile4ProcessesFloodIt")
def several_processes_at_the_listener(checks, stack):
    floods_by_name = {
        "credit for nothing": CREDIT_FOR_NOTHING,
        "no such method": UNKNOWN_METHOD_WITH_REPLY,
        "answered": ANSWERED,
    }
    check_listener(checks, stack, floods_by_name, 128, attackers=4)


@scenario("ANewcomerToTheBrokerIsServedWhile32FloodItWithCredit")
def credit_at_the_broker(checks, stack):
    check_broker(checks, stack, {"credit for nothing": CREDIT_FOR_NOTHING}, 32, attackers=32)


@scenario("ANewcomerToTheBrokerIsServedWhile600FloodIt")
def many_at_the_broker(checks, stack):
    floods_by_name = {
        "credit for nothing": CREDIT_FOR_NOTHING,
        "names to drop": DROP,
        "look-ups": LOOK_UP,
        "refused look-ups": REFUSED_LOOK_UP,
    }
    check_broker(checks, stack, floods_by_name, 600)


def give_credit_for_nothing(tell, at_broker, frames):
    peer = peers.broker_link() if at_broker else floods.listener_connection()()
    if not at_broker:
        peer.stream.settimeout(10.0)
        peer.wait_until_ready()
    peer.send(frames)
    tell(str(peer.is_cut_off_within(CUT_OFF_SECONDS)))
    return peer


@scenario("CreditForNothingEndsTheConnection")
def credit_for_nothing(checks, stack):
    stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    for at_broker in (False, True):
        attacker = stack.enter_context(
            processes.Attacker(give_credit_for_nothing, at_broker, wire.frame(wire.CREDIT, 0, 0))
        )
        checks.equal(f"cut off by the {'broker' if at_broker else 'listener'}", attacker.told(), "True")
    checks.most("a newcomer's first reply", newcomer_seconds(bound=5.0), NEWCOMER_SECONDS, "s")


if __name__ == "__main__":
    main()
