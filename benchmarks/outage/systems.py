"""The programs that are measured: how each is started, and how it is known to have come to rest."""

import os
import pathlib
import re
import shlex
import struct
import sys

from document import version_of
from scenario import Process, wait_until

sys.path.append(str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "peers"))
import peers  # noqa: E402

CONFIG = pathlib.Path(__file__).parent / "config"


def write_config(name, directory, inward, outward):
    text = (CONFIG / name).read_text()
    for key, value in (("DIRECTORY", directory), ("IN", inward), ("OUT", outward)):
        text = text.replace(f"@{key}@", str(value))
    path = directory / name
    path.write_text(text)
    return path


class System:
    name = ""
    is_exact = False  # whether a round out of order, or with an event twice, is a failure

    def version(self):
        raise NotImplementedError

    def start(self, directory, inward, outward):
        raise NotImplementedError

    def wait_for_outage(self, process):
        """Until the first event has found nobody listening."""
        process.wait_for_rest()

    def wait_until_stored(self, process, directory, events):
        """Until all events are where they stay, if the program tells."""


class Orlo(System):
    name = "orlo-agent"
    is_exact = True

    def __init__(self, agent, modules, name=None):
        self.agent, self.modules = agent, modules
        self.name = name or self.name

    def version(self):
        return version_of([self.agent, "--version"],
                          {**os.environ, "LD_LIBRARY_PATH": self.modules})

    def start(self, directory, inward, outward):
        config = write_config("orlo.yaml", directory, inward, outward)
        libraries = str(pathlib.Path(self.modules))
        return Process([self.agent, "run", "--config", config, "--modules", self.modules],
                       directory, {"LD_LIBRARY_PATH": libraries})

    def wait_for_outage(self, process):
        wait_until(lambda: re.search(r"\(near\)", process.text()), "the first event is held")

    def wait_until_stored(self, process, directory, events):
        def cached():
            total = 0
            for chunk in (directory / "data" / "Events" / "Outage").glob("*/*"):
                head = chunk.open("rb").read(4)
                total += struct.unpack("<I", head)[0] if len(head) == 4 else 0
            return total
        wait_until(lambda: cached() == events, "the events are in the cache", 120)


class Rsyslog(System):
    name = "rsyslog"

    def __init__(self):
        self.root = peers.unpack(self.name)

    def version(self):
        return peers.version_of(self.name)

    def start(self, directory, inward, outward):
        config = write_config("rsyslog.conf", directory, inward, outward)
        return Process(peers.rsyslog_command(self.root, config, directory), directory,
                       {"LD_LIBRARY_PATH": peers.libraries_of(self.root)})


class SyslogNg(System):
    name = "syslog-ng"

    def __init__(self):
        self.root = peers.unpack(self.name)

    def version(self):
        return peers.version_of(self.name)

    def start(self, directory, inward, outward):
        config = write_config("syslog-ng.conf", directory, inward, outward)
        return Process(peers.syslog_ng_command(self.root, config, directory), directory,
                       {"LD_LIBRARY_PATH": peers.libraries_of(self.root)})


class Command(System):
    """Any other program: a command line with {directory}, {in} and {out} to be filled in."""

    def __init__(self, text):
        self.name, _, self.command = text.partition("=")
        if not self.command:
            raise SystemExit("--peer-command takes NAME=COMMAND")

    def version(self):
        return self.command

    def start(self, directory, inward, outward):
        values = {"directory": directory, "in": inward, "out": outward}
        return Process([word.format(**values) for word in shlex.split(self.command)], directory)
