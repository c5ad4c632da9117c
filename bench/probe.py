# SPDX-License-Identifier: Apache-2.0
"""A client that behaves and times each of its answers, and what the server takes meanwhile."""
import contextlib
import os
import statistics
import struct
import time

from hostile import HELLO, MEMORY, PROCESSES, THREADS, connect, paths, read_answer, request
from loads import tasks_of_machine
from programs import cpu_seconds, open_descriptors, resident_kib, status_number

CYCLE = 0.4  # seconds
TIME_OUT = 2  # seconds, as that of the client library
LISTS = ("processes", "threads")  # that cost the server more than all others
UNKNOWN = b"\xff" * 32
BUSY = -16
QUERIES = {
    "CPU": (2, 1, b""), "processes": PROCESSES, "threads": THREADS, "counters": (2, 3, b""),
    "system": (2, 7, b""), "command lines": (2, 8, b""), "thermal": (3, 1, b""), "memory": MEMORY,
    "ION": (3, 3, b""), "partitions": (3, 4, paths("/", "/proc")), "blocks": (3, 5, b""),
    "BPU": (4, 1, b""), "VIO": (5, 1, b""), "network": (6, 1, b""), "bandwidth": (6, 2, b""),
    "traffic": (6, 4, b"")}


class Window:
    """What was seen within some time. Each answer: milliseconds and its query's name."""

    def __init__(self):
        self.answers, self.failures = [], []
        self.cpu_percent = 0.0
        self.peak_mib = self.mib = 0.0
        self.descriptors = self.threads = 0
        self.tasks = 0  # on the machine, at the end

    def median_ms(self):
        return statistics.median(ms for ms, _ in self.answers) if self.answers else None

    def slowest(self, without=()):
        return max((one for one in self.answers if one[1] not in without), default=(None, "-"))


class Probe:
    def __init__(self, server):
        self.server, self.peer = server, None
        self.refused = {}  # queries that this machine has no answer to, and their statuses

    def _ask(self, name):
        if self.peer is None:
            self.peer = connect(self.server.port, TIME_OUT, "127.0.0.1")
        self.peer.sendall(request(QUERIES[name]))
        status, payload = read_answer(self.peer)
        if status < 0 and status != BUSY and self.refused.get(name) != status:
            raise OSError(-status, os.strerror(-status))
        if name in LISTS and struct.unpack_from("<i", payload)[0] == 0:
            raise OSError("an empty list")
        if name == "partitions" and payload[32:64] == UNKNOWN:
            raise OSError("unknown")

    def _newcomer(self):
        with connect(self.server.port, TIME_OUT, "127.0.0.1") as peer:
            peer.sendall(request(HELLO))
            status, _ = read_answer(peer)
            if status < 0:
                raise OSError(-status, os.strerror(-status))

    def _time(self, window, name, ask, *arguments):
        began = time.monotonic()
        try:
            ask(*arguments)
        except OSError as problem:
            window.failures.append(f"{name}: {problem}")
            if ask == self._ask:
                self.close()
        window.answers.append(((time.monotonic() - began) * 1000, name))

    def cycle(self, window):
        for name in QUERIES:
            self._time(window, name, self._ask, name)
        self._time(window, "new connection", self._newcomer)

    def learn(self):
        """Which queries this machine has no answer to."""
        for name in QUERIES:
            try:
                self._ask(name)
            except OSError as problem:
                self.refused[name] = -(problem.errno or 0)

    def watch(self, seconds):
        window, pid = Window(), self.server.pid
        with contextlib.suppress(OSError), open(f"/proc/{pid}/clear_refs", "w") as file:
            file.write("5")  # the peak of resident memory begins anew
        began, cpu = time.monotonic(), cpu_seconds(pid)
        while time.monotonic() - began < seconds and self.server.alive():
            start = time.monotonic()
            self.cycle(window)
            with contextlib.suppress(OSError):  # it may have died
                window.descriptors = max(window.descriptors, open_descriptors(pid))
                window.threads = max(window.threads, status_number(pid, "Threads"))
            time.sleep(max(0, start + CYCLE - time.monotonic()))
        window.tasks = tasks_of_machine()
        if self.server.alive():
            window.cpu_percent = (cpu_seconds(pid) - cpu) / (time.monotonic() - began) * 100
            window.peak_mib = status_number(pid, "VmHWM") / 1024
            window.mib = resident_kib(pid) / 1024
        return window

    def close(self):
        if self.peer:
            self.peer.close()
            self.peer = None
