"""The Debian package on this machine: its files in place, its unit and scripts accepted, the
installed daemon answering in the lab as the unit starts it, and a purge that leaves nothing."""

import fcntl
import os
import re
import shlex
import subprocess
from pathlib import Path

import pytest

from lab import REPO, WAN_V4

BUILD = REPO / "build-package"
UNIT = "/usr/lib/systemd/system/dnsproxy.service"
PROCD = "/usr/share/dnsproxy/init.d/dnsproxy"
EXAMPLE = "/usr/share/doc/dnsproxy/flipla.conf.example"
MAN_PAGES = ["/usr/share/man/man8/dnsproxy.8.gz", "/usr/share/man/man1/kiv_cli.1.gz"]
INSTALLED = {"/usr/sbin/dnsproxy", "/usr/bin/kiv_cli", "/usr/share/dbus-1/system.d/orvik.kiv.dnsproxy.conf",
             UNIT, PROCD, EXAMPLE, *MAN_PAGES}
ENABLED_LINK = Path("/etc/systemd/system/multi-user.target.wants/dnsproxy.service")


def sh(*cmd, ok=True, **kw):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=400, **kw)
    assert ok is None or (r.returncode == 0) == ok, f"{cmd} exited with {r.returncode}:\n{r.stdout}{r.stderr}"
    return r


def build_package():
    """A Release build of its own (no sanitizers), packaged with CPack: the .deb's path."""
    sh("cmake", "-S", REPO, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=OFF",
       "-DCMAKE_INSTALL_PREFIX=/usr")
    sh("cmake", "--build", BUILD, f"-j{os.cpu_count()}")
    return re.search(r"package: (\S+\.deb) generated", sh("cpack", "-G", "DEB", cwd=BUILD).stdout).group(1)


def unit_settings():
    lines = Path(UNIT).read_text().splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line and not line.startswith("#"))


def start_as_unit(lab, unit):
    """The installed daemon as ExecStart starts it, within the unit's capability bounding set."""
    caps = ",".join("+" + c.lower().removeprefix("cap_") for c in unit["CapabilityBoundingSet"].split())
    return lab.start_dnsproxy("--bounding-set", f"-all,{caps}", "--no-new-privs", *shlex.split(unit["ExecStart"]),
                              binary="setpriv")


def view_config(lab):
    return sh("/usr/bin/kiv_cli", "dnsproxy", "view", "config", env=lab.env()).stdout


def check_installed(lab, files):
    assert files == INSTALLED
    r = sh("systemd-analyze", "verify", UNIT)
    assert "dnsproxy" not in r.stdout + r.stderr
    sh("systemd-analyze", "security", "--offline=yes", "--threshold=30", UNIT)
    sh("sh", "-n", PROCD)
    for page in MAN_PAGES:
        assert sh("man", "--warnings", "-l", page).stderr == ""

    unit = unit_settings()
    lab.start_knot()
    lab.write("/etc/resolv.conf", f"nameserver {WAN_V4[2]}\n")
    lab.write("/etc/flipla.conf", Path(EXAMPLE).read_text())
    d = start_as_unit(lab, unit)
    assert [a[3] for a in lab.query("www.lab.example")["answer"]] == ["203.0.113.10"]
    example = view_config(lab)
    assert str(d.stop()) in unit["SuccessExitStatus"].split()
    assert "Unkown config option" not in d.stderr()
    lab.write("/etc/flipla.conf", "")
    start_as_unit(lab, unit)
    assert view_config(lab) == example  # the example holds every key at its default
    sh("systemctl", "enable", "dnsproxy.service")
    assert ENABLED_LINK.is_symlink()


def test_package_installs_answers_and_purges(lab):
    with open("/run/lock/dnsproxy-package-test.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # one such test on this machine at a time
        status = sh("dpkg-query", "-W", "-f", "${db:Status-Status}", "dnsproxy", ok=None)
        if status.returncode == 0 and status.stdout != "not-installed":
            pytest.skip(f"a dnsproxy package is on this machine ({status.stdout}): this test installs and "
                        "purges its own, so it leaves that one alone")
        deb = build_package()
        depends = sh("dpkg-deb", "-f", deb, "Depends").stdout
        assert re.match(r"dbus, .*libdbus-1-3 .*libjson-c", depends), depends
        try:
            sh("dpkg", "-i", deb)
            listed = sh("dpkg", "-L", "dnsproxy").stdout.split()
            check_installed(lab, {p for p in listed if os.path.isfile(p)})
        finally:
            sh("dpkg", "--purge", "dnsproxy", ok=None)
            link_left = ENABLED_LINK.is_symlink()
            ENABLED_LINK.unlink(missing_ok=True)
    assert not link_left
    # What is still there belongs to other packages too (/usr/share/man/man8, ...).
    left = [p for p in listed if os.path.lexists(p)]
    assert "no path found" not in sh("dpkg-query", "-S", *left, ok=None).stderr
