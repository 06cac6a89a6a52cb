#!/usr/bin/env python3
"""A listener that is stopped and whose backlog is full: those who wait for it cost their process nothing."""

import os
import signal
import socket

from support import measures, peers, processes
from support.scenarios import main, newcomer_seconds, scenario

WAITING = 200
IDLE_LOAD = 0.1
READY_SECONDS = 5.0


def fill_backlog(tell):
    """As many connections as the kernel keeps for a listener that accepts none."""
    endpoint = peers.look_up("victim")
    held = []
    while True:
        stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        stream.setblocking(False)
        held.append(stream)
        try:
            stream.connect(f"/proc/self/fd/{endpoint.handle}")
        except BlockingIOError:
            break
    tell(str(len(held)))
    return held


@scenario("ManyThatWaitForAStoppedListenerCostTheirProcessNothing")
def waiting_for_a_stopped_listener(checks, stack):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim(descriptors=20_000))
    newcomer_seconds()
    os.kill(victim.pid, signal.SIGSTOP)
    attacker = stack.enter_context(processes.Attacker(fill_backlog))
    attacker.told()
    crowd = stack.enter_context(processes.victim("crowd", "victim", WAITING))
    crowd.expect("connecting")
    measures.seconds_until(lambda: crowd.figures()["found"] == WAITING, 10.0)
    checks.equal("clients that have found the listener", crowd.figures()["found"], WAITING)
    checks.equal("of them ready", crowd.figures()["ready"], 0)
    checks.most("processors that they keep busy", measures.load(crowd.pid, 4.0), IDLE_LOAD)
    attacker.kill()
    os.kill(victim.pid, signal.SIGCONT)
    seconds = measures.seconds_until(lambda: crowd.figures()["ready"] == WAITING, READY_SECONDS + 1)
    checks.most("all are ready once the listener goes on", seconds, READY_SECONDS, "s")


if __name__ == "__main__":
    main()
