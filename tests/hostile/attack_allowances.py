#!/usr/bin/env python3
"""Names and links of the broker, taken by one process, or by few, until there are none left for others."""

import os

from support import measures, peers, processes
from support.scenarios import main, newcomer_seconds, register_seconds, scenario

OTHERS_SECONDS = 1.0
BACK_SECONDS = 3.0
NAMES_OF_A_LINK = 64
ALL_NAMES = 4096
ALL_LINKS = 16_384
ROUNDS = ALL_NAMES // NAMES_OF_A_LINK + 8


def register_link_by_link(tell, part, rounds):
    """As many names as a link may have, then the next link; the listener of them all lives on."""
    listener = peers.RawListener()
    for number in range(rounds):
        register_one_link(listener, part, number)
    tell("registered")
    return listener


def register_one_link(listener, part, number):
    try:
        with peers.broker_link(2.0) as link:
            for name in range(NAMES_OF_A_LINK):
                listener.register(f"taken-{part}-{number}-{name}", link)
            peers.look_up("nobody", link=link)
    except peers.DEFENDED:
        pass


def register_process_by_process(tell, rounds):
    """The same, but each link belongs to a process of its own, which ends."""
    listener = peers.RawListener()
    for number in range(rounds):
        child = os.fork()
        if child == 0:
            register_one_link(listener, "process", number)
            os._exit(0)
        os.waitpid(child, 0)
    tell("registered")
    return listener


def check_others(checks):
    for number in range(3):
        seconds = register_seconds(f"another-{number}", bound=4.0)
        checks.most(f"another registers and is found, {number + 1}", seconds, OTHERS_SECONDS, "s")
    checks.most("a newcomer finds a listener and is answered", newcomer_seconds(bound=4.0), OTHERS_SECONDS, "s")


def prepared_broker(stack):
    broker = stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    return broker, measures.descriptors(broker.pid)


def check_names(checks, stack, attackers):
    broker, before = prepared_broker(stack)
    crowd = attackers(stack)
    for attacker in crowd:
        attacker.told()
        check_others(checks)
    checks.least("descriptors of the broker while the names stand", measures.descriptors(broker.pid), before + 64)
    for attacker in crowd:
        attacker.kill()
    check_back(checks, broker, before)


def check_back(checks, broker, before):
    seconds = measures.seconds_until(lambda: measures.descriptors(broker.pid) <= before + 8, BACK_SECONDS + 1)
    checks.most("all that was taken comes back", seconds, BACK_SECONDS, "s")
    check_others(checks)


@scenario("OthersRegisterWhenOneProcessHasRegisteredLinkByLinkAllThatItMay")
def link_by_link(checks, stack):
    check_names(
        checks, stack, lambda stack: [stack.enter_context(processes.Attacker(register_link_by_link, 0, ROUNDS))]
    )


@scenario("OthersRegisterWhenSixProcessesHaveRegisteredLinkByLinkAllThatTheyMay")
def link_by_link_by_many(checks, stack):
    check_names(
        checks,
        stack,
        lambda stack: [
            stack.enter_context(processes.Attacker(register_link_by_link, part, ROUNDS)) for part in range(6)
        ],
    )


@scenario("OthersRegisterWhenProcessesThatEndHaveRegisteredForOneThatLives")
def process_by_process(checks, stack):
    check_names(
        checks, stack, lambda stack: [stack.enter_context(processes.Attacker(register_process_by_process, ROUNDS))]
    )


def idle_links(tell, count):
    held = []
    misses = 0
    for _ in range(count):
        try:
            held.append(peers.broker_link(0.05))
            peers.look_up("nobody", link=held[-1])
        except peers.DEFENDED:
            misses += 1
            if misses > 64:
                break
    tell(str(len(held)))
    return held


def check_links(checks, stack, attackers):
    broker, before = prepared_broker(stack)
    count = (ALL_LINKS + 200) // attackers
    crowd = [stack.enter_context(processes.Attacker(idle_links, count)) for _ in range(attackers)]
    for attacker in crowd:
        attacker.told(45.0)
    print(f"   descriptors of the broker: {measures.descriptors(broker.pid)}", flush=True)
    check_others(checks)
    for attacker in crowd:
        attacker.kill()
    check_back(checks, broker, before)


@scenario("OthersRegisterAndLookUpWhenOneProcessHasAllLinksThatItMay")
def links_of_one(checks, stack):
    check_links(checks, stack, 1)


@scenario("OthersRegisterAndLookUpWhenFourProcessesHaveAllLinksThatTheyMay")
def links_of_many(checks, stack):
    check_links(checks, stack, 4)


if __name__ == "__main__":
    main()
