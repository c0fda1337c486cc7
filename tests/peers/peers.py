"""rsyslog and syslog-ng, as receivers and as senders.

Their packages can't be installed together, so they are unpacked into a folder and run from there.
ORLO_PEERS names the folder; run by itself, this file fills it.
"""

import fcntl
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

# The program's own first; behind it what it needs and a small Debian has not.
PACKAGES = {
    "rsyslog": ["rsyslog", "rsyslog-relp", "rsyslog-openssl", "rsyslog-gnutls", "librelp0",
                "libestr0", "libfastjson4", "liblognorm5"],
    "syslog-ng": ["syslog-ng-core", "libivykis0", "libnet1", "libwrap0", "libglib2.0-0", "libpcre3",
                  "libjson-c5"],
}


def folder():
    cache = os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache")
    return pathlib.Path(os.environ.get("ORLO_PEERS") or pathlib.Path(cache) / "orlo-peers")


def unpack(name):
    """The folder with the program of that name, filled from the package archive if it must be."""
    root = folder().resolve() / name
    root.mkdir(parents=True, exist_ok=True)
    contents = root / "packages"
    with open(root / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        wanted = " ".join(PACKAGES[name])
        if (contents.exists() and contents.read_text() == wanted and
                (root / "version").exists()):
            return root
        with tempfile.TemporaryDirectory() as downloads:
            got = subprocess.run(["apt-get", "download", "-q", *PACKAGES[name]], cwd=downloads,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                 check=False)
            if got.returncode != 0:
                raise OSError(f"{name} could not be had from the package archive: {got.stderr}")
            for package in pathlib.Path(downloads).glob("*.deb"):
                subprocess.run(["dpkg", "-x", package, root], check=True)
            main = next(pathlib.Path(downloads).glob(f"{PACKAGES[name][0]}_*.deb"))
            (root / "version").write_text(subprocess.run(
                ["dpkg-deb", "-f", main, "Version"], stdout=subprocess.PIPE, text=True,
                check=True).stdout.strip())
        contents.write_text(wanted)
    return root


def version_of(name):
    """The version of the package that was unpacked."""
    return (unpack(name) / "version").read_text()


def libraries_of(root):
    folders = [*root.glob("usr/lib/*-linux-gnu"), root / "usr/lib/syslog-ng",
               *root.glob("lib/*-linux-gnu")]
    return ":".join(str(each) for each in folders if each.is_dir())


def rsyslog_command(root, config, directory):
    modules = next(root.glob("usr/lib/*-linux-gnu/rsyslog"))
    return [root / "usr/sbin/rsyslogd", "-n", "-f", config, "-i", directory / "rsyslog.pid", "-M",
            modules]


def syslog_ng_command(root, config, directory):
    return [root / "usr/sbin/syslog-ng", "-F", "-f", config, "-R", directory / "syslog-ng.persist",
            "-p", directory / "syslog-ng.pid", "-c", directory / "syslog-ng.control",
            "--module-path", next(root.glob("usr/lib/syslog-ng/3.*")), "--no-caps"]


class Peer:
    """A program that runs in a directory, and what it says."""

    COMMANDS = {"rsyslog": rsyslog_command, "syslog-ng": syslog_ng_command}

    def __init__(self, name, directory, config):
        root = unpack(name)
        path = directory / f"{name}.conf"
        path.write_text(config)
        self._pid_file = directory / f"{name}.pid"
        self._command = self.COMMANDS[name](root, path, directory)
        self._environment = dict(os.environ, LD_LIBRARY_PATH=libraries_of(root))
        self._directory = directory
        self._messages = directory / f"{name}.messages"
        self.process = None

    def start(self):
        # One that was killed leaves it behind, and its successor may not start.
        self._pid_file.unlink(missing_ok=True)
        with open(self._messages, "ab") as messages:
            self.process = subprocess.Popen(self._command, cwd=self._directory, stdout=messages,
                                            stderr=messages, stdin=subprocess.DEVNULL,
                                            env=self._environment)
        return self

    def messages(self):
        return self._messages.read_text(errors="replace")

    def expect_running(self):
        if self.process.poll() is not None:
            raise AssertionError(f"{self._command[0]} has ended:\n{self.messages()}")

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def stop(self, limit=60):
        """Ends it in good order."""
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(limit)
            except subprocess.TimeoutExpired:
                self.kill()


def _receiver_config(directory, inputs):
    return (f'global(workDirectory="{directory}" maxMessageSize="128k"\n'
            '  parser.escapeControlCharactersOnReceive="off")\n'
            'main_queue(queue.type="Direct")\n'
            f"{inputs}"
            'template(name="raw" type="string" string="%rawmsg%\\n")\n'
            f'action(type="omfile" file="{directory}/received" template="raw")\n')


def relp_receiver_config(directory, port, tls="", module=""):
    """An rsyslog that writes each message to the file `received`, a line each, before it
    acknowledges it: without the queue that lies between the two by default, and is in memory."""
    return _receiver_config(directory, (
        f'module(load="imrelp"{module})\n'
        f'input(type="imrelp" address="127.0.0.1" port="{port}" maxDataSize="128k"{tls})\n'))


def tcp_receiver_config(directory, port):
    """The same for messages over plain TCP."""
    return _receiver_config(directory, (
        'module(load="imtcp")\n'
        f'input(type="imtcp" address="127.0.0.1" port="{port}")\n'))


if __name__ == "__main__":
    for peer in PACKAGES:
        try:
            unpack(peer)
        except OSError as error:
            sys.exit(str(error))
