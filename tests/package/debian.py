#!/usr/bin/env python3
"""The Debian package, installed in a fresh root of its own: it is installed with what it depends on, the
agent runs as its user, upgrade and removal keep events and configuration, and a purge removes them. And
in a container that systemd runs: what becomes of the service.

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
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
               "DEBIAN_FRONTEND": "noninteractive"}


def run(*command, expect=0, **options):
    """Returns what the command says. It is to end with that code; None: with any."""
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, **options)
    if expect is None:
        return done.stdout
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
        return run("chroot", self.path, *command, expect=expect, env=ENVIRONMENT)

    def install(self, package):
        shutil.copy(package, self.path / "tmp")
        return self.run("apt-get", "install", "-q", "-y", "--no-install-recommends",
                        f"/tmp/{package.name}")

    def boot(self):
        """Hands the root to a machine, which is the caller's to close."""
        self.run("apt-get", "install", "-q", "-y", "--no-install-recommends", "systemd", "dbus")
        (self.path / "usr" / "sbin" / "policy-rc.d").unlink()
        self.close()
        return Machine(self.path)

    def close(self):
        if os.path.ismount(self.path / "proc"):
            run("umount", self.path / "proc")


class Machine:
    """The root as a container that systemd runs, with a network of its own that leads nowhere."""

    def __init__(self, path):
        self._container = subprocess.Popen(
            ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--private-network",
             "--resolv-conf=off", "--timezone=off", "--link-journal=no", "--directory", str(path),
             "--boot"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            number = self._container.pid
            children = pathlib.Path(f"/proc/{number}/task/{number}/children")
            self._init = support.wait_until(
                lambda: self._container.poll() is not None or children.read_text().split(),
                "the container")
            if self._container.poll() is not None:
                raise AssertionError("systemd-nspawn can't run a container on this machine")
            support.wait_until(
                lambda: self.run("systemctl", "is-system-running", expect=None).strip()
                in ("running", "degraded"), "the system in the container")
        except BaseException:
            self.close()
            raise

    def run(self, *command, expect=0, **options):
        return run("nsenter", "--target", self._init[0], "--mount", "--uts", "--ipc", "--net",
                   "--pid", "--cgroup", *command, expect=expect, env=ENVIRONMENT, **options)

    def install(self, package, *options):
        return self.run("apt-get", "install", "-q", "-y", "--no-install-recommends", *options,
                        f"/root/{package.name}")

    def journal(self):
        return self.run("journalctl", "-u", "orlo-agent", "--no-pager")

    def show(self, name):
        return self.run("systemctl", "show", "-p", name, "--value", "orlo-agent").strip()

    def wait_for(self, name, value):
        support.wait_until(lambda: self.show(name) == value, f"{name} {value}")

    def close(self):
        self._container.terminate()
        try:
            self._container.wait(support.LIMIT)
        except subprocess.TimeoutExpired:
            self._container.kill()
            self._container.wait()


class DebianPackage(support.AgentTest):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.mkdtemp(prefix="orlo-package-")
        cls.addClassCleanup(shutil.rmtree, directory)
        cls.packages = make_packages(directory)

    def start_in(self, root):
        return self.start(None, arguments=[
            "chroot", str(root.path), "setpriv", "--reuid=orlo-agent", "--regid=orlo-agent",
            "--clear-groups", "--no-new-privs", "orlo-agent", "run", "--config",
            "/etc/orlo-agent/agent.yaml"])

    def install_under_systemd(self, root, package):
        """Installs it where systemd seems to run and can't restart the agent; returns with what it
        was called."""
        called = root.path / "tmp" / "called"
        systemctl = root.path / "usr" / "bin" / "systemctl"
        self.assertFalse(systemctl.exists(), "the smallest system has none")
        systemctl.write_text('#!/bin/sh\necho "$@" >> /tmp/called\n'
                             'case "$*" in *restart*) exit 1;; esac\n')
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

    def boot_with_package(self):
        """A machine on which the package is installed and configured; and its configuration file."""
        root = FreshRoot(self.directory)
        self.addCleanup(root.close)
        root.install(self.packages[0])
        for package in self.packages:
            shutil.copy(package, root.path / "root")
        config = root.path / "etc" / "orlo-agent" / "agent.yaml"
        text = re.sub(r"^#(monitor:|  listen:)", r"\1", config.read_text(), flags=re.MULTILINE)
        self.assertIn('\nmonitor:\n  listen: "127.0.0.1:9464"\n', text)
        config.write_text(text.replace("keep_free: 1GiB", "keep_free: 0")
                          .replace("drain_timeout: 30s", "drain_timeout: 1s"))
        machine = root.boot()
        self.addCleanup(machine.close)
        return machine, config

    def check_reload(self, machine, config):
        good = config.read_text()
        config.write_text(good + "mistake: 1\n")
        machine.run("systemctl", "reload", "orlo-agent")
        support.wait_until(lambda: "has 1 mistake" in machine.journal(), "the mistake is named")
        # A port below 1024, which needs a capability.
        config.write_text(good.replace(":5140", ":514"))
        machine.run("systemctl", "reload", "orlo-agent")
        support.wait_until(lambda: "Listening on tcp://127.0.0.1:514." in machine.journal(),
                           "the other port")

    def check_watchdog(self, machine):
        drop_in = "/run/systemd/system/orlo-agent.service.d/watchdog.conf"
        machine.run("install", "-D", "-m", "644", "/dev/stdin", drop_in,
                    input="[Service]\nWatchdogSec=20s\n")
        machine.run("systemctl", "daemon-reload")
        machine.run("systemctl", "restart", "orlo-agent")
        for _ in range(3):
            told = machine.show("WatchdogTimestampMonotonic")
            support.wait_until(lambda: machine.show("WatchdogTimestampMonotonic") != told,
                               "a sign of life")
        self.assertEqual(machine.show("NRestarts"), "0")
        machine.run("systemctl", "kill", "--signal=STOP", "orlo-agent")
        support.wait_until(lambda: int(machine.show("NRestarts")) >= 1, "a restart")
        machine.wait_for("ActiveState", "active")
        self.assertIn("Watchdog timeout", machine.journal())

    def test_systemd_starts_reloads_watches_upgrades_and_stops_it(self):
        machine, config = self.boot_with_package()
        self.assertEqual(machine.show("ActiveState"), "inactive")
        machine.run("systemctl", "enable", "--now", "orlo-agent")
        self.assertEqual(machine.show("StatusText"), "1 stream")
        machine.run("orlo-agent", "status", "--config", "/etc/orlo-agent/agent.yaml")

        self.check_reload(machine, config)
        self.check_watchdog(machine)

        before = machine.show("MainPID")
        machine.install(self.packages[1])
        self.assertNotIn(machine.show("MainPID"), (before, "0"))
        self.assertEqual(machine.show("ActiveState"), "active")
        self.assertIn("99.0", machine.run("dpkg-query", "-W", "orlo-agent"))
        machine.run("systemctl", "stop", "orlo-agent")
        self.assertEqual(machine.show("Result"), "success")
        machine.install(self.packages[1], "--reinstall")
        self.assertEqual(machine.show("ActiveState"), "inactive")

        machine.run("systemctl", "start", "orlo-agent")
        machine.run("apt-get", "remove", "-q", "-y", "orlo-agent")
        self.assertEqual(machine.show("MainPID"), "0")
        machine.run("apt-get", "purge", "-q", "-y", "orlo-agent")
        self.assertEqual(machine.run("systemctl", "list-unit-files", "orlo-agent.service",
                                     expect=None).count("orlo-agent"), 0)


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
