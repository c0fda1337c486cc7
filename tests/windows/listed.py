"""not-for-windows.txt, and what the scripts of tests/integration hold."""

import ast
import pathlib
import sys

TESTS = pathlib.Path(__file__).resolve().parents[1]
INTEGRATION = TESTS / "integration"


def read_list():
    """The reason by name."""
    listed = {}
    for line in (TESTS / "windows" / "not-for-windows.txt").read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        name, _, reason = line.partition(" ")
        if not reason.strip() or name in listed:
            sys.exit(f"not-for-windows.txt: listed twice, or without a reason: {name}")
        listed[name] = reason.strip()
    return listed


def cases_of(script):
    """Class and function of every case that the script has itself."""
    cases = []
    for node in ast.parse(script.read_text(encoding="utf-8")).body:
        if isinstance(node, ast.ClassDef):
            cases += [f"{node.name}.{function.name}" for function in node.body
                      if isinstance(function, ast.FunctionDef)
                      and function.name.startswith("test_")]
    return cases


def integration_cases():
    """By the name of the script; those that can't be run by themselves are parts of others."""
    return {script.stem: cases_of(script) for script in sorted(INTEGRATION.glob("*.py"))
            if "__main__" in script.read_text(encoding="utf-8")}
