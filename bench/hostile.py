# SPDX-License-Identifier: Apache-2.0
"""Messages of the protocol, and peers that misuse it: each function is one go of one of them."""
import os
import socket
import struct
import time
import zlib

MAGIC, VERSION, TYPE_REQUEST = 0x504D5AF5, 1, 1
HEADER = struct.Struct("<IHHHHIHHIQi")  # the CRC-32 follows
HEADER_SIZE = HEADER.size + 4


def mode(sort_key, threads=False):
    return struct.pack("<i", sort_key | (0xFF00 if threads else 0))


def paths(*names):
    return b"".join(name.encode().ljust(32, b"\0") for name in names)


PROCESSES, THREADS = (2, 2, mode(1)), (2, 2, mode(1, threads=True))
HELLO, MEMORY = (1, 1, b""), (3, 2, b"")

# Command, sub-command and payload of every request (docs/protocol.md).
REQUESTS = ([HELLO, (2, 1, b""), PROCESSES, THREADS, (2, 6, b"")] +
            [(3, sub, b"") for sub in (1, 2, 3, 5)] + [(3, 4, paths("/"))] +
            [(4, 1, b""), (5, 1, b"")] + [(6, sub, b"") for sub in (1, 2, 3)])


def request(kind):
    command, sub_command, payload = kind
    head = HEADER.pack(MAGIC, VERSION, command, sub_command, TYPE_REQUEST, len(payload), 0, 1, 0,
                       0, 0)
    return head + struct.pack("<I", zlib.crc32(head + payload)) + payload


def connect(port, seconds=0.05, source="127.0.0.2"):
    """seconds: that a send or a receive may take. source: not the address of those who behave."""
    peer = socket.create_connection(("127.0.0.1", port), 2, (source, 0))
    peer.settimeout(seconds)
    return peer


def receive(peer, size):
    data = b""
    while len(data) < size:
        part = peer.recv(size - len(data))
        if not part:
            raise ConnectionResetError("closed by the server")
        data += part
    return data


def read_answer(peer):
    """Status and payload."""
    fields = HEADER.unpack(receive(peer, HEADER_SIZE)[:HEADER.size])
    return fields[10], receive(peer, fields[5])


def take_answer(peer):
    try:
        peer.recv(65536)
    except OSError:
        pass


def random_bytes(port, chance):
    with connect(port) as peer:
        peer.send(chance.randbytes(chance.randrange(1, 5000)))
        take_answer(peer)


def flipped_bits(port, chance):
    message = bytearray(request(chance.choice(REQUESTS)))
    message[chance.randrange(len(message))] ^= 1 << chance.randrange(8)
    with connect(port) as peer:
        peer.send(message[:chance.randrange(len(message)) + 1])
        take_answer(peer)


def valid_requests(port, chance):
    with connect(port) as peer:
        for _ in range(20):
            peer.send(request(chance.choice(REQUESTS)))
            take_answer(peer)


def slow_writer(port, chance):
    with connect(port) as peer:
        for byte in request(chance.choice(REQUESTS))[:30]:
            peer.send(bytes([byte]))
            time.sleep(0.02)


def never_reads(port, chance):
    with connect(port) as peer:
        for _ in range(300):
            peer.send(request(PROCESSES))
        time.sleep(0.5)


def many_connections(port, chance):
    peers = []
    try:
        for _ in range(chance.choice((100, 1000))):
            peers.append(connect(port))
        time.sleep(0.5)
    finally:
        for peer in peers:
            peer.close()


def short_processes(port, chance):
    """A thousand in about a second."""
    for _ in range(1000):
        pid = os.fork()
        if pid == 0:
            os._exit(0)
        os.waitpid(pid, 0)
