"""Processes of one run: broker, server and client in a directory of their own, which is gone afterwards."""

import contextlib
import json
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time

START_SECONDS = 20
MEASURE_SECONDS = 120
# Until a counter has found all threads of the processes.
ATTACH_SECONDS = 0.5

BUS = """<busconfig>
  <type>session</type>
  <listen>unix:path={directory}/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_replies_per_connection">100000</limit>
</busconfig>
"""


class Failure(Exception):
    """A run that gave no figures, in words."""


def started(command, core=None, **options):
    """A process that ends with this one, on a core of its own if one is given."""
    place = ["taskset", "--cpu-list", str(core)] if core is not None else []
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *place, *command], **options)


class Stage:
    """with Stage(programs, peer, setting) as stage: figures = stage.measure(...)"""

    def __init__(self, programs, peer, setting):
        self._programs = pathlib.Path(programs)
        self._peer = peer
        self._setting = setting
        self._stack = contextlib.ExitStack()
        self._processes = {}

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            self._directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="bench"))
            self._environment = {**os.environ, "XDG_RUNTIME_DIR": self._directory}
            self._stack = stack
            if self._setting == "busy":
                self._burn()
            if self._peer.broker:
                self._start("broker", self._broker())
            self._start("server", [self._program(self._peer.program), "serve", self._address()])
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_):
        self._stack.close()

    def measure(self, measure, seconds):
        """The figures of one measure by name."""
        options = ["--seconds", str(seconds)] if measure.kind != "stepwise" else []
        client = self._client(measure, options)
        try:
            if measure.kind == "stepwise":
                return self._count(client, measure.amount)
            output, errors = client.communicate(timeout=MEASURE_SECONDS)
        except subprocess.TimeoutExpired:
            raise Failure(f"no end within {MEASURE_SECONDS} seconds") from None
        finally:
            end(client)
        if client.returncode != 0:
            # What the library logs comes first.
            raise Failure(errors.strip().rpartition("\n")[2] or f"the client ended with {client.returncode}")
        return json.loads(output)

    def _client(self, measure, options):
        watched = [word for name, process in self._processes.items() for word in ("--watch", f"{name}={process.pid}")]
        command = [self._program(self._peer.program), "measure", measure.kind, self._address(), "--amount",
                   str(measure.amount), *watched, *options]
        return self._spawn(command, stdin=subprocess.PIPE, stderr=subprocess.PIPE)

    def _count(self, client, amount):
        await_line(client, "client", "ready")
        processes = [client.pid, *(process.pid for process in self._processes.values())]
        with Counter(processes) as counter:
            client.stdin.write("go\n")
            client.stdin.flush()
            await_line(client, "client", "done")
            return {"system calls": counter.count() / amount}

    def _program(self, name):
        return str(self._programs / "benchmarks/transport" / name)

    def _address(self):
        return self._peer.address.format(directory=self._directory)

    def _broker(self):
        if self._peer.broker == "velto":
            return [str(self._programs / "daemon/VeltoIPCDaemon")]
        if self._peer.broker == "dbus-broker":
            require("dbus-broker")
            return [self._program("start_dbus_broker"), f"{self._directory}/bus"]
        require("dbus-daemon")
        configuration = pathlib.Path(self._directory, "bus.conf")
        configuration.write_text(BUS.format(directory=self._directory), encoding="utf-8")
        return ["dbus-daemon", "--nofork", "--nopidfile", "--print-address", f"--config-file={configuration}"]

    def _spawn(self, command, **streams):
        core = min(os.sched_getaffinity(0)) if self._setting == "pinned" else None
        return started(command, core, stdout=subprocess.PIPE, env=self._environment, text=True, **streams)

    def _start(self, name, command):
        process = self._spawn(command, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self._stack.callback(end, process)
        await_line(process, name)
        self._processes[name] = process

    def _burn(self):
        for core in os.sched_getaffinity(0):
            self._stack.callback(end, started(["sh", "-c", "while :; do :; done"], core))


class Counter:
    """Counts the system calls of processes, all threads and those to come included."""

    _refused = set()

    def __init__(self, processes):
        self._process = None
        self._processes = processes
        for tool in ("perf", "strace"):
            if tool in self._refused or not shutil.which(tool):
                continue
            self._tool = tool
            self._process = started(self._command(), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
            time.sleep(ATTACH_SECONDS)
            if self._process.poll() is None:
                return
            self._refused.add(tool)
        raise Failure("nothing here may count system calls")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end(self._process)

    def count(self):
        """Ends the counting."""
        self._process.send_signal(signal.SIGINT)
        text = self._process.communicate(timeout=START_SECONDS)[1]
        pattern = r"^(\d+),.*raw_syscalls" if self._tool == "perf" else r"^100\.00\s+\S+\s+\S+\s+(\d+)\s.*total$"
        found = re.findall(pattern, text, re.MULTILINE)
        if not found:
            raise Failure(f"{self._tool} counted nothing")
        return int(found[-1])

    def _command(self):
        if self._tool == "perf":
            return ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "-p", ",".join(map(str, self._processes))]
        return ["strace", "-c", "-f", *(word for process in self._processes for word in ("-p", str(process)))]


def require(program):
    if not shutil.which(program):
        raise Failure(f"{program} is not installed")


def await_line(process, name, beginning=""):
    """Until the process says something that begins so."""
    deadline = time.monotonic() + START_SECONDS
    while select.select([process.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
        line = process.stdout.readline()
        if not line:
            raise Failure(f"the {name} ended at its start")
        if line.startswith(beginning):
            return
    raise Failure(f"the {name} does not start")


def end(process):
    """Ends it and takes what is left of it."""
    if process.poll() is None:
        process.kill()
    process.communicate()
