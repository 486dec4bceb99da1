"""A shell in which the blocks of one page run in their order, as somebody types them."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

LONGEST_BLOCK = 600  # seconds; one that compiles takes long where much else runs
LONGEST_OUTPUT_WAIT = 20  # seconds, for what a program in the background still prints


class Failure(Exception):
    pass


def matches(expected, shown):
    """Whether the output is what the page shows: `...` stands for any text, on a line of its own for any lines."""

    def pattern(line):
        return ".*".join(re.escape(part) for part in line.rstrip().split("..."))

    if not expected.strip():
        return not shown.strip()
    parts = []
    for line in expected.rstrip("\n").split("\n"):
        parts.append("(?:[^\n]*\n)*" if line.strip() == "..." else pattern(line) + "[ \t]*\n")
    return re.fullmatch("".join(parts), shown.rstrip() + "\n" if shown.strip() else "") is not None


def is_whole(command):
    """Whether the shell would not wait for more lines."""
    # An unfinished here-document is nothing but a warning.
    look = subprocess.run(["bash", "-n"], input=command, text=True, capture_output=True, check=False)
    return look.returncode == 0 and not look.stderr and not command.endswith("\\")


def commands_of(text):
    """The commands of a block; lines that belong together are one."""
    found, pending = [], []
    for line in text.split("\n"):
        pending.append(line)
        command = "\n".join(pending)
        if is_whole(command):
            found += [command] if command.strip() else []
            pending = []
    return found + (["\n".join(pending)] if pending else [])


def console_steps(text):
    """[(command, output)] of a block that shows both."""
    steps = []
    for line in text.rstrip("\n").split("\n"):
        if line.startswith("$ "):
            steps.append([line[2:], ""])
        elif not steps:
            raise Failure("a console block begins with a line `$ COMMAND`")
        elif steps[-1][0].endswith("\\"):
            steps[-1][0] += "\n" + line.removeprefix("> ")
        else:
            steps[-1][1] += line + "\n"
    return steps


def output_of(following):
    """What a block prints, by the block after it: an untagged one that follows directly or is marked as output."""
    shown = following and following.tag == "" and (following.follows or "output" in following.directives)
    return following.text if shown else None


class Session:
    def __init__(self, environment, folder=None):
        self.own = folder is None
        self.folder = Path(folder or tempfile.mkdtemp(prefix="blocks-"))
        self.control = Path(tempfile.mkdtemp(prefix="blocks-control-"))
        self.count = 0
        self.shell = subprocess.Popen(
            ["bash", "--norc", "--noprofile"], stdin=subprocess.PIPE, text=True, cwd=self.folder,
            env=dict(environment), start_new_session=True)
        self._send("set -o pipefail")

    def close(self):
        """Ends the shell and what it started."""
        self.shell.stdin.close()
        for sign, patience in ((signal.SIGTERM, 10), (signal.SIGKILL, 1)):
            deadline = time.monotonic() + patience
            try:
                os.killpg(self.shell.pid, sign)
                while time.monotonic() < deadline:
                    self.shell.poll()
                    os.killpg(self.shell.pid, 0)
                    time.sleep(0.02)
            except ProcessLookupError:
                break
        shutil.rmtree(self.control, ignore_errors=True)
        if self.own:
            shutil.rmtree(self.folder, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.close()

    def write(self, name, text):
        """Writes a file to the folder where the shell is now."""
        place = self.control / "folder"
        self.run(f"pwd >{place}")
        path = Path(place.read_text().rstrip("\n")) / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def _send(self, line):
        self.shell.stdin.write(line + "\n")
        self.shell.stdin.flush()

    def run(self, script, expected=None, exits=0):
        """Runs the script in the shell. Raises Failure where it fails or shows something else."""
        self.count += 1
        base = self.control / str(self.count)
        base.with_suffix(".sh").write_text(script)
        # A script that has to succeed stops at its first command that fails, and with it the shell.
        mode = "-e" if exits == 0 else "+e"
        self._send(f"set {mode}; . {base}.sh >{base}.out 2>&1 </dev/null; echo $? >{base}.tmp; mv {base}.tmp {base}.status")
        status = self._await_status(base)
        shown = lambda: base.with_suffix(".out").read_text(errors="replace")
        if status != exits:
            raise Failure(f"exit status {status}, not {exits}; it printed\n{shown()}")
        if expected is None:
            return
        deadline = time.monotonic() + LONGEST_OUTPUT_WAIT
        while not matches(expected, shown()):
            if time.monotonic() > deadline:
                raise Failure(f"the page shows\n{expected}\nand the command\n{shown()}")
            time.sleep(0.05)

    def _await_status(self, base):
        deadline = time.monotonic() + LONGEST_BLOCK
        status = base.with_suffix(".status")
        while not status.exists():
            if self.shell.poll() is not None:
                return self.shell.returncode
            if time.monotonic() > deadline:
                raise Failure(f"it runs for more than {LONGEST_BLOCK} seconds")
            time.sleep(0.01)
        return int(status.read_text())
