"""What a process is found to use, from outside, and how long things take."""

import os
import time


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def resident_mebibytes(pid):
    with open(f"/proc/{pid}/statm") as pages:
        return int(pages.read().split()[1]) * os.sysconf("SC_PAGESIZE") / (1 << 20)


def processor_seconds(pid):
    """Of all its threads, those that have ended included."""
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def load(pid, seconds):
    """How many processors it keeps busy, on average."""
    before, start = processor_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (processor_seconds(pid) - before) / (time.monotonic() - start)


def seconds_until(condition, bound):
    """How long it takes until the condition holds; infinite when it does not within the bound."""
    start = time.monotonic()
    while True:
        if condition():
            return time.monotonic() - start
        if time.monotonic() - start > bound:
            return float("inf")
        time.sleep(0.02)


class Highest:
    """The highest of what is measured again and again while something goes on."""

    def __init__(self, measure):
        self.measure = measure
        self.value = 0

    def look(self):
        self.value = max(self.value, self.measure())
        return self.value

    def watch(self, seconds, interval=0.05):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.look()
            time.sleep(interval)
        return self.look()
