# SPDX-License-Identifier: Apache-2.0
"""Programs that are measured: run in terminals of their own, read all the time, ended for certain."""
import ctypes
import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import tempfile
import termios
import threading
import time

ROWS, COLUMNS = 60, 200
PR_SET_PDEATHSIG = 1
QUIET = 0.3  # seconds without output that part two refreshes
libc = ctypes.CDLL(None)


def die_with_parent():
    os.setsid()
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def cpu_seconds(pid):
    """CPU time of a process and all its threads, those that have ended included, to the nanosecond.

    The clock id is what clock_getcpuclockid(3) makes of a process id.
    """
    return time.clock_gettime((~pid << 3) | 2)


def status_number(pid, name):
    with open(f"/proc/{pid}/status") as status:
        found = re.search(rf"^{name}:\s+(\d+)", status.read(), re.M)
    return int(found[1]) if found else 0


def resident_kib(pid):
    return status_number(pid, "VmRSS")


def open_descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def has_children(pid):
    """Whether it has children, or has waited for some that used CPU time."""
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{thread}/children") as children:
                if children.read().strip():
                    return True
        except FileNotFoundError:  # the thread has ended
            pass
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return fields[13:15] != ["0", "0"]  # cutime, cstime


def end_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait(timeout=10)


class InTerminal:
    """A program in a pty. Its output is read by a thread, counted, and kept up to a bound."""

    KEPT = 1 << 20

    def __init__(self, command, environment=None):
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        self.started = time.monotonic()
        try:
            self.process = subprocess.Popen(command, stdin=theirs, stdout=theirs, stderr=theirs,
                                            env={**os.environ, "TERM": "xterm-256color",
                                                 "LC_ALL": "C.UTF-8", **(environment or {})},
                                            preexec_fn=die_with_parent)
        except BaseException:
            os.close(ours)
            raise
        finally:
            os.close(theirs)
        self.terminal = ours
        self.ended = False
        self.bytes = 0
        self.bursts = 0  # of output, with QUIET between them
        self.last_output = self.started
        self.text = b""
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    @property
    def pid(self):
        return self.process.pid

    def _read(self):
        while not self.ended:
            try:
                if not select.select([self.terminal], [], [], 0.2)[0]:
                    continue
                part = os.read(self.terminal, 65536)
            except OSError:  # EIO: nobody has the other side open any more
                return
            now = time.monotonic()
            with self.changed:
                if self.bytes == 0 or now - self.last_output > QUIET:
                    self.bursts += 1
                self.bytes += len(part)
                self.last_output = now
                self.text = (self.text + part)[-self.KEPT:]
                self.changed.notify_all()

    def wait_for(self, pattern, seconds):
        """Seconds from the start until the output holds the pattern, None if it never does."""
        with self.changed:
            if self.changed.wait_for(lambda: re.search(pattern, self.text), seconds):
                return self.last_output - self.started
        return None

    def wait_for_bursts(self, count, seconds):
        """Waits until so many bursts of output have begun; whether they have."""
        with self.changed:
            return self.changed.wait_for(lambda: self.bursts >= count, seconds)

    def type(self, keys):
        os.write(self.terminal, keys)

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        end_group(self.process)
        # The reader goes before the descriptor does: its number may be the next terminal's.
        self.ended = True
        self.reader.join(timeout=5)
        os.close(self.terminal)


class Server:
    """A monitor server on a free port of the loopback address.

    log: the file for its standard error, read again from its start; it is closed in the end.
    """

    def __init__(self, binaries, options=(), environment=None, log=None):
        self.log = log or tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([f"{binaries}/mon_server", "--port", "0", *options],
                                        stderr=self.log, stdin=subprocess.DEVNULL,
                                        env={**os.environ, **(environment or {})},
                                        preexec_fn=die_with_parent)
        try:
            self.port = self._find_port()
        except BaseException:
            self.stop()
            raise

    def read_log(self):
        self.log.seek(0)
        return self.log.read()

    def _find_port(self):
        for _ in range(100):
            text = self.read_log()
            found = re.search(r"listening on .* port (\d+)", text)
            if found:
                return int(found[1])
            if not self.alive():
                break
            time.sleep(0.05)
        raise RuntimeError(f"the server did not start: {text.strip()}")

    @property
    def pid(self):
        return self.process.pid

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        end_group(self.process)
        self.log.close()
