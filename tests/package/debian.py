#!/usr/bin/env python3
"""The Debian package, installed in a fresh root of its own: it is installed with what it depends on, the
agent runs as its user, upgrade and removal keep events and configuration, and a purge removes them.

    tests/package/debian.py     makes two versions of the package first
        --no-build              of what is built already
        --base DIRECTORY        copies a root that debootstrap has made earlier

Needs root and a mirror of Debian, and takes some minutes."""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "integration"))
import support  # noqa: E402

EVENTS = 5000
SOURCES = pathlib.Path("/etc/apt/sources.list.d/debian.sources")
# What a unit may be exposed to at most, as systemd-analyze counts.
EXPOSURE = 3.0


def run(*command, expect=0, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, **options)
    if done.returncode != expect:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def make_packages(directory):
    """The package, and a later version of it."""
    made = []
    arguments = ["--no-build"] if OPTIONS.no_build else []
    for version in ([], ["--version", "99.0"]):
        made_now = subprocess.run([str(ROOT / "script" / "package"), *arguments, *version],
                                  stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
        made.append(pathlib.Path(shutil.copy(made_now, directory)))
        arguments = ["--no-build"]
    return made


class FreshRoot:
    """The smallest Debian system, with processes of it seen in its /proc."""

    def __init__(self, directory):
        self.path = directory / "root"
        if OPTIONS.base:
            run("cp", "-a", OPTIONS.base, self.path)
        else:
            run("debootstrap", "--variant=minbase", "bookworm", self.path)
        if SOURCES.exists():
            (self.path / "etc" / "apt" / "sources.list").unlink(missing_ok=True)
            shutil.copy(SOURCES, self.path / SOURCES.relative_to("/"))
        shutil.copy("/etc/resolv.conf", self.path / "etc" / "resolv.conf")
        # Nothing is to be started by packages: there is no system that runs.
        policy = self.path / "usr" / "sbin" / "policy-rc.d"
        policy.write_text("#!/bin/sh\nexit 101\n")
        policy.chmod(0o755)
        run("mount", "-t", "proc", "proc", self.path / "proc")
        self.run("apt-get", "update", "-q")

    def run(self, *command, expect=0):
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                       "DEBIAN_FRONTEND": "noninteractive"}
        return run("chroot", self.path, *command, expect=expect, env=environment)

    def install(self, package):
        shutil.copy(package, self.path / "tmp")
        return self.run("apt-get", "install", "-q", "-y", "--no-install-recommends",
                        f"/tmp/{package.name}")

    def close(self):
        subprocess.run(["umount", str(self.path / "proc")], check=False)


class DebianPackage(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.packages = make_packages(self.directory)

    def start_in(self, root):
        return self.start(None, arguments=[
            "chroot", str(root.path), "setpriv", "--reuid=orlo-agent", "--regid=orlo-agent",
            "--clear-groups", "--no-new-privs", "orlo-agent", "run", "--config",
            "/etc/orlo-agent/agent.yaml"])

    def install_under_systemd(self, root, package):
        """Installs it where systemd seems to run; returns with what it was called."""
        called = root.path / "tmp" / "called"
        systemctl = root.path / "usr" / "bin" / "systemctl"
        self.assertFalse(systemctl.exists(), "the smallest system has none")
        systemctl.write_text('#!/bin/sh\necho "$@" >> /tmp/called\n')
        systemctl.chmod(0o755)
        policy = root.path / "usr" / "sbin" / "policy-rc.d"
        text = policy.read_text()
        policy.write_text("#!/bin/sh\nexit 0\n")
        running = root.path / "run" / "systemd" / "system"
        running.mkdir(parents=True)
        root.install(package)
        running.rmdir()
        systemctl.unlink()
        policy.write_text(text)
        return called.read_text().splitlines()

    def cached_in(self, root):
        listed = root.run("orlo-cache", "verify", "/var/lib/orlo-agent")
        return int(re.search(r"(\d+) events?,", listed).group(1))

    def check_package(self, package):
        print(run("lintian", "--fail-on=error,warning", "--allow-root", package))
        unpacked = self.directory / "unpacked"
        run("dpkg-deb", "-x", package, unpacked)
        unit = unpacked / "lib" / "systemd" / "system" / "orlo-agent.service"
        analysis = run("systemd-analyze", "security", "--offline=true", "--no-pager", unit)
        exposure = float(re.search(r"exposure level.*: ([\d.]+)", analysis).group(1))
        print(f"exposure {exposure}")
        self.assertLess(exposure, EXPOSURE)
        # Compiled in the tree and installed elsewhere, nothing may point back.
        for program in (unpacked / "usr" / "bin").iterdir():
            self.assertNotIn(str(ROOT).encode(), program.read_bytes(), program.name)

    def test_it_is_installed_runs_is_upgraded_removed_and_purged(self):
        self.check_package(self.packages[0])
        root = FreshRoot(self.directory)
        self.addCleanup(root.close)

        root.install(self.packages[0])
        etc = root.path / "etc" / "orlo-agent"
        state = root.path / "var" / "lib" / "orlo-agent"
        user = root.run("id", "-u", "orlo-agent").strip()
        self.assertEqual(str(state.stat().st_uid), user)
        self.assertEqual(state.stat().st_mode & 0o777, 0o750)
        root.run("orlo-agent", "check", "--config", "/etc/orlo-agent/agent.yaml")
        root.run("orlo-agent", "check", "--config",
                 "/usr/share/doc/orlo-agent/examples/quickstart.yaml")

        # The administrator changes the configuration.
        port = self.refusing_port()
        config = (etc / "agent.yaml").read_text()
        changed = config.replace(":5140", ":0").replace(":6514", f":{port.number}")
        self.assertEqual(changed.count(f":{port.number}"), 1)
        (etc / "agent.yaml").write_text(changed.replace("keep_free: 1GiB", "keep_free: 0"))
        changed = (etc / "agent.yaml").read_text()

        agent = self.start_in(root)
        support.send(agent.port(), b"held\n")
        agent.wait_for("can't be reached")
        events = support.numbered(0, EVENTS)
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: self.cached_in(root) == EVENTS, "events in the cache")
        self.assertEqual(agent.stop(), 0)
        for path in state.rglob("*"):
            self.assertEqual(str(path.stat().st_uid), user, path)

        asked = self.install_under_systemd(root, self.packages[1])
        self.assertIn("try-restart orlo-agent.service", asked)
        self.assertEqual([line for line in asked if re.match(r"(--\S+ )*(re)?start ", line)], [])
        self.assertIn("99.0", root.run("dpkg-query", "-W", "orlo-agent"))
        self.assertEqual((etc / "agent.yaml").read_text(), changed)
        self.assertEqual(self.cached_in(root), EVENTS)

        root.run("apt-get", "remove", "-q", "-y", "orlo-agent")
        self.assertFalse((root.path / "usr" / "bin" / "orlo-agent").exists())
        self.assertEqual((etc / "agent.yaml").read_text(), changed)
        self.assertTrue(list(state.glob("Events/Default/*/*")))

        root.install(self.packages[1])
        self.assertEqual((etc / "agent.yaml").read_text(), changed)
        # What root requeues, the agent's user can deliver and remove.
        root.run("orlo-cache", "export", "/var/lib/orlo-agent", "--output", "/tmp/events.json")
        root.run("orlo-cache", "requeue", "/var/lib/orlo-agent", "/tmp/events.json")
        receiver = self.receiver(port)
        agent = self.start_in(root)
        self.assertEqual(receiver.wait_for_lines(2 * EVENTS), 2 * events)
        support.wait_until(lambda: self.cached_in(root) == 0, "an empty cache")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2 * EVENTS, 0, 0, 0))

        root.run("apt-get", "purge", "-q", "-y", "orlo-agent")
        self.assertFalse(etc.exists())
        self.assertFalse(state.exists())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--no-build", action="store_true")
    parser.add_argument("--base")
    OPTIONS, rest = parser.parse_known_args()
    sys.argv[1:] = rest
    if os.geteuid() != 0:
        sys.exit("tests/package/debian.py needs root: it makes a root of its own to install into")
    # Nothing of the build tree is used.
    support.AGENT = support.MODULES = "installed"
    unittest.main()
