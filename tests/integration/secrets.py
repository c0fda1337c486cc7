"""Values that the configuration only refers to: they work, and are never shown, whatever goes wrong."""

import os
import signal
import socket
import subprocess

import support

SECRET = "SeCrEt-hunter2"
SHORT = "Qz7"


def has_address(address):
    """Whether this machine has it: IPv6 can be switched off."""
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    try:
        with socket.socket(family) as probe:
            probe.bind((address, 0))
        return True
    except OSError:
        return False


class Secrets(support.AgentTest):
    def setUp(self):
        super().setUp()
        os.environ["ORLO_TEST_SECRET"] = SECRET
        os.environ["ORLO_TEST_SHORT"] = SHORT
        (self.directory / "password.txt").write_text(SECRET + "-of-a-file\n")

    def expect_hidden(self, text):
        self.assertNotIn(SECRET, text)
        self.assertNotIn(SHORT, text)
        return text

    def check(self, config):
        done = subprocess.run([*support.LAUNCHER, support.AGENT, "check", "--config", str(config)],
                              cwd=self.directory, capture_output=True, text=True,
                              timeout=support.LIMIT)
        return done.returncode, self.expect_hidden(done.stdout + done.stderr)

    def run_and_stop(self, config, until=None, code=0):
        agent = self.start(config)
        if until:
            agent.wait_for(until)
            agent.signal()
        self.assertEqual(agent.wait(), code, agent.lines)
        return self.expect_hidden("\n".join(agent.lines))

    def test_references_to_variables_and_files_are_followed(self):
        receiver = self.receiver()
        os.environ["ORLO_TEST_PORT"] = str(receiver.port)
        (self.directory / "host.txt").write_text("127.0.0.1\n")
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE,
            '{ type: syslog, target: "tcp://${file:host.txt}:${ORLO_TEST_PORT}" }'))
        self.assertEqual(self.check(config)[0], 0)
        agent = self.start(config)
        support.send(agent.port(), b"arrives\n")
        self.assertEqual(receiver.wait_for_lines(1), [b"arrives"])
        self.assertEqual(agent.stop(), 0)
        self.assertTrue(agent.find(r"Connected to \(hidden\)\."), agent.lines)
        self.assertNotIn(f"127.0.0.1:{receiver.port}", "\n".join(agent.lines))

    def test_what_leads_nowhere_is_named_with_line_and_key(self):
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE, '{ type: file, path: "${ORLO_TEST_UNSET}" }',
            settings={"DataChunkPeriod": '"${file:none.txt}"'}))
        code, text = self.check(config)
        self.assertEqual(code, 1)
        self.assertIn('agent.yaml:11: streams[0].stages[0].settings.DataChunkPeriod: refers to the '
                      'file "none.txt", which can\'t be read: No such file or directory', text)
        self.assertIn("agent.yaml:12: streams[0].destination.path: refers to the environment "
                      "variable ORLO_TEST_UNSET, which is not set", text)

    def test_mistakes_do_not_show_values(self):
        secret = '"${ORLO_TEST_SECRET}"'
        config = self.configure(
            self.stream(f"{{ type: syslog, listen: {secret}, max_event_size: {secret} }}",
                        '{ type: syslog, target: "tcp://${ORLO_TEST_SECRET}:99999" }')
            + self.stream('{ type: syslog, listen: "tcp://h:0", idle_timeout: "${file:password.txt}"'
                          ' }', f"{{ type: {secret} }}", name="Two")
            + self.stream('{ type: file, path: x }', "{ type: file, path: y }",
                          name="${ORLO_TEST_SHORT}"),
            extra=f"watch: {{ report: {secret}, repeat: \"${{ORLO_TEST_SHORT}}\" }}\n")
        code, text = self.check(config)
        self.assertEqual(code, 1)
        self.assertEqual(len(text.splitlines()), 8, text)
        self.assertEqual(text.count("(hidden)"), 7, text)
        self.run_and_stop(config, code=1)

    def test_settings_that_a_stage_cannot_read_are_not_shown(self):
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE, "{ type: file, path: out.log }",
            settings={"DataChunkPeriod": '"${ORLO_TEST_SECRET}"',
                      "QueueLowWaterMark": '"${ORLO_TEST_SHORT}"',
                      "QueueHighWaterMark": '"x${file:password.txt}"',
                      "DataProcessingPeriod": '"${ORLO_TEST_SHORT} ${ORLO_TEST_SHORT}"',
                      "Schedule.Enable": "true",
                      "Schedule.Interval": '"${ORLO_TEST_SHORT}"'}))
        self.assertEqual(self.check(config)[0], 0)
        text = self.run_and_stop(config, "Listening on")
        self.assertIn('Invalid value "(hidden)" for DataChunkPeriod', text)
        self.assertIn("Invalid schedule interval detected ((hidden))", text)
        self.assertEqual(text.count('Invalid value "(hidden)"'), 4)

    def test_properties_that_kafka_does_not_take_are_not_shown(self):
        for name in ("security.protocol", "linger.ms", "no.such.property"):
            config = self.configure(self.stream(
                support.SYSLOG_SOURCE,
                '{ type: kafka, brokers: "127.0.0.1:9", topic: t, properties: '
                f'{{ {name}: "${{ORLO_TEST_SECRET}}" }} }}'))
            text = self.run_and_stop(config, code=1)
            self.assertIn("Can't send to Kafka", text)

    def test_addresses_and_files_that_cannot_be_used_are_not_shown(self):
        for source, destination in (
                ('{ type: syslog, listen: "tcp://${ORLO_TEST_SECRET}.invalid:0" }',
                 "{ type: file, path: out.log }"),
                (support.SYSLOG_SOURCE, '{ type: file, path: "agent.yaml/${ORLO_TEST_SECRET}" }'),
                ('{ type: syslog, listen: "tls://127.0.0.1:0", tls: { certificate: '
                 '"${ORLO_TEST_SECRET}", key: "${file:password.txt}" } }',
                 "{ type: file, path: out.log }")):
            text = self.run_and_stop(self.configure(self.stream(source, destination)), code=1)
            self.assertIn("(hidden)", text)

    def test_a_target_that_cannot_be_reached_is_not_shown(self):
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE,
            '{ type: syslog, target: "tcp://${ORLO_TEST_SECRET}.invalid:1" }'), drain="0s")
        agent = self.start(config, abandons=True)
        support.send(agent.port(), b"waits\n")
        agent.wait_for(r"\(hidden\).* can't be reached")
        self.assertEqual(agent.stop(), 0)
        self.expect_hidden("\n".join(agent.lines))

    def test_a_reload_learns_new_secrets_before_it_says_anything(self):
        config = self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: out.log }"))
        agent = self.start(config)
        agent.port()
        self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: out.log }",
                                   settings={"DataChunkPeriod": '"${ORLO_TEST_SECRET}"'}))
        agent.signal(signal.SIGHUP)
        agent.wait_for("was read again")
        self.configure(self.stream(support.SYSLOG_SOURCE,
                                   '{ type: syslog, target: "${file:password.txt}" }'))
        agent.signal(signal.SIGHUP)
        agent.wait_for("has 1 mistake and")
        self.assertEqual(agent.stop(), 0)
        text = self.expect_hidden("\n".join(agent.lines))
        self.assertIn('Invalid value "(hidden)" for DataChunkPeriod', text)
        self.assertIn("destination.target: (hidden) is not a usable address", text)

    def test_a_log_file_that_cannot_be_opened_is_not_shown(self):
        config = self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: out.log }"))
        config.write_text(config.read_text().replace(
            "log: {", 'log: { file: "agent.yaml/${ORLO_TEST_SECRET}", '))
        text = self.run_and_stop(config, "Listening on")
        self.assertIn('The log file "(hidden)" can\'t be opened', text)

    def test_an_address_is_hidden_in_every_form_that_messages_give_it(self):
        host, address, part = (
            ("::1", "[0:0:0:0:0:0:0:01]:00000", "0:0:0:01") if has_address("::1")
            else ("127.0.0.1", "127.0.0.1:00000", "127.0.0.1:0"))
        os.environ["ORLO_TEST_LISTEN"] = f"tcp://{address}"
        os.environ["ORLO_TEST_TARGET"] = f"tcp://{SECRET}.invalid:00514"
        config = self.configure(self.stream(
            '{ type: syslog, listen: "${ORLO_TEST_LISTEN}", receive_buffer: 4KiB }',
            '{ type: syslog, target: "${ORLO_TEST_TARGET}" }'))
        code, text = self.check(config)
        self.assertEqual(code, 1)
        self.assertIn("receive_buffer: has no meaning for (hidden)", text)
        self.assertNotIn(part, text)
        config.write_text(config.read_text().replace(", receive_buffer: 4KiB", ""))
        agent = self.start(config, abandons=True)
        # Only an event makes the agent look for the target, and name it.
        with socket.create_connection((host, agent.port())) as client:
            client.sendall(b"waits\n")
        agent.wait_for(r"Warn .*\(hidden\) can't be reached")
        agent.signal()
        agent.wait_for("stopping")
        agent.signal()
        self.assertEqual(agent.wait(), 0)
        text = self.expect_hidden("\n".join(agent.lines))
        self.assertNotIn(part, text)
        self.assertNotIn("invalid", text)

    def test_a_directory_is_hidden_in_its_absolute_form(self):
        os.environ["ORLO_TEST_DATA"] = f"./{SECRET}-data/"
        config = self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: out.log }"))
        config.write_text(config.read_text().replace(
            "data_directory: ./data", 'data_directory: "${ORLO_TEST_DATA}"'))
        agent = self.start(config)
        agent.port()
        # A second agent in the directory is refused with its name.
        self.assertIn("The data directory (hidden)", self.run_and_stop(config, code=1))
        self.assertEqual(agent.stop(), 0)
        self.expect_hidden("\n".join(agent.lines))

    def test_a_librarys_long_text_does_not_show_a_secret_that_it_cuts(self):
        for size in (400, 470, 600, 5000):
            os.environ["ORLO_TEST_LONG"] = "x" * size + SECRET
            config = self.configure(self.stream(
                support.SYSLOG_SOURCE,
                '{ type: kafka, brokers: "127.0.0.1:9", topic: t, properties: { security.protocol: '
                'sasl_plaintext, sasl.mechanisms: "${ORLO_TEST_LONG}" } }'))
            text = self.run_and_stop(config, code=1)
            self.assertIn("Unsupported SASL mechanism: (hidden)", text)
            self.assertNotIn("xxxx", text)

    def test_the_log_file_shows_no_more_than_standard_error(self):
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE, "{ type: file, path: out.log }",
            settings={"DataChunkPeriod": '"${ORLO_TEST_SECRET}"'}))
        config.write_text(config.read_text().replace("log: {", "log: { file: agent.log, "))
        self.run_and_stop(config, "Listening on")
        text = self.expect_hidden((self.directory / "agent.log").read_text())
        self.assertIn("(hidden)", text)


if __name__ == "__main__":
    support.unittest.main()
