"""Which tests run on Windows: coverage.py BUILD_DIRECTORY

Fails if a test, a script of tests/integration or a folder of tests is neither run nor in
not-for-windows.txt, or if a listed one does not exist. Prints how many cases run and are listed."""

import pathlib
import re
import subprocess
import sys

import listed as lists

DEFINITION = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)


def in_sources(directory):
    names = set()
    for source in pathlib.Path(directory).rglob("*.cpp"):
        names.update(f"{suite}.{name}" for suite, name in DEFINITION.findall(source.read_text()))
    return names


def in_program(program):
    """The cases as pairs of the name that the source has and that name with the parameter."""
    run = subprocess.run(["wine", program, "--gtest_list_tests"], capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit(f"{program} does not list its tests:\n{run.stderr}")
    cases = []
    suite = None
    for line in run.stdout.splitlines():
        if not line.startswith(" ") and line.split("#")[0].strip().endswith("."):
            # Instantiation/Suite of those with parameters, Suite/number of those with types.
            parts = line.split("#")[0].strip()[:-1].split("/")
            suite = parts[0] if parts[-1].isdigit() else parts[-1]
        elif line.startswith("  "):
            # The parameter of a case is its number where it has no name.
            case = f"{suite}.{line.split('#')[0].strip()}"
            cases.append((case.split("/")[0], case))
    return cases


def folders():
    """The folders that have tests, by the name under which they are listed."""
    found = {}
    for makefile in sorted(lists.TESTS.glob("*/CMakeLists.txt")):
        if re.search(r"(?:orlo_(?:\w+_)?|add_)test\(", makefile.read_text()):
            found[f"tests/{makefile.parent.name}"] = makefile.parent
    return found


def lines_of(path):
    return path.read_text().splitlines()


class Coverage:
    def __init__(self):
        self.listed = lists.read_list()
        self.known = set()
        self.missing = []
        self.run = 0
        self.left_out = {}

    def add_folders(self, run):
        for name, folder in folders().items():
            self.known.add(name)
            if folder not in run and name not in self.listed:
                self.missing.append(name)
            if name in self.listed:
                cases = sum(len(lists.cases_of(script)) for script in folder.glob("*.py"))
                self.left_out[name] = max(1, cases + len(in_sources(folder)))

    def add_programs(self, programs):
        sources = set().union(*(in_sources(directory) for _, directory in programs))
        cases = [case for program, _ in programs for case in in_program(program)]
        for name in self.listed.keys() - self.known:
            within = lists.TESTS.parent / name
            if within.is_dir():
                tests = in_sources(within)
                self.known.add(name)
                self.left_out[name] = len(tests)
                sources -= tests
        self.known |= sources | {case for _, case in cases}
        self.missing += sources - {name for name, _ in cases} - self.listed.keys()
        self.run += sum(not self.listed.keys() & set(case) for case in cases)
        # A listed test that is not in the programs counts as one case.
        for name in self.listed.keys() & self.known - self.left_out.keys():
            self.left_out[name] = max(1, sum(name in case for case in cases))

    def add_scripts(self, run):
        for script, cases in lists.integration_cases().items():
            name = f"Integration.{script}"
            names = {f"{name}.{case}" for case in cases}
            self.known |= {name} | names
            if name in self.listed:
                self.left_out[name] = len(cases)
            elif script in run:
                self.left_out.update(dict.fromkeys(names & self.listed.keys(), 1))
                self.run += len(names - self.listed.keys())
            else:
                self.missing.append(name)

    def failures(self):
        return [f"listed, but there is no such test: {name}"
                for name in sorted(self.listed.keys() - self.known)] + [
                    f"neither run on Windows nor listed: {name}" for name in sorted(self.missing)]


def main():
    build = pathlib.Path(sys.argv[1])
    programs = [line.split("\t") for line in lines_of(build / "test-programs.txt")]
    coverage = Coverage()
    coverage.add_folders({pathlib.Path(folder) for _, folder in programs} | {lists.INTEGRATION})
    coverage.add_programs(programs)
    coverage.add_scripts(lines_of(build / "test-scripts.txt"))
    failures = coverage.failures()
    if failures:
        sys.exit("\n".join(failures))
    print(f"tests on Windows: {coverage.run} run, {sum(coverage.left_out.values())} are listed as "
          "not for Windows:")
    for name, reason in coverage.listed.items():
        print(f"  {name} ({coverage.left_out[name]}): {reason}")


main()
