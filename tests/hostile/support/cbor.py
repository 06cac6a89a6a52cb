"""As much CBOR (RFC 8949) as the wire needs, and the means to write down what nobody should."""

import struct


class Raw(bytes):
    """Bytes that stand in the place of an item as they are."""


class Tagged:
    def __init__(self, tag, value):
        self.tag = tag
        self.value = value


UNDEFINED = Raw(b"\xf7")


def head(major, argument):
    if argument < 24:
        return bytes([major << 5 | argument])
    for code, size, letter in ((24, 1, "B"), (25, 2, "H"), (26, 4, "I"), (27, 8, "Q")):
        if argument < 1 << (8 * size):
            return bytes([major << 5 | code]) + struct.pack(">" + letter, argument)
    raise ValueError(argument)


def encode(value):
    if isinstance(value, Raw):
        return bytes(value)
    if value is None:
        return b"\xf6"
    if isinstance(value, bool):
        return b"\xf5" if value else b"\xf4"
    if isinstance(value, int):
        return head(0, value) if value >= 0 else head(1, -1 - value)
    if isinstance(value, float):
        return b"\xfb" + struct.pack(">d", value)
    if isinstance(value, bytes):
        return head(2, len(value)) + value
    if isinstance(value, str):
        text = value.encode()
        return head(3, len(text)) + text
    if isinstance(value, (list, tuple)):
        return head(4, len(value)) + b"".join(encode(each) for each in value)
    if isinstance(value, dict):
        return head(5, len(value)) + b"".join(encode(key) + encode(each) for key, each in value.items())
    if isinstance(value, Tagged):
        return head(6, value.tag) + encode(value.value)
    raise TypeError(type(value))


def decode(body):
    """The items of a sequence, as lists, dictionaries and plain values; tags are dropped."""
    items, at = [], 0
    while at < len(body):
        item, at = _item(body, at)
        items.append(item)
    return items


def _item(body, at):
    major, low = body[at] >> 5, body[at] & 31
    at += 1
    argument = low
    if 24 <= low <= 27:
        size = 1 << (low - 24)
        argument = int.from_bytes(body[at : at + size], "big")
        at += size
    if major in (2, 3):
        data = body[at : at + argument]
        return (data if major == 2 else data.decode()), at + argument
    if major == 4:
        items = []
        for _ in range(argument):
            item, at = _item(body, at)
            items.append(item)
        return items, at
    if major == 5:
        entries = {}
        for _ in range(argument):
            key, at = _item(body, at)
            entries[str(key)], at = _item(body, at)
        return entries, at
    if major == 6:
        return _item(body, at)
    if major == 7:
        if low == 27:
            return struct.unpack(">d", struct.pack(">Q", argument))[0], at
        return {20: False, 21: True}.get(argument), at
    return (argument if major == 0 else -1 - argument), at
