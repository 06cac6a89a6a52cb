"""Victims, the broker and attackers: processes that die with the one that started them."""

import contextlib
import ctypes
import os
import resource
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

_libc = ctypes.CDLL(None)
_PR_SET_PDEATHSIG = 1


def die_with_parent():
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


@contextlib.contextmanager
def place():
    """A runtime directory of one's own, gone afterwards."""
    directory = tempfile.mkdtemp(prefix="velto-hostile-")
    os.environ["XDG_RUNTIME_DIR"] = directory
    try:
        yield directory
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def allow_descriptors(count):
    """For this process: attackers need many."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    limit = count if hard == resource.RLIM_INFINITY else min(count, hard)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, hard))


class Program:
    """A victim or the broker."""

    def __init__(self, words, descriptors=None, stderr=None, prepare=None, environment=None):
        self.log = stderr is None and tempfile.TemporaryFile()

        def before_exec():
            die_with_parent()
            if descriptors is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))
            if prepare:
                prepare()

        self.process = subprocess.Popen(
            words,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self.log or stderr,
            preexec_fn=before_exec,
            env={**os.environ, **(environment or {})},
        )
        self.pid = self.process.pid
        self.output = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()
        if self.log:
            self.log.close()

    def is_alive(self):
        return self.process.poll() is None

    def line(self, timeout=20.0):
        end = time.monotonic() + timeout
        while b"\n" not in self.output:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise TimeoutError(f"{self.process.args[0]} says nothing")
            data = os.read(self.process.stdout.fileno(), 65536)
            if not data:
                raise RuntimeError(f"{self.process.args[0]} has ended")
            self.output += data
        line, self.output = self.output.split(b"\n", 1)
        return line.decode()

    def expect(self, beginning, timeout=20.0):
        line = self.line(timeout)
        if not line.startswith(beginning):
            raise RuntimeError(f"{self.process.args[0]} says {line!r}")
        return line

    def ask(self, order, timeout=20.0):
        self.process.stdin.write(order.encode() + b"\n")
        self.process.stdin.flush()
        return self.line(timeout)

    def figures(self, timeout=20.0):
        words = self.ask("figures", timeout).split()
        return {name: int(value) for name, value in (word.split("=") for word in words)}

    def log_lines(self):
        size = os.fstat(self.log.fileno()).st_size
        return os.pread(self.log.fileno(), size, 0).decode(errors="replace").splitlines()


def _path_of(variable, built):
    path = os.environ.get(variable) or built
    if not os.access(path, os.X_OK):
        sys.exit(f"{variable}: there is no program {path}")
    return path


def _built(name):
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
    return os.path.join(root, "build", "dev", name)


def victim(*words, **options):
    path = _path_of("VELTO_HOSTILE_VICTIM", _built("tests/hostile/velto_hostile_victim"))
    return Program([path, *map(str, words)], **options)


def listener_victim(name="victim", ready_pause=0, sink_pause=0, **options):
    """A listener that is registered; its connectionReady and its log sink take so many milliseconds."""
    program = victim("listener", name, ready_pause, sink_pause, **options)
    program.expect("listening")
    from . import peers, measures

    def is_registered():
        endpoint = peers.look_up(name)
        if endpoint:
            endpoint.close()
        return endpoint is not None

    if measures.seconds_until(is_registered, 10) == float("inf"):
        program.kill()
        raise RuntimeError("the victim's name is not registered")
    return program


def client_victim(name, **options):
    """A client that connects; expect("ready") waits until it has."""
    return victim("client", name, **options)


def broker(**options):
    path = _path_of("VELTO_HOSTILE_BROKER", _built("daemon/VeltoIPCDaemon"))
    program = Program([path], **options)
    program.expect("VeltoIPCDaemon: listening")
    return program


class Attacker:
    """A process that runs a function, which tells with `tell` that it has got where it wanted to be.

    The function gets `tell` and the arguments; when it returns, the process lives on, with all that it holds, until it
    is killed.
    """

    def __init__(self, function, *arguments):
        self._words, write_end = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(self._words)
            self._run(function, arguments, write_end)
        os.close(write_end)
        self._text = b""

    @staticmethod
    def _run(function, arguments, write_end):
        try:
            die_with_parent()
            signal.signal(signal.SIGALRM, signal.SIG_DFL)
            signal.signal(signal.SIGTERM, signal.SIG_DFL)

            def tell(word="there"):
                os.write(write_end, f"{word}\n".encode())

            held = function(tell, *arguments)  # noqa: F841, what it holds stays open
            while True:
                signal.pause()
        except BaseException as error:
            os.write(write_end, f"failed: {error!r}\n".encode())
        finally:
            os._exit(1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def has_told(self):
        return b"\n" in self._text or bool(select.select([self._words], [], [], 0)[0])

    def told(self, timeout=30.0):
        end = time.monotonic() + timeout
        while b"\n" not in self._text:
            ready, _, _ = select.select([self._words], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise TimeoutError("the attacker does not get where it wants to be")
            data = os.read(self._words, 4096)
            if not data:
                raise RuntimeError("the attacker has ended")
            self._text += data
        word, self._text = self._text.split(b"\n", 1)
        if word.startswith(b"failed"):
            raise RuntimeError(f"the attacker {word.decode()}")
        return word.decode()

    def kill(self):
        if self.pid:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
            os.close(self._words)
            self.pid = 0
