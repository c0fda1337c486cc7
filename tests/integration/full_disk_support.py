"""A small file system that a test can fill: a tmpfs, in a mount namespace of the test's own."""

import errno
import os
import re
import subprocess
import sys
import tempfile
import unittest

import support

# Set for a machine on which nobody may mount: these tests are then left out, and say so. Without
# it they fail there.
WITHOUT_MOUNTS = os.environ.get("ORLO_TESTS_WITHOUT_MOUNTS") == "1"

_INSIDE = "ORLO_TEST_MOUNTS"

# Of root, of a user who may make namespaces, and of root where not even that is allowed.
_WAYS = (["unshare", "--mount"], ["unshare", "--map-root-user", "--mount"], [])


def _mounts(way):
    with tempfile.TemporaryDirectory(prefix="orlo-mount-") as place:
        script = 'mount -t tmpfs -o size=64k tmpfs "$0" && umount "$0"'
        try:
            return subprocess.run(way + ["sh", "-c", script, place], capture_output=True,
                                  check=False).returncode == 0
        except FileNotFoundError:
            return False


def main():
    """Runs the script's tests where they can mount."""
    if os.environ.get(_INSIDE) is None:
        os.environ[_INSIDE] = "no"
        for way in _WAYS:
            if _mounts(way):
                os.environ[_INSIDE] = "yes"
                command = way + [sys.executable, "-B", *sys.argv]
                os.execvp(command[0], command)
    unittest.main()


class FullDiskTest(support.AgentTest):
    """The data directory is a file system by itself, of 4 MiB."""

    MOUNT_OPTIONS = "size=4m"

    def setUp(self):
        super().setUp()
        if os.environ.get(_INSIDE) != "yes":
            if WITHOUT_MOUNTS:
                self.skipTest("ORLO_TESTS_WITHOUT_MOUNTS=1: nothing is known about full disks")
            self.fail("this test fills a file system of its own and can't mount one, neither "
                      "directly nor with unshare; where that has to be so, set "
                      "ORLO_TESTS_WITHOUT_MOUNTS=1 to leave it out")
        self.data = self.directory / "data"
        self.data.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", self.MOUNT_OPTIONS, "tmpfs", self.data],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", self.data], check=True)
        self.filler = self.data / "filler.bin"

    def configure_disk(self, disk, destination, drain="1s"):
        path = self.configure(self.stream(support.SYSLOG_SOURCE, destination), drain=drain)
        path.write_text(path.read_text().replace("disk: { keep_free: 0 }", f"disk: {disk}"))
        return path

    def fill(self, leave=0):
        """To the last byte, or but for as many bytes, which are a multiple of a page."""
        with open(self.filler, "ab", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError as error:
                self.assertEqual(error.errno, errno.ENOSPC)
            if leave:
                filler.truncate(filler.tell() - leave)
        disk = os.statvfs(self.data)
        self.assertEqual(disk.f_bavail * disk.f_frsize, leave)

    def send(self, agent, events):
        support.send(agent.port(), support.as_lines(events))

    @staticmethod
    def numbers(agent, pattern):
        """Those that the agent's messages name, in order."""
        return [int(found) for line in agent.messages()
                for found in re.findall(pattern, line)]

    def lost(self, agent):
        """For each chunk that the cache refused: how many events the agent says are lost."""
        return self.numbers(agent, r" Warn .*Event cache rejected message block for persistance\.  "
                                   r"Messages lost \((\d+)\)\.$")

    def pushed(self, agent):
        """The sizes of the chunks that went to the cache, taken or not."""
        return self.numbers(agent, r"Pushing to disk\. \((\d+) records\)")

    def wait_for_lost(self, agent, count):
        support.wait_until(lambda: sum(self.lost(agent)) == count, f"{count} events lost")
