"""The frames of docs/wire.md."""

import struct

from . import cbor

HELLO, CALL, REPLY, REPLY_DROPPED, REFUSAL, REPLY_REFUSAL, CREDIT, GOODBYE = range(1, 9)

MAXIMUM_FRAME_BYTES = 16 << 20
MAXIMUM_DESCRIPTORS = 64
UNDELIVERED_BYTES = 32 << 20
UNDELIVERED_CALLS = 4096

MESSAGE = "connectionID:withMessage:handler:"
REGISTER = "sendListenerConnection:withName:"
LOOK_UP = "findListenerEndpointForName:handle:"


def frame(kind, *items, descriptors=0):
    return header(kind, body := b"".join(map(cbor.encode, items)), descriptors) + body


def header(kind, body, descriptors=0):
    length = body if isinstance(body, int) else len(body)
    return struct.pack("<IBBH", length, kind, 0, descriptors)


def hello(undelivered_bytes=UNDELIVERED_BYTES, undelivered_calls=UNDELIVERED_CALLS, frame_bytes=MAXIMUM_FRAME_BYTES):
    return frame(HELLO, 1, frame_bytes, MAXIMUM_DESCRIPTORS, undelivered_bytes, undelivered_calls)


def call(identifier, selector, wants_reply, *arguments, descriptors=0):
    return frame(CALL, identifier, selector, wants_reply, *arguments, descriptors=descriptors)


def ping(identifier=1):
    return call(identifier, "ping", False)


def message(identifier, entries, wants_reply=True, descriptors=0, from_connection="raw"):
    """The receiver believes any identifier that the sender states."""
    return call(identifier, MESSAGE, wants_reply, from_connection, entries, descriptors=descriptors)


def reply(identifier, value):
    return frame(REPLY, identifier, value)


def endpoint():
    """The value that names descriptors 0 and 1 of its frame."""
    return cbor.Tagged(27, ["NSXPCListenerEndpoint", [0, 1]])
