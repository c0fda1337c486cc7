"""Which tests run on Windows: coverage.py BUILD_DIRECTORY

Fails if a test of the folders that are tested on Windows is neither in the test programs nor in
not-for-windows.txt, or if a listed one does not exist. Prints how many cases run and are listed."""

import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
DEFINITION = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)


def read_list():
    """The reason by name."""
    listed = {}
    for line in (HERE / "not-for-windows.txt").read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        name, _, reason = line.partition(" ")
        if not reason.strip() or name in listed:
            sys.exit(f"not-for-windows.txt: listed twice, or without a reason: {name}")
        listed[name] = reason.strip()
    return listed


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
            suite = line.split("#")[0].strip()[:-1].split("/")[-1]
        elif line.startswith("  "):
            # The parameter of a case is its number where it has no name.
            case = f"{suite}.{line.split('#')[0].strip()}"
            cases.append((case.split("/")[0], case))
    return cases


def main():
    listed = read_list()
    programs = []
    for line in (pathlib.Path(sys.argv[1]) / "test-programs.txt").read_text().splitlines():
        programs.append(line.split("\t"))
    sources = set().union(*(in_sources(directory) for _, directory in programs))
    cases = [case for program, _ in programs for case in in_program(program)]

    known = sources | {case for _, case in cases}
    failures = [f"listed, but there is no such test: {name}" for name in sorted(listed.keys() - known)]
    failures += [
        f"neither run on Windows nor listed: {name}"
        for name in sorted(sources - {name for name, _ in cases} - listed.keys())
    ]
    # A listed test that is not in the programs counts as one case.
    left_out = {name: max(1, sum(name in case for case in cases)) for name in listed}
    run = sum(not listed.keys() & set(case) for case in cases)
    print(f"tests on Windows: {run} run, {sum(left_out.values())} are listed as not for Windows:")
    for name, reason in listed.items():
        print(f"  {name} ({left_out[name]}): {reason}")
    if failures:
        sys.exit("\n".join(failures))


main()
