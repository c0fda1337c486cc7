"""What keeps the agent from starting: exit code 1, one line that says why, and nothing left."""

import os
import pathlib
import shlex
import shutil
import socket
import subprocess
import unittest

import support


class StartErrors(support.AgentTest):
    def good(self, listen="tcp://127.0.0.1:0", name="Default"):
        return self.stream(f'{{ type: syslog, listen: "{listen}" }}',
                           f"{{ type: file, path: ./{name}.log }}", name=name)

    def refuse(self, config, pattern, **options):
        agent = self.start(config, **options)
        self.assertEqual(agent.wait(), 1, agent.lines)
        errors = agent.messages("Error")
        self.assertEqual(len(errors), 1, agent.lines)
        self.assertRegex(errors[0], pattern)
        self.assertEqual(agent.messages("Warn"), [])

    def start_and_stop(self, config):
        agent = self.start(config)
        agent.port()
        self.assertEqual(agent.stop(), 0, agent.lines)

    def call(self, *arguments):
        return subprocess.run([*support.COMMAND, *arguments], cwd=self.directory, text=True,
                              capture_output=True, timeout=support.LIMIT, check=False)

    def test_a_missing_module(self):
        config = self.configure(self.good())
        empty = self.directory / "modules"
        empty.mkdir()
        self.refuse(config, r'"Default", module StoreAndForwardStage', modules=empty)
        self.start_and_stop(config)

    def test_a_module_without_its_factory(self):
        modules = self.directory / "modules"
        modules.mkdir()
        stage = next(pathlib.Path(support.MODULES).glob("*StoreAndForwardStage*"))
        shutil.copy(stage, modules / stage.name.replace("StoreAndForwardStage", "OtherStage"))
        config = self.configure(self.good().replace("StoreAndForwardStage", "OtherStage"))
        self.refuse(config, "make_OtherStage", modules=modules)

    def test_a_file_in_the_way_of_the_data_directory(self):
        config = self.configure(self.good())
        (self.directory / "data").write_text("in the way")
        self.refuse(config, r"data")
        (self.directory / "data").unlink()
        self.start_and_stop(config)

    def test_a_file_in_the_way_of_the_second_streams_cache(self):
        config = self.configure(self.good() + self.good(name="Second"))
        (self.directory / "data" / "Events").mkdir(parents=True)
        (self.directory / "data" / "Events" / "Second").write_text("in the way")
        self.refuse(config, r'"Second".*Failed to create event cache')
        (self.directory / "data" / "Events" / "Second").unlink()
        self.start_and_stop(config)

    def test_a_port_in_use(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            config = self.configure(self.good() + self.good(f"tcp://127.0.0.1:{port}", "Second"))
            self.refuse(config, rf"Can't listen on tcp://127\.0\.0\.1:{port} "
                                rf"\({support.ADDRESS_IN_USE}\)")
            # Not on this port, which could be another test's when it is free.
            self.start_and_stop(self.configure(self.good() + self.good(name="Second")))

    def test_a_port_on_which_another_agent_listens(self):
        first = self.start(self.configure(self.good()))
        port = first.port()
        second = self.configure(self.good(f"tcp://127.0.0.1:{port}", "Second"),
                                name="second.yaml")
        second.write_text(second.read_text().replace("./data", "./second"))
        self.refuse(second, rf"Can't listen on tcp://127\.0\.0\.1:{port} "
                            rf"\({support.ADDRESS_IN_USE}\)")
        self.assertEqual(first.stop(), 0)

    def test_a_data_directory_in_use(self):
        config = self.configure(self.good())
        first = self.start(config)
        first.port()
        self.refuse(config, "data is in use by another agent")
        self.assertEqual(first.stop(), 0)
        self.start_and_stop(config)

    def test_a_data_directory_is_free_again_after_a_kill(self):
        config = self.configure(self.good())
        first = self.start(config)
        first.port()
        first.process.kill()
        first.wait()
        self.start_and_stop(config)

    def test_every_mistake_of_a_configuration_is_named(self):
        config = self.configure(self.good() + self.good(), extra="nonsense: 1\n")
        for command in ("check", "run"):
            result = self.call(command, "--config", "agent.yaml")
            self.assertEqual(result.returncode, 1)
            lines = result.stderr.splitlines()
            self.assertEqual(len(lines), 3, lines)
            self.assertRegex(lines[0], r"^agent\.yaml:5: nonsense: is not known here")
            self.assertRegex(lines[1], r"^agent\.yaml:14: streams\[1\]\.name: \"Default\" is the "
                                       r"name of the stream in line 7$")
            self.assertRegex(lines[2], r"^agent\.yaml:20: streams\[1\]\.destination\.path: ")
            self.assertEqual(result.stdout, "")
        self.assertFalse((self.directory / "data").exists(), "nothing was started")
        self.assertTrue(config.exists())

    def test_a_missing_configuration_file(self):
        for command in ("check", "run"):
            result = self.call(command, "--config", "none.yaml")
            self.assertEqual(result.returncode, 1)
            self.assertEqual(result.stderr,
                             "none.yaml: the file can't be read: No such file or directory\n")

    def test_a_good_configuration_is_said_to_be_good(self):
        self.configure(self.good())
        result = self.call("check", "--config", "agent.yaml")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "agent.yaml: no mistakes found\n")

    def test_the_samples_are_good(self):
        samples = pathlib.Path(__file__).resolve().parents[2] / "config"
        names = sorted(path.name for path in samples.glob("*.yaml"))
        self.assertEqual(names, ["example.yaml", "quickstart.yaml", "stdin.yaml"])
        for name in names:
            self.assertEqual(self.call("check", "--config", str(samples / name)).returncode, 0)

    def test_wrong_usage_has_its_own_exit_code(self):
        self.configure(self.good())
        for arguments in ([], ["run"], ["check"], ["walk"], ["run", "--config"],
                          ["run", "--config", "agent.yaml", "--loud"],
                          ["check", "--config", "agent.yaml", "more"]):
            result = self.call(*arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertNotEqual(result.stderr, "", arguments)

    def test_help_and_version_are_answers(self):
        for arguments in (["--help"], ["run", "--help"], ["--version"]):
            result = self.call(*arguments)
            self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        self.assertRegex(self.call("--version").stdout, r"^orlo-agent \d+\.\d+\.\d+\n$")

    def test_modules_are_found_beside_the_program(self):
        config = self.configure(self.good())
        agent = self.start(config, arguments=[*support.COMMAND, "run", "--config", str(config)])
        agent.port()
        self.assertEqual(agent.stop(), 0)

    def test_a_closed_standard_output_and_input_do_not_hide_files_behind_their_numbers(self):
        config = self.configure(self.stream("{ type: stdin }", "{ type: stdout }"), drain="6s")
        command = (f'exec {shlex.join(support.COMMAND)} run --config "{config}" --modules "$0" '
                   "<&- >&-")
        agent = self.start(config, arguments=["sh", "-c", command, support.MODULES])
        self.assertEqual(agent.wait(), 0, agent.lines)
        self.assertRegex("\n".join(agent.messages("Error")), "standard input can't be read")
        self.assertEqual(agent.summary(), (0, 0, 0, 0))
        self.assertTrue(os.path.exists(config))


if __name__ == "__main__":
    unittest.main()
