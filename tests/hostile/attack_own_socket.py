#!/usr/bin/env python3
"""A peer hands its own end of the connection over as a descriptor, and dies: the stream never ends by itself.

The kernel keeps a stream open as long as anybody holds its other end, the victim included. What the dead peer had must
come back all the same, and whoever waits for it must be freed.
"""

import os
import signal
import time

from support import measures, peers, processes, wire
from support.scenarios import NEVER, main, newcomer_seconds, register_seconds, scenario

BACK_SECONDS = 2.0
# What a process may keep for itself after its first use.
SPARE_DESCRIPTORS = 8
CONNECTIONS = 400
WAITERS = 100
HALF_FRAME_SECONDS = 10.0
SLACK_SECONDS = 3.0


def half_of(kind, descriptors):
    """A header and the first bytes of a body that never comes whole."""
    return wire.header(kind, 4096, descriptors) + b"\x01"


def connect_often(tell, count, mischief):
    """Many connections of one process, each up to mischief."""
    endpoint = peers.look_up("victim")
    held = []
    for number in range(count):
        try:
            peer = endpoint.connect(2.0)
            peer.introduce()
            held.append(peer)
            mischief(peer)
        except peers.DEFENDED:
            continue
    tell()
    return held


def send_half_frame_with_itself(peer):
    peer.wait_until_ready()
    own = peer.stream.fileno()
    peer.send(half_of(wire.CALL, 2), [own, own])


def wait_behind_busy_delegate_with_itself(peer):
    peer.send(wire.message(peer.number(), {"do": "gate"}))
    for _ in range(3):
        own = [peer.stream.fileno()]
        peer.send(wire.message(peer.number(), {"do": "answer"}, descriptors=1), own)


def check_back_after_death(checks, victim, before, attacker):
    held = measures.descriptors(victim.pid)
    print(f"   held while the peer lives: {held}, before it came: {before}", flush=True)
    attacker.kill()
    seconds = measures.seconds_until(
        lambda: measures.descriptors(victim.pid) <= before + SPARE_DESCRIPTORS, BACK_SECONDS + 1
    )
    checks.most("descriptors come back after the peer's death", seconds, BACK_SECONDS, "s")
    checks.most("descriptors then", measures.descriptors(victim.pid), before + SPARE_DESCRIPTORS)


def prepared_listener(stack, descriptors=1024):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim(descriptors=descriptors))
    newcomer_seconds()
    return victim, measures.descriptors(victim.pid)


@scenario("AListenerForgetsThoseThatDiedWithTheirOwnSocketInHalfAFrame")
def half_frames_at_the_listener(checks, stack):
    victim, before = prepared_listener(stack)
    attacker = stack.enter_context(processes.Attacker(connect_often, CONNECTIONS, send_half_frame_with_itself))
    attacker.told()
    check_back_after_death(checks, victim, before, attacker)
    checks.most("a newcomer's first reply afterwards", newcomer_seconds(bound=5.0), BACK_SECONDS, "s")
    seconds = measures.seconds_until(lambda: victim.figures()["connections"] == 0, BACK_SECONDS + 1)
    checks.most("the listener's table is empty after that", seconds, BACK_SECONDS, "s")


@scenario("AListenerForgetsThoseThatDiedWithTheirOwnSocketBehindABusyDelegate")
def calls_behind_a_busy_delegate(checks, stack):
    victim, before = prepared_listener(stack)
    attacker = stack.enter_context(processes.Attacker(connect_often, 60, wait_behind_busy_delegate_with_itself))
    attacker.told()
    measures.seconds_until(lambda: victim.figures()["inside"] >= 60, 5.0)
    check_back_after_death(checks, victim, before, attacker)
    checks.equal("callbacks still inside", victim.figures()["inside"], 60)
    checks.most("a newcomer's first reply meanwhile", newcomer_seconds(bound=5.0), BACK_SECONDS, "s")
    victim.ask("open")
    seconds = measures.seconds_until(lambda: victim.figures()["connections"] == 0, 5.0)
    checks.most("the listener's table is empty once the delegate is free", seconds, BACK_SECONDS, "s")


def answer_with_half_reply(tell, count):
    endpoint = peers.look_up("victim")
    held = []
    for _ in range(count):
        peer = endpoint.connect()
        peer.introduce()
        peer.wait_until_ready()
        held.append(peer)
    tell("connected")
    for peer in held:
        peer.next_of(wire.CALL)
        own = peer.stream.fileno()
        peer.send(half_of(wire.REPLY, 2), [own, own])
    tell("answered")
    return held


@scenario("WaitersOfAListenerAreFreedWhenTheirPeerDiesWithItsOwnSocketInHalfAReply")
def half_replies_at_the_listener(checks, stack):
    victim, before = prepared_listener(stack)
    attacker = stack.enter_context(processes.Attacker(answer_with_half_reply, WAITERS))
    attacker.told()
    measures.seconds_until(lambda: victim.figures()["ready"] > WAITERS, 5.0)
    victim.ask(f"waiters {2 * WAITERS} -1 keep")
    attacker.told()
    checks.least("waiters while the peer lives", victim.figures()["waiting"], WAITERS)
    check_back_after_death(checks, victim, before, attacker)
    seconds = measures.seconds_until(lambda: victim.figures()["waiting"] == 0, BACK_SECONDS)
    checks.most("every waiter is freed after that", seconds, BACK_SECONDS, "s")
    checks.equal("waiters stranded", victim.figures()["waiting"], 0)


def register_and_hide(tell, links, names_of_each):
    """Registers names, then gives the broker the only ends that would tell that their listener is gone."""
    registered = []
    for number in range(links):
        try:
            link = peers.broker_link(2.0)
            listener = peers.RawListener()
            registered.append((link, listener))
            for name in range(names_of_each):
                listener.register(f"hidden-{number}-{name}", link)
            peers.look_up("nobody", link=link)  # once it is answered, all before it has been read
        except peers.DEFENDED:
            continue
    tell("registered")
    signal.sigwait([signal.SIGUSR1])
    for link, listener in registered:
        ends = [link.stream.fileno(), listener.stream.fileno(), listener.kept_end]
        try:
            link.send(half_of(wire.CALL, len(ends)), ends)
        except peers.DEFENDED:
            continue
    tell("hidden")
    return registered


def names_found(links, names_of_each):
    with peers.broker_link() as link:
        return sum(
            endpoint is not None and not endpoint.close()
            for endpoint in (
                peers.look_up(f"hidden-{number}-{name}", link=link)
                for number in range(links)
                for name in range(0, names_of_each, 16)
            )
        )


def check_broker_recovers(checks, stack, links, names_of_each):
    broker = stack.enter_context(processes.broker(descriptors=2048))
    stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    before = measures.descriptors(broker.pid)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    attacker = stack.enter_context(processes.Attacker(register_and_hide, links, names_of_each))
    attacker.told()
    checks.least("names registered while the peer lives", names_found(links, names_of_each), 1)
    os.kill(attacker.pid, signal.SIGUSR1)
    attacker.told()
    check_back_after_death(checks, broker, before, attacker)
    seconds = measures.seconds_until(lambda: names_found(links, names_of_each) == 0, BACK_SECONDS)
    checks.most("the dead peer's names are gone after that", seconds, BACK_SECONDS, "s")
    checks.most("another registers and is found", register_seconds(bound=5.0), 1.0, "s")


@scenario("TheBrokerForgetsLinksAndNamesOfAPeerThatDiedWithItsOwnEndsInHalfAFrame")
def half_frames_at_the_broker(checks, stack):
    check_broker_recovers(checks, stack, links=290, names_of_each=1)


@scenario("TheBrokerForgetsManyNamesOfAPeerThatDiedWithItsOwnEndsInHalfAFrame")
def many_names_at_the_broker(checks, stack):
    check_broker_recovers(checks, stack, links=8, names_of_each=64)


def hide_names_at_a_listener(tell):
    """The ends that would tell are kept by a third process, which has done nothing."""
    link = peers.broker_link()
    listener = peers.RawListener()
    for name in range(64):
        listener.register(f"hidden-0-{name}", link)
    peers.look_up("nobody", link=link)
    host = peers.look_up("victim").connect()
    host.introduce()
    host.wait_until_ready()
    ends = [host.stream.fileno(), link.stream.fileno(), listener.stream.fileno(), listener.kept_end]
    host.send(half_of(wire.CALL, len(ends)), ends)
    tell()
    return link, listener, host


@scenario("TheBrokerForgetsNamesOfADeadPeerWhoseEndsAreHeldByAnotherProcess")
def names_hidden_at_a_listener(checks, stack):
    broker = stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    before = measures.descriptors(broker.pid)
    attacker = stack.enter_context(processes.Attacker(hide_names_at_a_listener))
    attacker.told()
    checks.least("names registered while the peer lives", names_found(1, 64), 4)
    check_back_after_death(checks, broker, before, attacker)
    checks.equal("names of the dead peer", names_found(1, 64), 0)


def serve_and_hide(tell, hide, clients):
    """A listener that makes clients ready, takes their messages, and hides the ends that it has of them."""
    link = peers.broker_link()
    listener = peers.RawListener()
    listener.register("hostile", link)
    peers.look_up("nobody", link=link)
    tell("registered")
    accepted = [peers.accept_client(listener) for _ in range(clients)]
    ends = [listener.stream.fileno(), listener.kept_end, link.stream.fileno()]
    ends += [peer.stream.fileno() for peer in accepted]
    host = hide(ends)
    for peer in accepted:
        while peer.next_of(wire.CALL)[1][1] != wire.MESSAGE:
            continue
    tell("asked")
    return link, listener, accepted, host


def hide_at_the_broker(ends):
    host = peers.broker_link()
    ends = [*ends, host.stream.fileno()]
    host.send(half_of(wire.CALL, len(ends)), ends)
    return host


def hide_at_a_listener(ends):
    host = peers.look_up("victim").connect()
    host.introduce()
    host.wait_until_ready()
    ends = [*ends, host.stream.fileno()]
    host.send(half_of(wire.CALL, len(ends)), ends)
    return host


def hide_at_the_client_itself(ends):
    """Nothing beyond what serve_and_hide does: each client is sent its own other end."""
    return None


def check_clients_are_freed(checks, stack, hide, clients=4):
    stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    attacker = stack.enter_context(processes.Attacker(serve_and_hide, hide, clients))
    attacker.told()
    victims = [stack.enter_context(processes.client_victim("hostile")) for _ in range(clients)]
    for victim in victims:
        victim.expect("ready")
    before = [measures.descriptors(victim.pid) for victim in victims]
    for victim in victims:
        victim.ask("waiters 5 -1 keep")
        victim.ask("waiters 5 30 keep")
    attacker.told()
    checks.equal("waiters while the listener lives", sum(each.figures()["waiting"] for each in victims), 10 * clients)
    attacker.kill()
    seconds = measures.seconds_until(
        lambda: all(each.figures()["waiting"] == 0 for each in victims), BACK_SECONDS + 1
    )
    checks.most("every waiter of a client is freed after the listener's death", seconds, BACK_SECONDS, "s")
    more = max(measures.descriptors(victim.pid) - count for victim, count in zip(victims, before))
    checks.most("descriptors that a client has more than before", more, 0)


@scenario("AClientIsFreedWhenItsListenerDiesAndTheBrokerHoldsItsSocket")
def client_of_a_listener_hidden_at_the_broker(checks, stack):
    check_clients_are_freed(checks, stack, hide_at_the_broker)


@scenario("AClientIsFreedWhenItsListenerDiesAndAnotherListenerHoldsItsSocket")
def client_of_a_listener_hidden_at_a_listener(checks, stack):
    check_clients_are_freed(checks, stack, hide_at_a_listener)


def serve_and_give_back(tell, clients):
    link = peers.broker_link()
    listener = peers.RawListener()
    listener.register("hostile", link)
    peers.look_up("nobody", link=link)
    tell("registered")
    accepted = [peers.accept_client(listener) for _ in range(clients)]
    for peer in accepted:
        while peer.next_of(wire.CALL)[1][1] != wire.MESSAGE:
            continue
        peer.send(half_of(wire.REPLY, 2), [peer.stream.fileno(), peer.stream.fileno()])
    tell("asked")
    return link, listener, accepted


@scenario("AClientIsFreedWhenItsListenerDiesAndItHoldsTheOtherEndItself")
def client_that_holds_both_ends(checks, stack):
    stack.enter_context(processes.broker())
    attacker = stack.enter_context(processes.Attacker(serve_and_give_back, 3))
    attacker.told()
    victims = [stack.enter_context(processes.client_victim("hostile")) for _ in range(3)]
    for victim in victims:
        victim.expect("ready")
        victim.ask("waiters 5 -1 keep")
    attacker.told()
    attacker.kill()
    seconds = measures.seconds_until(
        lambda: all(each.figures()["waiting"] == 0 for each in victims), BACK_SECONDS + 1
    )
    checks.most("every waiter of a client is freed after the listener's death", seconds, BACK_SECONDS, "s")


def leave_half_frame(tell, at_broker, with_descriptors):
    if at_broker:
        peer = peers.broker_link()
        peers.look_up("nobody", link=peer)
    else:
        peer = peers.look_up("victim").connect()
        peer.introduce()
        peer.wait_until_ready()
    own = [peer.stream.fileno()] * 2 if with_descriptors else []
    start = time.monotonic()
    peer.send(half_of(wire.CALL, len(own)), own)
    tell("sent")
    tell(str(time.monotonic() - start) if peer.is_cut_off_within(HALF_FRAME_SECONDS + SLACK_SECONDS + 1) else "never")
    return peer


@scenario("AHalfFrameOfALivingPeerIsGivenUpAfterItsTime")
def half_frames_of_living_peers(checks, stack):
    stack.enter_context(processes.broker())
    stack.enter_context(processes.listener_victim())
    ways = [(at_broker, with_descriptors) for at_broker in (False, True) for with_descriptors in (False, True)]
    attackers = [stack.enter_context(processes.Attacker(leave_half_frame, *way)) for way in ways]
    for attacker in attackers:
        attacker.told()
    for (at_broker, with_descriptors), attacker in zip(ways, attackers):
        word = attacker.told()
        seconds = NEVER if word == "never" else float(word)
        what = f"{'broker' if at_broker else 'listener'}, {'with' if with_descriptors else 'without'} descriptors"
        checks.most(f"cut off, {what}", seconds, HALF_FRAME_SECONDS + SLACK_SECONDS, "s")


if __name__ == "__main__":
    main()
