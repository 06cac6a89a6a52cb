"""A scenario is a function with a name that is a sentence; its checks are printed, and the exit status tells."""

import contextlib
import signal
import sys
import time
import traceback

from . import peers, processes, wire

TIME_LIMIT_SECONDS = 60
NEVER = float("inf")

_scenarios = {}


class OutOfTime(Exception):
    pass


class Checks:
    """One line per check: ok or FAILED, what was measured, and the bound."""

    def __init__(self):
        self.failed = 0
        self.count = 0

    def most(self, name, value, bound, unit=""):
        self._line(value <= bound, name, f"{_shown(value)} {unit}".strip(), f"at most {_shown(bound)}")

    def least(self, name, value, bound, unit=""):
        self._line(value >= bound, name, f"{_shown(value)} {unit}".strip(), f"at least {_shown(bound)}")

    def equal(self, name, value, due):
        self._line(value == due, name, str(value), f"{due} is due")

    def _line(self, is_held, name, value, bound):
        self.count += 1
        self.failed += not is_held
        print(f"{'ok' if is_held else 'FAILED'} {name}: {value} ({bound})", flush=True)


def _shown(value):
    return "never" if value == NEVER else f"{value:.3g}" if isinstance(value, float) else str(value)


def scenario(name):
    def keep(function):
        _scenarios[name] = function
        return function

    return keep


def main():
    names = sys.argv[1:] or list(_scenarios)
    unknown = [name for name in names if name not in _scenarios]
    if unknown:
        sys.exit(f"no such scenario: {' '.join(unknown)}; there are {' '.join(_scenarios)}")
    sys.exit(0 if all([_run(name) for name in names]) else 1)


def _run(name):
    print(f"# {name}", flush=True)
    checks = Checks()
    start = time.monotonic()

    def out_of_time(*_):
        raise OutOfTime(f"not done after {TIME_LIMIT_SECONDS} s")

    def stopped(*_):
        sys.exit("stopped")

    signal.signal(signal.SIGALRM, out_of_time)
    signal.signal(signal.SIGTERM, stopped)
    signal.alarm(TIME_LIMIT_SECONDS)
    try:
        processes.allow_descriptors(65536)
        with processes.place(), contextlib.ExitStack() as stack:
            _scenarios[name](checks, stack)
    except Exception as error:
        checks.failed += 1
        traceback.print_exc()
        print(f"FAILED the scenario itself: {error!r}", flush=True)
    finally:
        signal.alarm(0)
    if checks.count == 0:
        checks.failed += 1
        print("FAILED nothing was checked", flush=True)
    print(f"# {name}: {time.monotonic() - start:.1f} s, {checks.failed} of {checks.count} failed", flush=True)
    return checks.failed == 0


def newcomer_seconds(name="victim", bound=20.0):
    """How long a newcomer to a listener waits for the first reply, the look-up included; NEVER over the bound."""
    start = time.monotonic()
    try:
        endpoint = peers.look_up(name, bound)
        if endpoint is None:
            return NEVER
        with contextlib.closing(endpoint), endpoint.connect(bound) as peer:
            peer.introduce()
            peer.wait_until_ready()
            kind, _, _ = peer.ask({"do": "answer"})
            taken = time.monotonic() - start
            return taken if kind == wire.REPLY and taken <= bound else NEVER
    except peers.DEFENDED:
        return NEVER


def register_seconds(name="newcomer", bound=20.0):
    """How long it takes until a name that is registered anew is found; NEVER over the bound."""
    start = time.monotonic()
    listener = peers.RawListener()
    try:
        with peers.broker_link(bound) as link:
            listener.register(name, link)
            endpoint = peers.look_up(name, bound, link)
            if endpoint is None:
                return NEVER
            endpoint.close()
            return time.monotonic() - start
    except peers.DEFENDED:
        return NEVER
    finally:
        listener.close()
