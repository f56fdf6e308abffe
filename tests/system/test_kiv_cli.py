"""kiv_cli against a real service: the peer receives "kivMessage" through the JSON command service,
runs the command through the CLI table and prints on the terminal or FIFO named in the message."""

import os
import re
import select
import subprocess
import time

import pytest

from peer import kiv_cli_binary, start_peer, stop_peer

HELP = "\nkiv_cli dnsproxy view statistic\nkiv_cli dnsproxy echo <text>\n"


@pytest.fixture
def tmpdir_env(bus_lab, tmp_path):
    """The lab's environment with a TMPDIR of the test's own, to see what kiv_cli leaves there."""
    return bus_lab.env({"TMPDIR": str(tmp_path)})


def kiv_cli(env, *words, timeout=30, **kw):
    return subprocess.run([kiv_cli_binary(), *words], env=env, capture_output=True, text=True,
                          timeout=timeout, **kw)


def test_output_comes_back_through_a_fifo(bus_lab, tmpdir_env, tmp_path):
    p = start_peer(bus_lab)
    r = kiv_cli(tmpdir_env, "dnsproxy", "view", "statistic")
    assert (r.returncode, r.stderr) == (0, "")
    assert r.stdout == "\npeer statistic\nsignals received : 0\ncalls received   : 0\n"
    fifo = re.search(r"cli tty=(\S+) cmd=view statistic\ncli done moved=1\n", p.stderr()).group(1)
    assert re.fullmatch(rf"{tmp_path}/kiv_cli\.\w+/out", fifo)

    # Words are joined by one blank; a word's own blanks stay.
    r = kiv_cli(tmpdir_env, "dnsproxy", "echo", "a", "b  c")
    assert (r.returncode, r.stdout) == (0, "echo [a b  c]\n")
    r = kiv_cli(tmpdir_env, "dnsproxy", "view", "nothing")
    assert (r.returncode, r.stdout) == (0, HELP)
    # More than a pipe holds: the peer blocks until kiv_cli has copied it.
    r = kiv_cli(tmpdir_env, "dnsproxy", "view", "bulk")
    lines = r.stdout.splitlines()
    assert r.returncode == 0 and len(lines) == 4000
    assert lines[0].startswith("bulk line 0000 ") and lines[-1].startswith("bulk line 3999 ")
    assert list(tmp_path.iterdir()) == []  # every FIFO removed
    stop_peer(p)


def test_a_reader_that_goes_away_harms_neither_side(bus_lab, tmpdir_env, tmp_path):
    p = start_peer(bus_lab)
    r = subprocess.run(["bash", "-c", f"{kiv_cli_binary()} dnsproxy view bulk | head -n 1"], env=tmpdir_env,
                       capture_output=True, text=True, timeout=30)
    assert r.stdout.startswith("bulk line 0000 ")
    assert kiv_cli(tmpdir_env, "dnsproxy", "echo", "still here").stdout == "echo [still here]\n"
    assert list(tmp_path.iterdir()) == []
    stop_peer(p)


def test_output_goes_to_the_callers_terminal(bus_lab):
    p = start_peer(bus_lab)
    master, slave = os.openpty()
    try:
        r = subprocess.run([kiv_cli_binary(), "dnsproxy", "echo", "on", "the", "terminal"], env=bus_lab.env(),
                           stdout=slave, stderr=subprocess.PIPE, timeout=30)
        assert r.returncode == 0, r.stderr
        seen = b""
        deadline = time.monotonic() + 10
        while b"echo [on the terminal]" not in seen and time.monotonic() < deadline:
            if select.select([master], [], [], 0.2)[0]:
                seen += os.read(master, 4096)
        assert b"echo [on the terminal]\r\n" in seen
        assert f"cli tty={os.ttyname(slave)} cmd=echo on the terminal\ncli done moved=1\n" in p.stderr()
    finally:
        os.close(master)
        os.close(slave)
    stop_peer(p)


def test_unreachable_bus_or_daemon_is_an_error(bus_lab, tmpdir_env, tmp_path):
    r = kiv_cli({**tmpdir_env, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path}/no-bus"}, "dnsproxy", "help")
    assert r.returncode == 1 and r.stderr.startswith("kiv_cli: cannot reach the system bus: ")
    r = kiv_cli(tmpdir_env, "dnsproxy", "help")
    assert r.returncode == 1
    assert r.stderr == "kiv_cli: dnsproxy is not running (orvik.kiv.dnsproxy has no owner on the system bus)\n"

    # Owned, but nobody acts on "kivMessage": the wait for the FIFO is bounded.
    p = start_peer(bus_lab, "--no-cli")
    start = time.monotonic()
    r = kiv_cli(tmpdir_env, "-t", "0.5", "dnsproxy", "view", "statistic")
    assert time.monotonic() - start < 5
    assert (r.returncode, r.stdout) == (1, "")
    assert r.stderr == "kiv_cli: dnsproxy did not open the output FIFO within 500 ms\n"
    assert list(tmp_path.iterdir()) == []
    stop_peer(p)


@pytest.mark.parametrize("args, message", [
    ([], "no daemon named"),
    (["dnsproxy"], "no command given"),
    (["dhcpd", "help"], "unknown daemon dhcpd"),
    (["-t", "0", "dnsproxy", "help"], "-t takes seconds between 0 and 3600, not 0"),
])
def test_usage_errors(bus_lab, args, message):
    r = kiv_cli(bus_lab.env(), *args)
    assert r.returncode == 2
    assert r.stderr.startswith(f"kiv_cli: {message}\nusage: kiv_cli [-t seconds] <daemon> <command words...>\n")
