"""Runs a script of tests/integration without the cases that not-for-windows.txt lists.

    integration.py SCRIPT [arguments of unittest...]
"""

import sys
import unittest

import listed

sys.path.insert(0, str(listed.INTEGRATION))


def main():
    script = sys.argv.pop(1)
    left_out = listed.read_list()
    cases = [case for case in listed.integration_cases()[script]
             if f"Integration.{script}.{case}" not in left_out]
    unittest.main(module=script, argv=[*sys.argv, *cases])


main()
