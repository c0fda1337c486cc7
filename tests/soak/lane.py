"""One data directory and the lives of the agents on it, one after the other."""

import dataclasses
import os
import pathlib
import re
import shutil
import signal
import socket
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "integration"))
import support  # noqa: E402

from chunks import take_inventory  # noqa: E402
from oracle import Ledger, Life, require  # noqa: E402
from receiver import Receiver  # noqa: E402

KILL_POINTS = os.environ.get("ORLO_KILL_POINTS", "")

BATCHES_PER_SECOND = 40


@dataclasses.dataclass
class Plan:
    """What happens in one life."""
    # What the agent meets: "closed" - its schedule never lets it send, so everything goes to the
    # disk; "away" - nobody listens, and it holds the chunk that it could not send; "there" - the
    # receiver is there.
    destination: str
    # Whether it gets events.
    load: bool
    # The longest it lives, in seconds from its start.
    seconds: float
    # Where it is killed before that, in the words of KillPoints.cpp.
    at: str = ""
    how: str = ""
    delay_ms: int = 0
    # If not 0, it waits at that place until the receiver has got so many events in this life.
    received: int = 0
    # If not 0, it is killed as soon as so many complete chunks are on the disk.
    chunks: int = 0


def payload(number):
    """Each is another one, and their lengths differ, so that bytes of one chunk that are taken for
    another's don't fit by chance."""
    return b"event %010d %s" % (number, b"abcdefg"[number % 7:][:1] * (number * 7919 % 97))


class Lane:
    def __init__(self, rate):
        if not (support.AGENT and support.MODULES and KILL_POINTS):
            raise AssertionError("ORLO_AGENT, ORLO_MODULES and ORLO_KILL_POINTS must be set")
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-soak-"))
        self.cache = self.directory / "data" / "Events" / "Default"
        self.release = self.directory / "release"
        self.reached = self.directory / "release.reached"
        self.ledger = Ledger()
        self.receiver = Receiver()
        self.refusal = support.RefusingPort()
        self.batch = max(1, rate // BATCHES_PER_SECOND)
        self.next_number = 0
        self.kills_inside = 0

    def close(self):
        self.receiver.close()
        self.refusal.close()
        shutil.rmtree(self.directory, ignore_errors=True)

    def chunks(self):
        return take_inventory(self.cache)

    def _write_config(self, plan, drain="6s"):
        port = self.refusal.number if plan.destination == "away" else self.receiver.port
        schedule = ""
        if plan.destination == "closed":
            schedule = ('          Schedule.Enable: true\n'
                        '          Schedule.Interval: "0000-2359;00;UTC"\n')
        path = self.directory / "agent.yaml"
        path.write_text(
            "data_directory: ./data\n"
            "disk: { keep_free: 0 }\n"
            "log: { levels: { Code.StoreAndForward: debug } }\n"
            f"shutdown: {{ drain_timeout: {drain} }}\n"
            "streams:\n"
            "  - name: Default\n"
            f"    source: {support.SYSLOG_SOURCE}\n"
            "    stages:\n"
            "      - module: StoreAndForwardStage\n"
            "        settings:\n"
            f"          DataChunkPeriod: {support.CHUNK_PERIOD}\n"
            f"{schedule}"
            f'    destination: {{ type: syslog, target: "tcp://127.0.0.1:{port}",'
            " framing: octet-counted, connect_timeout: 1s }\n")
        return path

    def _start(self, config, plan):
        # A sanitizer's library comes after the preloaded one, which redefines nothing.
        sanitizer = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"),
                                           "verify_asan_link_order=0"]))
        command = ["env", f"LD_PRELOAD={KILL_POINTS}", f"ASAN_OPTIONS={sanitizer}"]
        if plan.at:
            command += [f"ORLO_KILL_AT={plan.at}", f"ORLO_KILL_HOW={plan.how}",
                        f"ORLO_KILL_DELAY_MS={plan.delay_ms}"]
        if plan.received:
            self.release.unlink(missing_ok=True)
            self.reached.unlink(missing_ok=True)
            command.append(f"ORLO_KILL_RELEASE={self.release}")
        command += [support.AGENT, "run", "--config", str(config), "--modules", support.MODULES]
        return support.Agent(config, self.directory, arguments=command)

    def live(self, plan):
        """One agent, from its start to its kill. Returns the account, and whether it died at the
        place that the plan names."""
        before = self.chunks()
        agent = self._start(self._write_config(plan), plan)
        try:
            sent = self._feed(agent, plan)
            inside = agent.process.poll() is not None
            if not inside:
                agent.signal(signal.SIGKILL)
            code = agent.wait()
            require(code == -signal.SIGKILL and (plan.at or not inside),
                    f"the agent ended with {code}:\n" + "\n".join(agent.lines))
            life = self._look_back(agent, before, sent)
            require(not agent.messages("Error") and not agent.find("Messages lost"),
                    "the agent complained:\n" + "\n".join(agent.lines))
            try:
                account = self.ledger.add(life)
            except AssertionError as error:
                raise AssertionError(
                    f"{error}\n{plan}\nhanded over {life.handed}, of these new {life.handed_new}, "
                    f"pushed {life.pushed}, received {len(life.received)}, "
                    f"before {[chunk.name for chunk in before]}, "
                    f"after {[chunk.name for chunk in life.after]}\n" + "\n".join(agent.lines)
                ) from error
        finally:
            agent.close()
        self.kills_inside += inside
        return account, inside

    def _look_back(self, agent, before, sent):
        handed, pushed, handed_new = [], [], 0
        for line in agent.messages():
            if found := re.search(r"\((near|far)\)\. \((\d+) records\)", line):
                handed.append(int(found.group(2)))
                handed_new += int(found.group(2)) if found.group(1) == "near" else 0
            elif found := re.search(r"Pushing to disk\. \((\d+) records\)", line):
                pushed.append(int(found.group(1)))
        return Life(before=before, after=self.chunks(), sent=sent, received=self.receiver.take(),
                    handed=handed, handed_new=handed_new, pushed=pushed)

    @staticmethod
    def _handed_over(agent):
        """How many events its cache has handed to the sender, as the agent's messages tell."""
        return sum(int(found) for line in agent.messages()
                   for found in re.findall(r"\(far\)\. \((\d+) records\)", line))

    def _feed(self, agent, plan):
        """Sends numbered events, if the plan says so, until the agent's time is over or it has
        died. Returns what was sent, whether it arrived or not."""
        end = time.monotonic() + plan.seconds
        sent = []
        connection = None
        try:
            while time.monotonic() < end and agent.process.poll() is None:
                if plan.received and self.reached.exists() and self.receiver.count() >= max(
                        plan.received, self._handed_over(agent)):
                    self.release.touch()
                if plan.chunks and self._has_complete(plan.chunks):
                    break
                if plan.load and connection is None:
                    listening = agent.find(r"Listening on tcp://.*:(\d+)\.")
                    if listening:
                        connection = self._connect(int(listening.group(1)))
                elif plan.load:
                    events = [payload(self.next_number + i) for i in range(self.batch)]
                    self.next_number += self.batch
                    sent += events
                    try:
                        connection.sendall(support.as_lines(events))
                    except OSError:
                        # It is dying; what was under way is lost.
                        support.wait_until(lambda: agent.process.poll() is not None,
                                           "the end of an agent that takes nothing any more")
                time.sleep(1 / BATCHES_PER_SECOND)
        finally:
            if connection:
                connection.close()
        return sent

    def _has_complete(self, count):
        if len(list(self.cache.glob("*/*"))) < count:
            return False
        return sum(chunk.is_complete() for chunk in self.chunks()) >= count

    @staticmethod
    def _connect(port):
        try:
            return socket.create_connection(("127.0.0.1", port), timeout=support.LIMIT)
        except OSError:
            return None  # it has just died

    def finish(self):
        """The last life: everything comes out, and the agent is stopped as its users do it."""
        before = self.chunks()
        plan = Plan("there", load=False, seconds=0)
        agent = self._start(self._write_config(plan), plan)
        try:
            agent.wait_for("Listening on")
            support.wait_until(lambda: not self.chunks(), "an empty cache")
            require(agent.stop() == 0, "the last agent failed:\n" + "\n".join(agent.lines))
            life = self._look_back(agent, before, [])
            account = self.ledger.add(life)
            require(not account.lost_in_sender, f"{len(account.lost_in_sender)} events were lost "
                                                "though nothing was killed")
            require(agent.summary()[1:3] == (0, 0), agent.lines[-1])
        finally:
            agent.close()
        self.ledger.close()
        return account
