"""What is measured: the peers, the measures, and the settings they are measured in."""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Peer:
    name: str
    title: str
    program: str
    # With {directory} for that of the run.
    address: str
    # What is started before the server: "velto", "dbus-daemon" or "dbus-broker".
    broker: str = ""
    # The only measures that it differs in, or all.
    only: tuple = ()


@dataclasses.dataclass(frozen=True)
class Column:
    figure: str
    title: str


@dataclasses.dataclass(frozen=True)
class Measure:
    name: str
    title: str
    # The name that the programs know.
    kind: str
    columns: tuple
    amount: int = 0
    settings: tuple = ("free", "pinned")
    # The first column: times, which are better when small, or work per second.
    is_rate: bool = False
    is_quick: bool = True
    # The only peers, or all.
    only: tuple = ()


FLOOR = "raw"
OURS = "velto"

PEERS = (
    Peer("raw", "raw socket, blocking", "transport_raw", "blocking:{directory}/s"),
    Peer("raw-polling", "raw socket, polling", "transport_raw", "polling:{directory}/s",
         only=("round-trip", "system-calls", "outstanding")),
    Peer("raw-batching", "raw socket, batching", "transport_raw", "batching:{directory}/s",
         only=("flood", "outstanding")),
    Peer("velto", "VeltoIPC", "transport_velto", "org.example.exchange", broker="velto"),
    Peer("sd-bus", "sd-bus, peer to peer", "transport_sd_bus", "direct:{directory}/s"),
    Peer("sd-bus-broker", "sd-bus, dbus-broker", "transport_sd_bus", "bus:{directory}/bus", broker="dbus-broker"),
    Peer("sd-bus-daemon", "sd-bus, dbus-daemon", "transport_sd_bus", "bus:{directory}/bus", broker="dbus-daemon"),
    Peer("zeromq", "ZeroMQ, msgpack", "transport_zeromq", "ipc://{directory}/s"),
    Peer("capnproto", "Cap'n Proto", "capnproto/transport_capnproto", "unix:{directory}/s"),
    Peer("grpc", "gRPC", "grpc/transport_grpc", "unix:{directory}/s"),
    Peer("nng", "nng, msgpack", "transport_nng", "ipc://{directory}/s"),
)

SETTINGS = {
    "free": "free-running",
    "pinned": "all processes on one core",
    "busy": "beside a process that burns each core",
}

_THREADS = (Column("threads of client", "threads: client"), Column("threads of server", "server"),
            Column("threads of broker", "broker"))
_RATE = (Column("per second", "per second"), Column("cpu", "CPU µs"), Column("switches", "switches"), *_THREADS)
_DATA = (Column("MiB per second", "MiB/s"), Column("cpu", "CPU µs per MiB"))
_MEMORY = tuple(
    Column(f"{kind} of {process}", f"{process} {kind} KiB")
    for process in ("server", "client", "broker")
    for kind in ("Pss", "Rss", "anonymous"))

MEASURES = (
    Measure("round-trip", "Synchronous round trip, µs", "round trip",
            (Column("p50", "p50"), Column("p90", "p90"), Column("p99", "p99"), Column("max", "max"),
             Column("cpu", "CPU µs"), Column("switches", "switches"), *_THREADS),
            settings=("free", "pinned", "busy")),
    Measure("system-calls", "System calls of a round trip, all processes", "stepwise",
            (Column("system calls", "system calls"),), amount=2000, settings=("free",)),
    Measure("flood", "One way", "flood", _RATE, is_rate=True),
    Measure("outstanding", "Round trips, 64 outstanding", "outstanding", _RATE, amount=64, is_rate=True),
    Measure("data-1M", "1 MiB of data, acknowledged", "data", _DATA, amount=1 << 20, is_rate=True),
    Measure("data-64M", "64 MiB of data, acknowledged", "data", _DATA, amount=64 << 20, is_rate=True),
    Measure("data-1G", "1 GiB of data, acknowledged", "data", _DATA, amount=1 << 30, settings=("free",), is_rate=True,
            is_quick=False),
    Measure("data-shared", "64 MiB of data that lies in sealed memory, acknowledged", "shared data", _DATA,
            amount=64 << 20, is_rate=True),
    Measure("life", "The life of a connection, µs", "life",
            (Column("whole", "whole"), Column("ready", "ready"), Column("first reply", "first reply"),
             Column("close", "close"), Column("cpu", "CPU µs"))),
    Measure("clients", "1,000 clients: requests in turn, and memory of one more connection", "clients",
            (Column("per second", "per second"), Column("cpu", "CPU µs"), *_MEMORY), amount=1000, settings=("free",),
            is_rate=True),
    Measure("growth", "Growth: µs for one more", "growth", (), settings=("free",), only=(OURS,)),
)
