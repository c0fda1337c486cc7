"""Completion in bash offers every command and option that --help lists, and nothing else; the man pages
name all of them."""

import os
import pathlib
import re
import subprocess
import unittest

import support

COMPLETIONS = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "completions"
PROGRAMS = {name: os.path.join(os.path.dirname(support.AGENT), name)
            for name in ("orlo-agent", "orlo-cache")}

ASK = """
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
"$(complete -p "$(basename "$1")" | sed 's/.*-F \\([^ ]*\\) .*/\\1/')" 2> /dev/null
printf '%s\\n' "${COMPREPLY[@]}"
"""


class Completion(support.AgentTest):
    def complete(self, program, *words):
        run = subprocess.run(["bash", "--norc", "-c", ASK, "bash", str(COMPLETIONS / program),
                              PROGRAMS[program], *words],
                             cwd=self.directory, capture_output=True, text=True, check=True,
                             timeout=support.LIMIT)
        return set(run.stdout.split())

    def help(self, program, *command):
        return subprocess.run([PROGRAMS[program], *command, "--help"], capture_output=True,
                              text=True, check=True, timeout=support.LIMIT).stdout

    def commands(self, program):
        text = self.help(program).split("Subcommands:")[1]
        return set(re.findall(r"^  ([a-z-]+) ", text, re.MULTILINE))

    def options(self, program, *command):
        found = set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", self.help(program, *command),
                               re.MULTILINE))
        self.assertIn("--help", found)
        return found

    def test_everything_that_help_lists_is_offered(self):
        for program in PROGRAMS:
            commands = self.commands(program)
            self.assertGreaterEqual(len(commands), 2)
            self.assertEqual(self.complete(program, ""), commands | self.options(program))
            for command in commands:
                self.assertEqual(self.complete(program, command, "-"),
                                 self.options(program, command), f"{program} {command}")

    def test_the_man_pages_name_everything(self):
        for program in PROGRAMS:
            page, = (COMPLETIONS.parent / "man").glob(program + ".*")
            text = page.read_text().replace("\\-", "-")
            wanted = self.options(program) | self.commands(program)
            for command in self.commands(program):
                wanted |= self.options(program, command)
            found = set(re.findall(r"(?<![\w-])(--[a-z-]+|[a-z]+)(?![\w-])", text))
            self.assertEqual(wanted - found, set(), page.name)

    def test_the_beginning_of_a_word_chooses(self):
        self.assertEqual(self.complete("orlo-agent", "ch"), {"check"})
        self.assertEqual(self.complete("orlo-cache", "verify", "--j"), {"--json"})
        self.assertEqual(self.complete("orlo-cache", "export", "--format", ""), {"json", "raw"})
        self.assertEqual(self.complete("orlo-cache", "nothing", ""), set())

    def test_files_and_chunks_are_offered(self):
        (self.directory / "agent.yaml").touch()
        minute = self.directory / "cache" / "2016-03-07-14-05"
        minute.mkdir(parents=True)
        (minute / "07").write_bytes(bytes(4096))
        self.assertEqual(self.complete("orlo-agent", "run", "--config", "ag"), {"agent.yaml"})
        self.assertEqual(self.complete("orlo-agent", "run", "--modules", ""), {"cache"})
        self.assertEqual(self.complete("orlo-cache", "list", "ca"), {"cache"})
        self.assertEqual(self.complete("orlo-cache", "show", "cache", ""),
                         {"oldest", "newest", "2016-03-07-14-05/07"})
        self.assertEqual(self.complete("orlo-cache", "requeue", "cache", "ag"), {"agent.yaml"})


if __name__ == "__main__":
    unittest.main()
