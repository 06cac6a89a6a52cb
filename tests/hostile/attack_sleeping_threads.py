#!/usr/bin/env python3
"""Clients whose messages put every thread of a listener's process to sleep, and then die.

The ends of these connections are what would wake the sleepers, so they must be heard without a thread to spare; nothing
may spin meanwhile, and a new client is served soon after.
"""

import os
import resource
import signal

from support import measures, peers, processes, wire
from support.scenarios import main, newcomer_seconds, scenario

NEWCOMER_SECONDS = 5.0
DESCRIPTORS_BACK_SECONDS = 3.0
IDLE_LOAD = 0.1
MOST_WORKERS = 512
CLIENTS_OF_ONE_PROCESS = 128
# Stacks so large that the address space has room for few of them: the kernel refuses further threads.
STACK_BYTES = 1 << 30
STACKS = 48


def send_each(tell, count, order):
    """So many clients, each with one message that its peer will be busy with; none before all are ready."""
    endpoint = peers.look_up("victim")
    held = []
    for _ in range(count):
        try:
            peer = endpoint.connect(5.0)
            peer.introduce()
            held.append((peer, peer.wait_until_ready()))
        except peers.DEFENDED:
            continue
    tell("ready")
    signal.sigwait([signal.SIGUSR1])
    for peer, own in held:
        peer.send(wire.message(peer.number(), {"do": order}, from_connection=own))
    tell("sent")
    return held


def attack(stack, count, order):
    """From several processes, as clients are."""
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    shares = [CLIENTS_OF_ONE_PROCESS] * (count // CLIENTS_OF_ONE_PROCESS) + [count % CLIENTS_OF_ONE_PROCESS]
    attackers = [stack.enter_context(processes.Attacker(send_each, share, order)) for share in shares if share]
    for attacker in attackers:
        attacker.told()
    for attacker in attackers:
        os.kill(attacker.pid, signal.SIGUSR1)
    for attacker in attackers:
        attacker.told()
    return attackers


def kill(attackers):
    for attacker in attackers:
        attacker.kill()


def put_to_sleep(checks, stack, count, order, least, **limits):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim(**limits))
    newcomer_seconds()
    before = measures.descriptors(victim.pid), measures.threads(victim.pid)
    attackers = attack(stack, count, order)
    measures.seconds_until(lambda: victim.figures()["inside"] >= least, 20.0)
    checks.least("callbacks asleep", victim.figures()["inside"], least)
    print(f"   threads: {measures.threads(victim.pid)}, descriptors: {measures.descriptors(victim.pid)}", flush=True)
    checks.most("processors kept busy meanwhile", measures.load(victim.pid, 1.5), IDLE_LOAD)
    return victim, attackers, before


def check_recovery(checks, victim, before):
    descriptors, threads = before
    checks.most("a new client's first reply", newcomer_seconds(bound=10.0), NEWCOMER_SECONDS, "s")
    seconds = measures.seconds_until(lambda: measures.threads(victim.pid) <= threads + 8, 10.0)
    checks.most("the threads come down", seconds, 5.0, "s")
    seconds = measures.seconds_until(lambda: victim.figures()["connections"] == 0, 10.0)
    checks.most("the listener's table is empty", seconds, 5.0, "s")
    checks.most("threads then", measures.threads(victim.pid), threads + 8)
    checks.most("descriptors then", measures.descriptors(victim.pid), descriptors + 8)
    checks.equal("callbacks still inside", victim.figures()["inside"], 0)
    checks.most("processors kept busy afterwards", measures.load(victim.pid, 1.5), IDLE_LOAD)


def check_send_back(checks, stack, count):
    least = min(count, MOST_WORKERS - 16)
    victim, attackers, before = put_to_sleep(checks, stack, count, "back", least)
    kill(attackers)
    check_recovery(checks, victim, before)


@scenario("AListenerServesAgainAfter511ThatItSendsBackToWithoutATimeOutHaveDied")
def as_many_as_there_are_threads(checks, stack):
    check_send_back(checks, stack, 511)


@scenario("AListenerServesAgainAfter600ThatItSendsBackToWithoutATimeOutHaveDied")
def more_than_there_are_threads(checks, stack):
    check_send_back(checks, stack, 600)


@scenario("AListenerServesAgainAfter1500ThatItSendsBackToWithoutATimeOutHaveDied")
def many_more_than_there_are_threads(checks, stack):
    check_send_back(checks, stack, 1500)


def check_held_up(checks, stack, count, order):
    """Nobody can end callbacks that are blocked; but what their peers held comes back, and nothing spins."""
    least = min(count, MOST_WORKERS - 16)
    victim, attackers, before = put_to_sleep(checks, stack, count, order, least)
    kill(attackers)
    seconds = measures.seconds_until(lambda: measures.descriptors(victim.pid) <= before[0] + 8, 10.0)
    checks.most("descriptors come back while the callbacks are blocked", seconds, DESCRIPTORS_BACK_SECONDS, "s")
    checks.most("processors kept busy after the death", measures.load(victim.pid, 1.5), IDLE_LOAD)
    victim.ask("open")
    check_recovery(checks, victim, before)


@scenario("AListenerHearsTheEndsOf600WhoseCallbacksAreAllBlocked")
def all_blocked(checks, stack):
    check_held_up(checks, stack, 600, "gate")


@scenario("AListenerHearsTheEndsOf600WhoseCallbacksAllSleepInAConditionOfTheirOwn")
def all_in_a_condition(checks, stack):
    check_held_up(checks, stack, 600, "condition")


def refuse_threads():
    resource.setrlimit(resource.RLIMIT_STACK, (STACK_BYTES, STACK_BYTES))
    resource.setrlimit(resource.RLIMIT_AS, (STACK_BYTES * STACKS, STACK_BYTES * STACKS))


@scenario("AListenerThatTheKernelRefusesThreadsServesAgainAndSaysSoOnce")
def threads_refused(checks, stack):
    victim, attackers, before = put_to_sleep(checks, stack, 200, "back", STACKS // 2, prepare=refuse_threads)
    checks.most("threads", measures.threads(victim.pid), STACKS)
    kill(attackers)
    check_recovery(checks, victim, before)
    lines = [line for line in victim.log_lines() if "thread" in line]
    checks.most("lines in the log about threads", len(lines), 3)
    checks.least("lines in the log about threads", len(lines), 1)


if __name__ == "__main__":
    main()
