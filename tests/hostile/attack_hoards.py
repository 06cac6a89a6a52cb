#!/usr/bin/env python3
"""Many connections that each make a process keep what one may: descriptors, undelivered calls, half frames, replies.

What they hold together is bounded, others go on, and all comes back when they die, whatever the callbacks are doing.
"""

import os

from support import hoards, measures, peers, processes, wire
from support.scenarios import main, newcomer_seconds, register_seconds, scenario

NEWCOMER_SECONDS = 3.0
BACK_SECONDS = 3.0
SMALL_ONES_SECONDS = 3.0
DESCRIPTOR_LIMIT = 4096
# What all attackers together may take of them.
MOST_OF_THE_LIMIT = 3 * DESCRIPTOR_LIMIT // 4
SPARE_DESCRIPTORS = 8
MOST_MEBIBYTES = float(os.environ.get("VELTO_HOSTILE_MOST_MEBIBYTES", "768"))
# What a process may keep of memory that it has given back to itself.
SPARE_MEBIBYTES = 96.0
MEBIBYTE = 1 << 20


def listener_connections():
    endpoint = peers.look_up("victim")

    def connect():
        peer = endpoint.connect(2.0)
        peer.introduce()
        peer.wait_until_ready()
        return peer

    return connect


def broker_connections():
    def connect():
        link = peers.broker_link(2.0)
        peers.look_up("nobody", link=link)
        return link

    return connect


def attack(tell, connections, count, load_of, seconds):
    hoards.hoard(tell, connections(), count, load_of, seconds)


# What one connection can hand over.


def calls_with_descriptors(peer):
    """A call that keeps the delegate busy, and behind it calls with descriptors that none of their values names."""
    null = [os.open("/dev/null", os.O_RDONLY)] * wire.MAXIMUM_DESCRIPTORS
    yield wire.message(peer.number(), {"do": "gate"}), []
    for _ in range(100):
        yield wire.message(peer.number(), {"do": "answer"}, descriptors=len(null)), null


def calls_with_endpoints(peer):
    """The same, but each call has values for its descriptors, which its method does not admit."""
    listener = peers.RawListener()
    yield wire.message(peer.number(), {"do": "gate"}), []
    for _ in range(100):
        yield wire.message(peer.number(), {"do": "answer", "endpoint": wire.endpoint()}, descriptors=2), [
            listener.handle,
            listener.hang_up,
        ]


def half_frame_with_descriptors(peer):
    """At first as many as a frame may have, then few: they fit where many no longer do."""
    count = wire.MAXIMUM_DESCRIPTORS if peer.place < DESCRIPTOR_LIMIT // wire.MAXIMUM_DESCRIPTORS else 1
    null = [os.open("/dev/null", os.O_RDONLY)] * count
    yield wire.header(wire.CALL, 4096, len(null)) + b"\x01", null


def half_frame_of_the_greatest_size(peer):
    yield wire.header(wire.CALL, wire.MAXIMUM_FRAME_BYTES) + bytes(wire.MAXIMUM_FRAME_BYTES - 1), []


_payload = wire.cbor.encode(bytes(4 * MEBIBYTE - 256))


def undelivered_calls(peer):
    """As many bytes as the credit allows, behind a busy delegate."""
    yield wire.message(peer.number(), {"do": "gate"}), []
    data = wire.cbor.Raw(_payload)
    for _ in range(7):
        yield wire.message(peer.number(), {"do": "keep", "data": data}), []


def undelivered_swarms(peer):
    """As many objects as a call may hold, each far larger than the byte that it comes in."""
    yield wire.message(peer.number(), {"do": "gate"}), []
    swarm = wire.cbor.Raw(wire.cbor.head(4, 2_000_000) + b"\x80" * 2_000_000)
    for _ in range(8):
        yield wire.message(peer.number(), {"do": "keep", "data": swarm}), []


def replies_that_are_not_read(peer):
    for _ in range(16):
        yield wire.message(peer.number(), {"do": "big", "bytes": 8 * MEBIBYTE}), []


class SmallOne:
    """An honest client that was there before, and asks for little."""

    def __init__(self, stack):
        self.endpoint = peers.look_up("victim")
        self.peer = stack.enter_context(self.endpoint.connect(20.0))
        self.peer.introduce()
        self.peer.wait_until_ready()

    def is_answered(self):
        return self.peer.ask({"do": "answer"})[0] == wire.REPLY

    def seconds(self):
        try:
            return measures.seconds_until(self.is_answered, SMALL_ONES_SECONDS)
        except peers.DEFENDED:
            return float("inf")


class Hoarding:
    """The victim, those who attack it, and what was before they came."""

    def __init__(self, checks, stack, at_broker, descriptors=DESCRIPTOR_LIMIT):
        self.checks = checks
        self.stack = stack
        self.at_broker = at_broker
        broker = stack.enter_context(processes.broker(descriptors=descriptors))
        listener = stack.enter_context(processes.listener_victim(descriptors=descriptors))
        self.victim = broker if at_broker else listener
        newcomer_seconds()
        self.small_one = None if at_broker else SmallOne(stack)
        self.descriptors = measures.descriptors(self.victim.pid)
        self.mebibytes = measures.resident_mebibytes(self.victim.pid)

    def attack(self, count, load_of, processes_count=1, seconds=6.0):
        connections = broker_connections if self.at_broker else listener_connections
        self.attackers = [
            self.stack.enter_context(
                processes.Attacker(attack, connections, count // processes_count, load_of, seconds)
            )
            for _ in range(processes_count)
        ]
        self.highest_descriptors = measures.Highest(lambda: measures.descriptors(self.victim.pid))
        self.highest_mebibytes = measures.Highest(lambda: measures.resident_mebibytes(self.victim.pid))
        for attacker in self.attackers:
            while not attacker.has_told():
                self.highest_descriptors.look()
                self.highest_mebibytes.watch(0.05)
            attacker.told()
        self.highest_descriptors.watch(0.5)
        self.highest_mebibytes.watch(0.5)

    def check_others(self):
        if self.at_broker:
            self.checks.most("another registers and is found", register_seconds(bound=8.0), NEWCOMER_SECONDS, "s")
        else:
            self.checks.most("a newcomer's first reply", newcomer_seconds(bound=8.0), NEWCOMER_SECONDS, "s")
            self.checks.most("a small one's reply", self.small_one.seconds(), SMALL_ONES_SECONDS, "s")

    def check_descriptors(self):
        self.checks.most("descriptors at the worst", self.highest_descriptors.look(), MOST_OF_THE_LIMIT)

    def check_memory(self):
        self.checks.most("resident memory at the worst", self.highest_mebibytes.look(), MOST_MEBIBYTES, "MiB")

    def kill(self):
        for attacker in self.attackers:
            attacker.kill()

    def check_back(self):
        seconds = measures.seconds_until(
            lambda: measures.descriptors(self.victim.pid) <= self.descriptors + SPARE_DESCRIPTORS, BACK_SECONDS + 1
        )
        self.checks.most("descriptors come back after the death", seconds, BACK_SECONDS, "s")
        allowed = self.mebibytes + SPARE_MEBIBYTES
        seconds = measures.seconds_until(
            lambda: measures.resident_mebibytes(self.victim.pid) <= allowed, BACK_SECONDS + 1
        )
        self.checks.most("memory comes back after the death", seconds, BACK_SECONDS, "s")
        self.checks.most("resident memory then", measures.resident_mebibytes(self.victim.pid), allowed, "MiB")


def check_descriptor_hoard(checks, stack, at_broker, count, load_of, processes_count=1):
    hoarding = Hoarding(checks, stack, at_broker)
    hoarding.attack(count, load_of, processes_count, seconds=2.0)
    hoarding.check_descriptors()
    hoarding.check_others()
    hoarding.kill()
    hoarding.check_back()


def check_memory_hoard(checks, stack, at_broker, count, load_of, processes_count=1):
    hoarding = Hoarding(checks, stack, at_broker)
    hoarding.attack(count, load_of, processes_count)
    hoarding.check_memory()
    hoarding.check_others()
    hoarding.kill()
    hoarding.check_back()


@scenario("DescriptorsOfCallsBehindABusyDelegateLeaveRoomForOthersAndComeBack")
def descriptors_of_one_connection(checks, stack):
    check_descriptor_hoard(checks, stack, False, 1, calls_with_descriptors)


@scenario("DescriptorsOfManyConnectionsBehindABusyDelegateLeaveRoomForOthersAndComeBack")
def descriptors_of_many_connections(checks, stack):
    check_descriptor_hoard(checks, stack, False, 40, calls_with_descriptors, 4)


@scenario("EndpointsInCallsBehindABusyDelegateLeaveRoomForOthersAndComeBack")
def endpoints_of_many_connections(checks, stack):
    check_descriptor_hoard(checks, stack, False, 40, calls_with_endpoints)


@scenario("DescriptorsOfHalfFramesAtAListenerLeaveRoomForOthersAndComeBack")
def descriptors_of_half_frames_at_the_listener(checks, stack):
    check_descriptor_hoard(checks, stack, False, 160, half_frame_with_descriptors)


@scenario("DescriptorsOfHalfFramesAtTheBrokerLeaveRoomForOthersAndComeBack")
def descriptors_of_half_frames_at_the_broker(checks, stack):
    check_descriptor_hoard(checks, stack, True, 160, half_frame_with_descriptors)


@scenario("DescriptorsOfHalfFramesOfFourProcessesAtTheBrokerLeaveRoomForOthersAndComeBack")
def descriptors_of_half_frames_of_many_processes(checks, stack):
    check_descriptor_hoard(checks, stack, True, 480, half_frame_with_descriptors, 4)


@scenario("UndeliveredCallsOfManyConnectionsAreBoundedInAllAndGivenBack")
def undelivered_calls_of_many(checks, stack):
    check_memory_hoard(checks, stack, False, 40, undelivered_calls)


@scenario("UndeliveredCallsOfFourProcessesAreBoundedInAllAndGivenBack")
def undelivered_calls_of_many_processes(checks, stack):
    check_memory_hoard(checks, stack, False, 40, undelivered_calls, 4)


@scenario("UndeliveredSwarmsOfObjectsAreBoundedInAllAndGivenBack")
def undelivered_swarms_of_many(checks, stack):
    check_memory_hoard(checks, stack, False, 12, undelivered_swarms)


@scenario("HalfFramesOfManyConnectionsToAListenerAreBoundedInAllAndGivenBack")
def half_frames_at_the_listener(checks, stack):
    check_memory_hoard(checks, stack, False, 64, half_frame_of_the_greatest_size)


@scenario("HalfFramesOfManyLinksToTheBrokerAreBoundedInAllAndGivenBack")
def half_frames_at_the_broker(checks, stack):
    check_memory_hoard(checks, stack, True, 64, half_frame_of_the_greatest_size)


@scenario("RepliesThatNobodyReadsAreBoundedInAllAndGivenBack")
def replies_not_read(checks, stack):
    check_memory_hoard(checks, stack, False, 20, replies_that_are_not_read)


if __name__ == "__main__":
    main()
