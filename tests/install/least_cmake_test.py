#!/usr/bin/env python3
"""What the library's build is described with is as old as the CMake that it asks for.

    tests/install/least_cmake_test.py SOURCE_DIR SCRATCH_DIR

CMake's own help says of commands, their keywords, modules, variables, properties and generator expressions which version
added them, with few gaps. Under the policies of the least version, today's CMake has nothing to warn of.
"""

import functools
import pathlib
import re
import shutil
import subprocess
import sys

SOURCE, SCRATCH = map(pathlib.Path, sys.argv[1:])
# The presets alone lead to the tests, the benchmarks and the proof: these ask for a later version themselves.
FILES = ["CMakeLists.txt", "cmake/*.cmake", "cmake/*.cmake.in", "tools/CMakeLists.txt", "docs/CMakeLists.txt",
         "examples/CMakeLists.txt", "examples/guide/CMakeLists.txt", "tests/install/consumer/CMakeLists.txt"]
# What the help names and the build does without, with the reason. One that is not needed is a mistake.
HARMLESS = {
    "add_library ALIAS": "it is the alias of an imported target that came late; these are of targets that are built here",
    "install COMPONENT": "the help names it beside a later option",
    "install RENAME": "expressions in it came late, and none is used",
    "message STATUS": "its indentation came late",
    "property EXPORT_COMPILE_COMMANDS": "an earlier CMake takes no notice of it",
}
WORD = re.compile(r"\b[A-Z][A-Z0-9_]+\b")


@functools.lru_cache(maxsize=None)
def helpOn(kind, name):
    """The help's text, or nothing where there is none."""
    said = subprocess.run(["cmake", f"--help-{kind}", name], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return said.stdout if said.returncode == 0 else ""


def version(text):
    return tuple(map(int, text.split(".")))


def additions(text):
    """(version, line before, paragraph after) for each `versionadded`."""
    lines = text.splitlines()
    for number, line in enumerate(lines):
        match = re.match(r"( *)\.\. versionadded:: ([\d.]+)(.*)", line)
        if match:
            before = next(earlier for earlier in reversed(lines[:number]) if earlier.strip())
            paragraph = re.search(r"\S(.|\n(?!\n))*", "\n".join([match[3], *lines[number + 1:]]))
            yield version(match[2]), before, paragraph[0] if paragraph else ""


def wholeSince(text):
    """The version that added what the text is about, if it says so before all else."""
    match = re.match(r"\S+\n-+\n\s*\.\. versionadded:: ([\d.]+)\n", text)
    return version(match[1]) if match else (0,)


def keywordsOf(command):
    """The keywords of a command, as (keyword, version, whether it can only be the first argument)."""
    for since, before, after in additions(helpOn("command", command)):
        signature = re.match(rf" *{command}\(([A-Z_]+)", before)
        if signature:
            yield signature[1], since, True
        elif before.startswith("``"):
            yield from ((word, since, False) for word in WORD.findall(before))
        else:
            yield from ((word, since, False)
                        for quoted in re.findall(r"``([^`]*)``", after) for word in WORD.findall(quoted))


def calls(text):
    """(command, [argument]) for each call; those of a variable's value are not known."""
    text = re.sub(r"#.*", "", text)
    for match in re.finditer(r"^ *(\w+)\(((?:[^()\"]|\"[^\"]*\"|\([^()]*\))*)\)", text, re.MULTILINE):
        yield match[1].lower(), re.findall(r"\"[^\"]*\"|[^\s\"()]+", match[2])


def tooLate(text, least):
    """A line's text for each thing in these CMake files that is later than the least version."""
    found = {}
    for command, arguments in calls(text):
        found[f"command {command}"] = wholeSince(helpOn("command", command))
        for keyword, since, isFirst in keywordsOf(command):
            if keyword in (arguments[:1] if isFirst else arguments):
                found[f"{command} {keyword}"] = since
        if command == "include":
            found[f"module {arguments[0]}"] = wholeSince(helpOn("module", arguments[0]))
        if "propert" in command:
            for argument in filter(WORD.fullmatch, arguments):
                found[f"property {argument}"] = wholeSince(helpOn("property", argument))
    for name in set(re.findall(r"\b(?:CMAKE|PROJECT|BUILD)_[A-Z_]+\b", re.sub(r"#.*", "", text))):
        found[f"variable {name}"] = wholeSince(helpOn("variable", name))
    manual = helpOn("manual", "cmake-generator-expressions(7)")
    for name in set(re.findall(r"\$<([A-Z_]+)\b", text)):
        match = re.search(rf"genex:: \$<{name}[:>][^\n]*\n+ +\.\. versionadded:: ([\d.]+)", manual)
        found[f"expression {name}"] = version(match[1]) if match else (0,)
    return {what for what, since in found.items() if since > least}


top = (SOURCE / "CMakeLists.txt").read_text()
least = version(re.search(r"^cmake_minimum_required\(VERSION ([\d.]+)\.\.\.", top, re.MULTILINE)[1])
text = "\n".join(path.read_text() for pattern in FILES for path in sorted(SOURCE.glob(pattern)))
assert len(list(calls(text))) > 100, "hardly a call: is it looking in the right place?"
late = tooLate(text, least)
if late != set(HARMLESS):
    sys.exit(f"later than CMake {least}: {sorted(late - set(HARMLESS))}; "
             f"wrongly said to be harmless: {sorted(set(HARMLESS) - late)}")

# The check itself.
for line, what in {
        "cmake_path(GET path FILENAME name)": "command cmake_path",
        "list(POP_FRONT names name)": "list POP_FRONT",
        "if(first PATH_EQUAL second)": "if PATH_EQUAL",
        "if(PROJECT_IS_TOP_LEVEL)": "variable PROJECT_IS_TOP_LEVEL",
        "target_precompile_headers(program REUSE_FROM other)": "command target_precompile_headers",
        "set_target_properties(program PROPERTIES UNITY_BUILD ON)": "property UNITY_BUILD",
        "include(CheckLinkerFlag)": "module CheckLinkerFlag",
        "target_sources(program PRIVATE $<PATH:GET_STEM,a.cpp>)": "expression PATH"}.items():
    found = tooLate(line, least)
    if what not in found:
        sys.exit(f'"{line}" is not noticed: {found}')

# The policies.
shutil.rmtree(SCRATCH, ignore_errors=True)
copy = SCRATCH / "copy"
for path in ("cmake", "docs", "examples", "include", "libsrc", "tools"):
    shutil.copytree(SOURCE / path, copy / path, symlinks=True)
for path in SOURCE.glob("*.md"):
    shutil.copy(path, copy)
(copy / "CMakeLists.txt").write_text(re.sub(r"^(cmake_minimum_required\(VERSION [\d.]+?)\.\.\.[\d.]+", r"\1", top,
                                            flags=re.MULTILINE))
configured = subprocess.run(["cmake", "-S", copy, "-B", SCRATCH / "build", "-G", "Ninja", "-Werror=dev",
                             "-DGILVANE_BUILD_TESTS=OFF"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
if configured.returncode != 0:
    sys.exit(configured.stdout)
shutil.rmtree(SCRATCH)
