"""The programs that are measured: how each is started, and how it is known to have come to rest."""

import pathlib
import re
import shlex
import struct

from scenario import Process, wait_until

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

    def __init__(self, root):
        self.root = pathlib.Path(root)

    def start(self, directory, inward, outward):
        config = write_config("rsyslog.conf", directory, inward, outward)
        return Process([self.root / "usr/sbin/rsyslogd", "-n", "-f", config, "-i",
                        directory / "pid", "-M",
                        self.root / "usr/lib/x86_64-linux-gnu/rsyslog"],
                       directory, {"LD_LIBRARY_PATH": libraries_of(self.root)})


class SyslogNg(System):
    name = "syslog-ng"

    def __init__(self, root):
        self.root = pathlib.Path(root)

    def start(self, directory, inward, outward):
        config = write_config("syslog-ng.conf", directory, inward, outward)
        modules = self.root / "usr/lib/syslog-ng/3.38"
        return Process([self.root / "usr/sbin/syslog-ng", "-F", "-f", config,
                        "-R", directory / "persist", "-p", directory / "pid",
                        "-c", directory / "control", "--module-path", modules,
                        "--no-caps"],
                       directory, {"LD_LIBRARY_PATH": libraries_of(self.root)})


def libraries_of(root):
    folders = [root / "usr/lib/x86_64-linux-gnu", root / "usr/lib/syslog-ng",
               root / "lib/x86_64-linux-gnu"]
    return ":".join(str(folder) for folder in folders if folder.exists())


class Command(System):
    """Any other program: a command line with {directory}, {in} and {out} to be filled in."""

    def __init__(self, text):
        self.name, _, self.command = text.partition("=")
        if not self.command:
            raise SystemExit("--peer-command takes NAME=COMMAND")

    def start(self, directory, inward, outward):
        values = {"directory": directory, "in": inward, "out": outward}
        return Process([word.format(**values) for word in shlex.split(self.command)], directory)
