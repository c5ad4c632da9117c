# SPDX-License-Identifier: Apache-2.0
"""Sleeping processes or threads, to be watched."""
import os
import select
import subprocess
import time

from programs import die_with_parent, end_group

HERE = os.path.dirname(os.path.abspath(__file__))
PROGRAM = os.path.join(os.path.dirname(HERE), "build", "bench", "loads")


def build():
    os.makedirs(os.path.dirname(PROGRAM), exist_ok=True)
    subprocess.run(["cc", "-O1", "-Wall", "-Wextra", "-pthread", f"{HERE}/loads.c",
                    "-o", PROGRAM], check=True, timeout=60)


def tasks_of_machine():
    """Processes and threads, as the fourth figure of /proc/loadavg counts them."""
    with open("/proc/loadavg") as file:
        return int(file.read().split()[3].split("/")[1])


class Load:
    """With Load("processes" or "threads", count): they are there."""

    def __init__(self, kind, count):
        self.tasks_before = tasks_of_machine()
        self.process = subprocess.Popen([PROGRAM, kind, str(count)], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, preexec_fn=die_with_parent)
        try:
            ready = select.select([self.process.stdout], [], [], 60)[0]
            if not ready or self.process.stdout.readline() != b"ready\n":
                raise RuntimeError(f"{count} {kind} cannot be started")
        except BaseException:
            end_group(self.process)
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end_group(self.process)
        self.process.stdout.close()
        end = time.monotonic() + 10
        while tasks_of_machine() > self.tasks_before + 50 and time.monotonic() < end:
            time.sleep(0.1)
