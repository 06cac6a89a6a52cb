#!/usr/bin/env python3
"""Clients that go at the very moment at which they become ready, as often as fits into some seconds.

What is kept of a connection goes with it: nothing stays that could still be sent to.
"""

import random
import time

from support import peers, processes
from support.scenarios import main, newcomer_seconds, scenario

PAUSE_MILLISECONDS = 4
AT_ONCE = 48
ATTACK_SECONDS = 15.0
SETTLE_SECONDS = 20.0
PROCESSES = 2


def come_and_go(tell, seconds, random_seed):
    """Each stays about as long as the delegate takes to hear that it is ready."""
    chance = random.Random(random_seed)
    endpoint = peers.look_up("victim")
    rounds = 0
    end = time.monotonic() + seconds
    leaving = []
    while time.monotonic() < end:
        while len(leaving) < AT_ONCE:
            try:
                peer = endpoint.connect(5.0)
                peer.introduce()
                stay = PAUSE_MILLISECONDS * chance.uniform(0.6, 1.6) / 1000
                leaving.append((time.monotonic() + stay, peer))
                rounds += 1
            except peers.DEFENDED:
                continue
        now = time.monotonic()
        for when, peer in leaving:
            if when <= now:
                peer.close()
        leaving = [entry for entry in leaving if entry[0] > now]
    for _, peer in leaving:
        peer.close()
    tell(str(rounds))


def settled(victim):
    """The figures once nobody comes any more: the kernel still had some waiting."""
    end = time.monotonic() + SETTLE_SECONDS
    before, figures = None, victim.figures()
    while time.monotonic() < end and (before != figures or figures["connections"]):
        time.sleep(1.0)
        before, figures = figures, victim.figures()
    return figures


@scenario("NothingStaysOfClientsThatGoWhileTheyBecomeReady")
def goings_at_the_moment_of_readiness(checks, stack):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim(ready_pause=PAUSE_MILLISECONDS))
    newcomer_seconds()
    crowd = [stack.enter_context(processes.Attacker(come_and_go, ATTACK_SECONDS, seed)) for seed in range(PROCESSES)]
    rounds = sum(int(attacker.told(50.0)) for attacker in crowd)
    checks.least("clients that came and went", rounds, 1000)
    figures = settled(victim)
    for table in ("connections", "conditions", "proxies"):
        checks.equal(f"entries that stay in the table of {table}", figures[table], 0)
    checks.equal("identifiers of the dead that can be sent to", victim.ask("reachable"), "reachable=0")


if __name__ == "__main__":
    main()
