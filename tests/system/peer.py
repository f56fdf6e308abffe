"""Helpers for the tests of the platform layer: the test peer (a bus service built on the platform
libraries alone), kiv_cli, dbus-send calls and bounded waits on a process's log."""

import os
import re
import select
import subprocess
import time
from pathlib import Path

from lab import BUS_NAME, OBJECT_PATH, REPO

API = "orvik.kiv.dnsproxy.itf.api"
JSON_API = "orvik.kiv.dnsproxy.itf.json.api"
MSG = "orvik.kiv.dnsproxy.itf.msg"
JSON_MSG = "orvik.kiv.dnsproxy.itf.json.msg"


def build_dir():
    return Path(os.environ.get("DNSPROXY_BUILD_DIR", REPO / "build"))


def peer_binary():
    return str(build_dir() / "tests" / "platform_peer")


def kiv_cli_binary():
    return str(build_dir() / "kiv_cli")


def start_peer(lab, *args):
    """The peer, ready once it answers a ping on the bus."""
    return lab.start_dnsproxy(*args, binary=peer_binary())


def stop_peer(peer):
    """Ends the peer with SIGTERM; it must shut down cleanly (sanitizers included)."""
    assert peer.stop() == 0, peer.stderr()
    assert "removed " in peer.stderr()


def dbus_send(lab, *args, dest=BUS_NAME, path=OBJECT_PATH, signal=False):
    """dbus-send on the lab's bus: a method call with its reply printed, or a signal."""
    cmd = ["dbus-send", "--system"]
    cmd += ["--type=signal"] if signal else ["--print-reply", "--reply-timeout=5000"]
    if dest:
        cmd.append(f"--dest={dest}")
    return subprocess.run(cmd + [path, *args], env=lab.env(), capture_output=True, text=True, timeout=30)


def call(lab, method, *args):
    r = dbus_send(lab, method, *args)
    assert r.returncode == 0, r.stderr
    return r.stdout


def wait_for(read, pattern, timeout=10.0):
    """Waits until read() matches pattern; returns the match."""
    deadline = time.monotonic() + timeout
    while True:
        m = re.search(pattern, read())
        if m:
            return m
        if time.monotonic() > deadline:
            raise AssertionError(f"{pattern!r} did not appear within {timeout} s:\n{read()}")
        time.sleep(0.02)


class OutputReader:
    """Collects a process's standard output (opened as bytes) with bounded waits."""

    def __init__(self, proc):
        self.proc = proc
        self.data = b""

    def text(self):
        return self.data.decode(errors="replace")

    def wait_for(self, marker, timeout=10.0):
        deadline = time.monotonic() + timeout
        fd = self.proc.stdout.fileno()
        while marker not in self.text():
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError(f"{marker!r} not seen within {timeout} s:\n{self.text()}")
            ready, _, _ = select.select([fd], [], [], left)
            if ready:
                chunk = os.read(fd, 65536)
                if not chunk:
                    raise AssertionError(f"output ended before {marker!r}:\n{self.text()}")
                self.data += chunk
        return self.text()
