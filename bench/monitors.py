# SPDX-License-Identifier: Apache-2.0
"""The monitors that are compared, each with a cycle of a second."""
import os
import re
import shutil
import subprocess


class Monitor:
    """A way to look at the machine: a command, and a text that it prints with its first figures.

    server_options: of the server that it wants; None: it wants none.
    steady_bursts: every refresh is one burst of output. Where the panels are filled one by one,
    the clock has to tell.
    """

    def __init__(self, name, command, figures, environment=None, server_options=None,
                 steady_bursts=True):
        self.name, self.command, self.figures = name, command, figures
        self.environment = environment
        self.server_options = server_options
        self.steady_bursts = steady_bursts

    @property
    def ours(self):
        return self.server_options is not None

    def installed(self):
        return shutil.which(self.command[0]) is not None


def write_file(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write(text)


def peers(home, threads):
    """What is compared with: first the one that the limits name. Their settings are in home."""
    write_file(f"{home}/btop/btop.conf", "update_ms = 1000\n")
    write_file(f"{home}/htop/htoprc", "hide_userland_threads=0\n")
    private = {"HOME": home, "XDG_CONFIG_HOME": home}
    top = ["top", "-H", "-b"] if threads else ["top", "-b"]
    return [
        Monitor(" ".join(top), [*top, "-d", "1"], rb"load average", private),
        Monitor("htop", ["htop", "-d", "10"], rb"Load average", private),
        Monitor("btop", ["btop"], rb"0/\d+\x1b", private),  # has no view of all threads
    ]


def library_path(binaries):
    """A folder lib beside the programs goes before the one that they were built with."""
    beside = os.path.join(os.path.dirname(os.path.abspath(binaries)), "lib")
    if "LD_LIBRARY_PATH" in os.environ or not os.path.isdir(beside):
        return {}
    return {"LD_LIBRARY_PATH": beside}


def zorva(binaries, *options, server_options=()):
    name = " ".join(["zorva", *options, *(f"({option})" for option in server_options)])
    return Monitor(name, [f"{binaries}/zorva", "-d", "1000", *options],
                   rb"(?s)CPU %.*total +\d", library_path(binaries), server_options,
                   steady_bursts="-b" in options)


def versions(names):
    """What is installed, in a line."""
    found = []
    for name in names:
        option = "-V" if name == "top" else "--version"
        try:
            text = subprocess.run([name, option], capture_output=True, text=True, timeout=5).stdout
        except (OSError, subprocess.TimeoutExpired):
            text = ""
        number = re.search(r"\d+(\.\d+)+", text)
        found.append(f"{name} {number[0] if number else '-'}")
    return ", ".join(found)
