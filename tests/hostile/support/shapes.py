"""Values that are small on the wire and dear to compare or to hold."""

from . import cbor

SET = cbor.head(6, 258)


def set_of(items):
    return SET + cbor.head(4, len(items)) + b"".join(items)


def array_of(items):
    return cbor.head(4, len(items)) + b"".join(items)


def number(value):
    return cbor.encode(value)


def in_set(item):
    return set_of([item])


def in_array(item):
    return array_of([item])


def as_key(item):
    """A dictionary whose only key it is."""
    return cbor.head(5, 1) + item + b"\x00"


def as_value(item):
    return cbor.head(5, 1) + b"\x00" + item


def in_error(item):
    """An error whose user info holds it."""
    return cbor.head(6, 27) + array_of([cbor.encode("NSError"), cbor.encode("d"), b"\x00", as_value(item)])


def nested(levels, *wrappers):
    """Makes a number the innermost of so many levels, the wrappers taking turns."""

    def make(value):
        item = number(value)
        for level in range(levels):
            item = wrappers[level % len(wrappers)](item)
        return item

    return make


def many(count, make):
    return [make(value) for value in range(count)]


def dictionary_with_keys(items):
    return cbor.head(5, len(items)) + b"".join(item + b"\x00" for item in items)


def costly(levels=65, count=1000):
    """Elements that all have one hash, each so deep that what they cost wraps.

    Behind a legal set, since a sum that wraps is small only if something was in it before.
    """
    return array_of([legal(), set_of(many(count, nested(levels, in_set)))])


def legal(count=200, length=250):
    """A set that is admitted, though it may cost ten million comparisons: each of its arrays with every other, whole.

    In truth they differ in their first element.
    """
    return set_of([array_of([number(value)] + [b"\x00"] * length) for value in range(count)])


def large(count=2_000_000):
    """As many objects as a frame may hold, nearly; nothing else is wrong with it."""
    return cbor.head(4, count) + b"\x00" * count


def large_of_containers(count=2_000_000):
    """The same, of empty arrays."""
    return cbor.head(4, count) + b"\x80" * count
