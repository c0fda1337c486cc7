"""What the measuring programs share when they write their figures down."""

import datetime
import pathlib
import platform
import re
import subprocess
import sys


def replace(path, mark, text):
    """Puts the text between the marks "<!-- MARK -->" and "<!-- end of MARK -->" of a file."""
    changed, places = re.subn(rf"(<!-- {mark} -->\n).*?(<!-- end of {mark} -->)",
                              lambda found: found[1] + text + "\n" + found[2], path.read_text(),
                              flags=re.DOTALL)
    if places != 1:
        sys.exit(f"{path} has {places} places that are marked {mark}, in place of one; not written:\n"
                 f"{text}")
    path.write_text(changed)


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())
    with open("/proc/loadavg", encoding="ascii") as load:
        busy = load.read().split()[0]
    return (f"{model[1] if model else 'unknown processor'}, "
            f"{len(re.findall('^processor', pathlib.Path('/proc/cpuinfo').read_text(), re.M))} "
            f"processors, {int(memory[1]) // 1024} MB, {platform.system()} {platform.release()}, "
            f"{version_of(['c++', '--version'])}; {datetime.date.today()}, load average {busy} at "
            "the end of the run")


def version_of(command, environment=None):
    """The first line of what a program says of itself, or that it says nothing."""
    try:
        said = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              env=environment, check=False, timeout=30).stdout.strip()
    except OSError as error:
        said = f"a program that does not run ({error.strerror})"
    return said.split("\n")[0].split(" (aka")[0].strip() or "a program without a version"
