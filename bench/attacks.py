# SPDX-License-Identifier: Apache-2.0
"""The attacks of siege: what is there meanwhile, who the attackers are, what each of them does.

An attacker is a process of its own that says when it is ready and then goes on until it is killed.
Attackers yield the processor to the server and to who measures it: a slow answer is the server's.
"""
import contextlib
import fcntl
import os
import random
import resource
import select
import signal
import socket
import time

import hostile
from hostile import HELLO, THREADS, connect, mode, paths, read_answer, request
from loads import Load
from programs import PR_SET_PDEATHSIG, libc

ROOT, NOBODY = 0, 65534
NICE = 15
CLONE_NEWNS, MS_REC_PRIVATE, MNT_DETACH = 0x20000, 1 << 14 | 1 << 18, 2
TCP_REPAIR = 19


class Crowd:
    """Attackers. They end with this, and this with its parent."""

    def __init__(self):
        self.pids, self.told = [], b""
        self.ready, self.tell = os.pipe()

    def start(self, count, attacker, *arguments, user=NOBODY):
        for i in range(count):
            parent = os.getpid()
            pid = os.fork()
            if pid == 0:
                self._attack(parent, attacker, [*arguments, random.Random(i)], user)
            self.pids.append(pid)

    def _attack(self, parent, attacker, arguments, user):
        try:
            signal.signal(signal.SIGTERM, signal.SIG_DFL)
            os.closerange(3, self.tell)
            os.closerange(self.tell + 1, 256)
            os.nice(NICE)
            if user != os.getuid() == 0:
                os.setgroups([])
                os.setgid(user)
                os.setuid(user)
            libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)  # after setuid, which forgets it
            if os.getppid() == parent:
                attacker(lambda: os.write(self.tell, b"ready\n"), *arguments)
        except BaseException as problem:  # nothing of the parent's may run on in here
            os.write(self.tell, f"{attacker.__name__}: {problem!r}\n".encode())
        os._exit(1)

    def wait_ready(self, seconds):
        end = time.monotonic() + seconds
        while self.told.count(b"\n") < len(self.pids):
            if not select.select([self.ready], [], [], max(0, end - time.monotonic()))[0]:
                raise RuntimeError(f"attackers are not ready after {seconds} s")
            self.told += os.read(self.ready, 4096)
        for line in self.told.decode().splitlines():
            if line != "ready":
                raise RuntimeError(line)

    def stop(self):
        for pid in self.pids:
            os.kill(pid, signal.SIGKILL)
        for pid in self.pids:
            os.waitpid(pid, 0)
        os.close(self.ready)
        os.close(self.tell)


def for_ever(step, *arguments):
    while True:
        try:
            step(*arguments)
        except OSError:  # the server may close, reset and refuse as it likes
            time.sleep(0.05)


def misbehave(ready, port, plague, chance):
    ready()
    for_ever(plague, port, chance)


def tcp_pair(listener):
    """The two ends of a connection."""
    near = socket.create_connection(listener.getsockname())
    return near, listener.accept()[0]


def listen():
    listener = socket.create_server(("127.0.0.1", 0), backlog=16)
    listener.settimeout(2)
    return listener


def churn_sockets(ready, descriptors, chance):
    """New sockets all the time, each below thousands of other descriptors."""
    null = os.open("/dev/null", os.O_RDONLY)
    low = [os.dup(null) for _ in range(4)]
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 100
    for _ in range(min(descriptors, limit)):
        os.dup(null)
    for number in low:
        os.close(number)
    ready()

    def one_connection():
        with listen() as listener:
            near, far = tcp_pair(listener)
            with near, far:
                for _ in range(5):
                    near.send(b"x" * 100)
                    far.recv(100)
                    time.sleep(0.2 + 0.1 * chance.random())
    for_ever(one_connection)


def use_sockets(ready, count, chance):
    """Data through all of so many sockets, once a second."""
    pairs = []
    while 2 * len(pairs) < count:
        with listen() as listener:
            pairs += [tcp_pair(listener) for _ in range(min(5000, count // 2 - len(pairs)))]
    ready()
    while True:
        began = time.monotonic()
        for near, far in pairs:
            near.send(b"x")
            far.recv(64)
        time.sleep(max(0.05, began + 1 - time.monotonic()))


def ask_once_a_second(ready, port, kind, chance):
    ready()

    def ask():
        with connect(port, 60) as peer:
            while True:
                peer.sendall(request(kind))
                read_answer(peer)
                time.sleep(1)
    for_ever(ask)


def pipeline(ready, port, kind, chance):
    """20 requests are always on their way."""
    ready()

    def ask():
        with connect(port, 60) as peer:
            peer.sendall(20 * request(kind))
            while True:
                read_answer(peer)
                peer.sendall(request(kind))
    for_ever(ask)


def ask_with_random_keys(ready, port, chance):
    ready()

    def ask():
        with connect(port, 60) as peer:
            while True:
                peer.sendall(request((2, 2, mode(chance.randrange(256)))))
                read_answer(peer)
    for_ever(ask)


def say_nothing(ready, port, chance):
    ready()
    peers = []

    def fill_up():
        for closed in select.select(peers, [], [], 0.5)[0]:
            peers.remove(closed)
        while len(peers) < 64:
            peers.append(connect(port))
    for_ever(fill_up)


def vanish(ready, port, chance):
    """Connections whose peer is there no more and sends nothing, not even that it has closed."""
    def come_and_go():
        peers = [connect(port, 2) for _ in range(8)]
        for peer in peers:
            peer.sendall(request(HELLO))
            read_answer(peer)
        for peer in peers:
            peer.setsockopt(socket.IPPROTO_TCP, TCP_REPAIR, 1)
            peer.close()
        time.sleep(0.1)
    ready()
    for_ever(come_and_go)


def leave_unread(ready, port, chance):
    """As many answers as make a little less than 1 MiB, the server's limit, and none is read."""
    ready()

    def ask():
        with socket.socket() as peer:
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            peer.bind(("127.0.0.2", 0))
            peer.settimeout(60)
            peer.connect(("127.0.0.1", port))
            peer.sendall(request(THREADS))
            answer_size = len(read_answer(peer)[1]) + hostile.HEADER_SIZE
            peer.sendall((1 << 20) // answer_size * request(THREADS))
            closed = select.poll()
            closed.register(peer, select.POLLRDHUP)
            closed.poll()
    for_ever(ask)


def hold_samples(ready, port, count, chance):
    """Two samples for each connection, which are its own as they are of different moments."""
    def ask():
        peers = [connect(port, 10) for _ in range(count)]
        for _ in range(2):
            for peer in peers:
                peer.sendall(request(THREADS))
                read_answer(peer)
                time.sleep(0.12)
        return peers
    ready()
    peers = []
    while True:
        try:
            peers = peers or ask()
        except OSError:
            peers = []
        time.sleep(1)


def ask_fresh_paths(ready, port, folder, chance):
    """16 spellings of a folder that nobody has asked for, again and again."""
    def spelling():
        path = folder
        while len(path) < 28:
            path += chance.choice(("/", "/."))
        return path
    ready()

    def ask():
        with connect(port, 60) as peer:
            while True:
                peer.sendall(request((3, 4, paths(*(spelling() for _ in range(16))))))
                read_answer(peer)
    for_ever(ask)


def mounts_of_its_own():
    """What this process mounts from now on ends with it and with those that it starts."""
    if libc.unshare(CLONE_NEWNS) == 0:
        libc.mount(b"none", b"/", None, MS_REC_PRIVATE, None)


DEAD_PATH = "/mnt"


@contextlib.contextmanager
def dead_mount():
    """A FUSE file system that nobody serves: whoever asks for it waits until it is closed."""
    device = os.open("/dev/fuse", os.O_RDWR)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0".encode()
    mounted = libc.mount(b"dead", DEAD_PATH.encode(), b"fuse", 0, options) == 0
    try:
        if not mounted:
            raise RuntimeError("FUSE cannot be mounted")
        yield
    finally:
        os.close(device)
        if mounted:
            libc.umount2(DEAD_PATH.encode(), MNT_DETACH)


class FullPipe:
    """Standard error of a server, read only while that is wanted. It looks like a file."""

    def __init__(self):
        self.text = ""
        self.out, self.into = os.pipe2(os.O_NONBLOCK)
        os.set_blocking(self.into, True)
        fcntl.fcntl(self.into, fcntl.F_SETPIPE_SZ, 4096)

    def fileno(self):
        return self.into

    def seek(self, _place):
        pass  # all of it is kept

    def read(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                self.text += os.read(self.out, 4096).decode()
        return self.text

    @contextlib.contextmanager
    def full(self):
        again = os.open(f"/proc/self/fd/{self.into}", os.O_WRONLY | os.O_NONBLOCK)
        for size in (1024, 1):
            with contextlib.suppress(BlockingIOError):
                while True:
                    os.write(again, b" " * size)
        os.close(again)
        yield
        self.read()

    def close(self):
        os.close(self.out)
        os.close(self.into)


class Attack:
    """What is done to a server.

    begin(crowd, port, size) starts the attackers; size: 1, in short runs `small`.
    around(server, size): context that the attack takes place in.
    root: whether only root can. log_stops: the server writes its log to a FullPipe.
    rest_seconds: within which the server can be expected to be as before.
    """

    def __init__(self, name, begin, small=1 / 4, around=lambda server, size: contextlib.nullcontext(),
                 server_options=(), root=False, log_stops=False, rest_seconds=10):
        self.name, self.begin, self.small, self.around = name, begin, small, around
        self.server_options, self.root, self.log_stops = server_options, root, log_stops
        self.rest_seconds = rest_seconds


def sleeping(kind, count):
    return lambda server, size: Load(kind, int(count * size))


def crowd_of(count, attacker, *arguments, user=NOBODY):
    """So many attackers on the server's port, whatever the size."""
    return lambda crowd, port, size: crowd.start(count, attacker, port, *arguments, user=user)


NO_BPF = ("--no-bpf",)
ATTACKS = [
    Attack("socket-owners", root=True, begin=lambda crowd, port, size:
           crowd.start(int(80 * size), churn_sockets, 19000)),
    Attack("busy-sockets", root=True, begin=lambda crowd, port, size:
           crowd.start(4, use_sockets, int(19800 * size))),
    Attack("thread-lists", crowd_of(30, ask_once_a_second, THREADS),
           around=sleeping("threads", 20000), server_options=NO_BPF),
    Attack("pipelines", crowd_of(55, pipeline, THREADS), around=sleeping("threads", 20000),
           server_options=NO_BPF),
    Attack("random-keys", crowd_of(55, ask_with_random_keys), around=sleeping("processes", 2000)),
    Attack("silent", crowd_of(1, say_nothing)),
    Attack("vanished", crowd_of(1, vanish, user=ROOT), root=True, rest_seconds=35),  # of silence
    Attack("unread", crowd_of(55, leave_unread)),
    Attack("held-samples", crowd_of(1, hold_samples, 56), around=sleeping("threads", 28000)),
    Attack("fresh-paths", crowd_of(10, ask_fresh_paths, "/tmp")),
    Attack("dead-mount", crowd_of(5, ask_fresh_paths, DEAD_PATH), root=True,
           around=lambda server, size: dead_mount()),
    Attack("log-stopped", crowd_of(2, misbehave, hostile.flipped_bits), log_stops=True,
           around=lambda server, size: server.log.full()),
    Attack("random-bytes", crowd_of(4, misbehave, hostile.random_bytes)),
    Attack("flipped-bits", crowd_of(4, misbehave, hostile.flipped_bits)),
    Attack("slow-writers", crowd_of(40, misbehave, hostile.slow_writer)),
    Attack("floods", crowd_of(2, misbehave, hostile.many_connections)),
]
