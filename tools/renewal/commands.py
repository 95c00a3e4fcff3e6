"""How the project's scripts in Python call commands, and those that its scripts in bash share."""

import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Failed(Exception):
    """Why a script ends."""


def output(*command, **options):
    """What a command writes, which must succeed."""
    words = [str(word) for word in command]
    done = subprocess.run(words, **{"cwd": ROOT, "capture_output": True, "text": True, **options})
    if done.returncode != 0:
        raise Failed(f"this ended with status {done.returncode}: {' '.join(words)}\n{done.stdout}{done.stderr}".rstrip())
    return done.stdout


def shell(script, *arguments, **options):
    """Runs a script in bash that has what the project's scripts share. It says by itself why it fails."""
    prologue = "set -euo pipefail; . tools/lib.sh; . tools/packages.sh; . tools/abi.sh\n"
    name = pathlib.Path(sys.argv[0]).name
    if subprocess.run(["bash", "-c", prologue + script, name, *arguments], cwd=ROOT, **options).returncode != 0:
        raise Failed("stopped, see above")


def needPackages(name):
    """Has a list of tools/packages.sh installed, and speaks of that on standard error: some scripts write figures."""
    shell(f'needPackages "${{{name}Packages[@]}}"', stdout=sys.stderr)
