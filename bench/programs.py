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
    with open(f"/proc/{pid}/task/{pid}/children") as children:
        return bool(children.read().strip())


class InTerminal:
    """A program in a pty. Its output is read by a thread, counted, and kept up to a bound."""

    KEPT = 1 << 20

    def __init__(self, command, environment=None):
        self.started = time.monotonic()
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        self.process = subprocess.Popen(command, stdin=theirs, stdout=theirs, stderr=theirs,
                                        env={**os.environ, "TERM": "xterm-256color",
                                             "LC_ALL": "C.UTF-8", **(environment or {})},
                                        preexec_fn=die_with_parent)
        os.close(theirs)
        self.terminal = ours
        self.bytes = 0
        self.last_output = self.started
        self.text = b""
        self.changed = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()

    @property
    def pid(self):
        return self.process.pid

    def _read(self):
        while True:
            try:
                if not select.select([self.terminal], [], [], 1)[0]:
                    continue
                part = os.read(self.terminal, 65536)
            except (OSError, ValueError):
                part = b""
            with self.changed:
                self.bytes += len(part)
                self.last_output = time.monotonic()
                self.text = (self.text + part)[-self.KEPT:]
                self.changed.notify_all()
            if not part:
                return

    def wait_for(self, pattern, seconds):
        """Seconds from the start until the output holds the pattern, None if it never does."""
        end = time.monotonic() + seconds
        with self.changed:
            while not re.search(pattern, self.text):
                if time.monotonic() > end or not self.changed.wait(end - time.monotonic()):
                    return None
            return self.last_output - self.started

    def type(self, keys):
        os.write(self.terminal, keys)

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        os.close(self.terminal)


class Server:
    """A monitor server on a free port of the loopback address."""

    def __init__(self, binaries, options=()):
        self.log = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([f"{binaries}/mon_server", "--port", "0", *options],
                                        stderr=self.log, stdin=subprocess.DEVNULL,
                                        preexec_fn=die_with_parent)
        self.port = None
        for _ in range(100):
            self.log.seek(0)
            found = re.search(r"listening on .* port (\d+)", self.log.read())
            if found:
                self.port = int(found[1])
                return
            time.sleep(0.05)
        self.stop()
        raise RuntimeError("the server did not start")

    @property
    def pid(self):
        return self.process.pid

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        self.process.kill()
        self.process.wait()
