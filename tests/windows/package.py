"""The package for Windows, unpacked in a Wine prefix of its own, with nothing else in it: the agent
starts, and the outage scenario ends with every event once and in order.

    package.py ZIP
"""

import os
import pathlib
import subprocess
import sys
import unittest
import zipfile

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "integration"))
import support  # noqa: E402

EVENTS = 25_000


class Package(support.AgentTest):
    def setUp(self):
        super().setUp()
        prefix = self.directory / "prefix"
        os.environ.update(WINEPREFIX=str(prefix), WINEDEBUG="-all",
                          WINEDLLOVERRIDES="mscoree,mshtml=", LC_ALL="C.UTF-8")
        # Wine's own programs and the system's are all that is left of this machine's.
        os.environ["PATH"] = "/usr/bin:/bin"
        for name in ("DISPLAY", "WINEPATH"):
            os.environ.pop(name, None)
        prefix.mkdir()
        subprocess.run(["wineboot", "-i"], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=support.LIMIT)
        self.addCleanup(subprocess.run, ["wineserver", "-k"], check=False)
        place = prefix / "drive_c" / "Program Files"
        with zipfile.ZipFile(ZIP) as archive:
            archive.extractall(place)
        (self.package,) = place.glob("orlo-*")

    def run_program(self, name, *arguments):
        return subprocess.run(["wine", str(self.package / name), *arguments],
                              cwd=self.package, capture_output=True, text=True,
                              timeout=support.LIMIT)

    def run_agent(self, *arguments):
        return self.run_program("orlo-agent.exe", *arguments)

    def start_agent(self, config):
        return self.start(config, arguments=["wine", str(self.package / "orlo-agent.exe"), "run",
                                             "--config", str(config)])

    def test_everything_is_in_it_and_an_outage_loses_nothing(self):
        names = {path.name for path in self.package.iterdir()}
        self.assertLessEqual({"README.txt", "example.yaml", "quickstart.yaml", "licenses"}, names)
        for licence in (self.package / "licenses").iterdir():
            self.assertIn("opyright", licence.read_text(encoding="utf-8"), licence.name)
        self.assertRegex(self.run_agent("--version").stdout, r"^orlo-agent \d+\.\d+\.\d+")
        for name in ("quickstart.yaml", "stdin.yaml"):
            checked = self.run_agent("check", "--config", name)
            self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)), drain="1s")
        agent = self.start_agent(config)
        support.send(agent.port(), b"held\n")
        agent.wait_for(r"\(near\)")
        agent.wait_for("can't be reached")
        events = support.numbered(0, EVENTS)
        support.send(agent.port(), support.as_lines(events))
        self.wait_for_cached(EVENTS)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (0, EVENTS, 0, 1))

        looked = self.run_program("orlo-cache.exe", "verify", str(self.directory / "data"))
        self.assertEqual(looked.returncode, 0, looked.stdout + looked.stderr)
        self.assertIn(f"{EVENTS} events", looked.stdout)
        exported = self.run_program("orlo-cache.exe", "export", str(self.directory / "data"),
                                    "--format", "raw")
        self.assertEqual(exported.stdout.encode(), support.as_lines(events))

        receiver = self.receiver(port)
        agent = self.start_agent(config)
        self.assertEqual(receiver.wait_for_lines(EVENTS), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (EVENTS, 0, 0, 0))
        self.assertEqual(self.chunks(), [])


if __name__ == "__main__":
    ZIP = sys.argv.pop(1)
    # Nothing of the build tree is used.
    support.AGENT = support.MODULES = ZIP
    support.LAUNCHER = ["wine"]
    support.STOP = support.signal.SIGINT
    unittest.main()
