#!/usr/bin/env python3
"""Values of a few hundred kilobytes whose keys and elements would take seconds to compare with one another.

What they cost is added up before anything is compared, and sums that are too large to be written down are too large.
"""

import time

from support import measures, peers, processes, shapes, wire
from support.scenarios import NEVER, main, newcomer_seconds, scenario

ANSWER_SECONDS = 1.0
PROCESSOR_SECONDS = 1.0
PATIENCE_SECONDS = 5.0

SET = shapes.in_set
KEY = shapes.as_key
ERROR = shapes.in_error
ARRAY = shapes.in_array


def ask(victim, value):
    """How the victim takes a message with such a value: the kind of its answer, seconds, and processor seconds."""
    endpoint = peers.look_up("victim")
    before = measures.processor_seconds(victim.pid)
    with endpoint.connect(PATIENCE_SECONDS) as peer:
        peer.introduce()
        peer.wait_until_ready()
        start = time.monotonic()
        try:
            kind, _, _ = peer.ask({"do": "answer", "value": wire.cbor.Raw(value)})
            seconds = time.monotonic() - start
        except peers.DEFENDED as error:
            kind, seconds = type(error).__name__, NEVER
    endpoint.close()
    return kind, seconds, measures.processor_seconds(victim.pid) - before


def check(checks, stack, values, legal=()):
    stack.enter_context(processes.broker())
    victim = stack.enter_context(processes.listener_victim())
    newcomer_seconds()
    for what, value in values.items():
        kind, seconds, processor = ask(victim, value)
        verdict, due = ("passes", wire.REPLY) if what in legal else ("is refused", wire.REFUSAL)
        checks.equal(f"{what} ({len(value) >> 10} KiB) {verdict}", kind, due)
        checks.most(f"{what}, until it is answered", seconds, ANSWER_SECONDS, "s")
        checks.most(f"{what}, of the processor", processor, PROCESSOR_SECONDS, "s")
    checks.most("a newcomer's first reply", newcomer_seconds(bound=5.0), ANSWER_SECONDS, "s")


def behind_a_legal_one(value):
    """A sum that wraps is small only if something was in it before: a set that is dear, but legal."""
    return shapes.array_of([shapes.legal(), value])


def elements(count, levels, *wrappers):
    return behind_a_legal_one(shapes.set_of(shapes.many(count, shapes.nested(levels, *wrappers))))


def keys(count, levels, *wrappers):
    return behind_a_legal_one(shapes.dictionary_with_keys(shapes.many(count, shapes.nested(levels, *wrappers))))


@scenario("ElementsOfNestedSetsAreRefusedAtOnceHoweverDeep")
def nested_sets(checks, stack):
    values = {f"1000 of {levels} nested sets": elements(1000, levels, SET) for levels in (62, 63, 64, 65, 66, 120)}
    values["3000 of 65 nested sets"] = elements(3000, 65, SET)
    values["3000 of 63 nested sets"] = elements(3000, 63, SET)
    check(checks, stack, values)


@scenario("KeysThatAreNestedDictionariesAreRefusedAtOnce")
def nested_keys(checks, stack):
    values = {f"1000 keys of {levels} nested dictionaries": keys(1000, levels, KEY) for levels in (32, 63, 64, 65, 100)}
    values["2000 keys of 65 nested dictionaries"] = keys(2000, 65, KEY)
    check(checks, stack, values)


def nest_twice(levels):
    """Each level holds the one below it twice, once in a set of its own: its cost doubles, its bytes too."""

    def make(value):
        item = shapes.number(value)
        for _ in range(levels):
            item = shapes.set_of([item, SET(item)])
        return item

    return make


def row(value):
    return shapes.array_of([shapes.number(value)] * 40)


@scenario("ElementsOfManyKindsNestedInOneAnotherAreRefusedAtOnce")
def mixed(checks, stack):
    check(
        checks,
        stack,
        {
            "errors in sets": elements(1000, 120, SET, SET, ERROR),
            "dictionaries as keys in sets": elements(1500, 100, KEY, SET),
            "arrays in sets": elements(1000, 120, SET, SET, ARRAY),
            "all kinds": elements(1000, 120, SET, KEY, SET, KEY, ERROR, ARRAY),
            "all kinds as keys": keys(1000, 120, SET, KEY, ARRAY, KEY, ERROR, SET),
            "6000 arrays of one number": elements(6000, 1, ARRAY),
            "100000 arrays of one number": elements(100_000, 1, ARRAY),
            "3000 rows of 40 numbers": shapes.set_of(shapes.many(3000, row)),
            "1500 that double seven times": shapes.set_of(shapes.many(1500, nest_twice(7))),
        },
        legal=("6000 arrays of one number", "100000 arrays of one number"),
    )


if __name__ == "__main__":
    main()
