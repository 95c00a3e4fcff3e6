#!/usr/bin/env python3
"""Unites what several programs cover of the same sources, and is the gate that must find nothing left.

usage: evaluate.py ROOT EXCLUSIONS SOURCE... [--result FILE] [--prefix TEXT] -- EXPORT...

SOURCE is a file below ROOT; EXPORT is what `llvm-cov export` writes of one program. The figures go to FILE, each after
TEXT.

A place of a source stands for itself, however often it was compiled: in several programs, and as part of several
instantiations of a template. It is covered when it is covered in one of them:
  region    one of them runs it
  branch    each outcome is taken in one of them, not necessarily in the same
  condition one of them alone has shown it to decide alone (MC/DC): runs of different instantiations, or of different
            programs, are not put together for this
A region that `if constexpr` or the preprocessor leaves out everywhere counts as not compiled, and so does a .cpp file
of which nothing is measured.

A line of code counts as covered when a region that starts in it, or else the one that it lies in, is covered. Places
that an exclusion excuses count in no figure but in that of the exclusions.
"""

import collections
import functools
import json
import os
import re
import sys

CODE, SKIPPED, GAP = 0, 2, 3  # kinds of regions


class Source:
    """What is known of one source; places are (first line, first column, last line, last column)."""

    def __init__(self, root, name):
        self.name = name
        with open(os.path.join(root, name), encoding="utf-8") as file:
            self.texts = [line.rstrip("\n") for line in file]
        self.regions = collections.Counter()  # place -> runs
        self.lines = {}  # line -> whether covered
        self.leftOut = {}  # line that an instantiation leaves out -> the first place that it is in
        self.branches = {}  # place -> [taken when true, taken when false]
        self.decisions = {}  # place -> [whether each condition has decided alone]
        self.excused = {"lines": set(), "outcomes": set(), "conditions": set()}
        self.isExcused = False  # as a whole

    def text(self, place):
        """The source text of a place, in one line."""
        first, column, last, end = place
        if first == last:
            return self.texts[first - 1][column - 1 : end - 1]
        return self.texts[first - 1][column - 1 :].strip() + " ..."

    def conditions(self, decision):
        """The places of a decision's conditions, in their order."""
        start, end = decision[:2], decision[2:]
        places = sorted(place for place in self.branches if start <= place[:2] and place[2:] <= end)
        if len(places) != len(self.decisions[decision]):
            sys.exit(f"{self.name}:{decision[0]}: cannot tell the conditions of this decision apart")
        return places

    def add(self, function):
        """Takes in what one function, or one instantiation, was seen to do."""
        regions = [(tuple(region[:4]), region[7], region[4]) for region in function["regions"]]
        if any(region[5] != 0 for region in function["regions"]):
            sys.exit(f"{self.name}: the code of a macro cannot be told apart; write a function instead")
        for place, kind, runs in regions:
            if kind == CODE:
                self.regions[place] += runs
        for branch in function["branches"]:
            taken = self.branches.setdefault(tuple(branch[:4]), [False, False])
            taken[0] |= branch[4] > 0
            taken[1] |= branch[5] > 0
        for record in function["mcdc_records"]:
            shown = self.decisions.setdefault(tuple(record[:4]), [False] * len(record[6]))
            shown[:] = [before or now for before, now in zip(shown, record[6])]
        self.addLines(regions)

    def addLines(self, regions):
        # The first region is the body, or a constructor's first initialiser that has regions of its own.
        for line in range(min(place[0] for place, _, _ in regions), max(place[2] for place, _, _ in regions) + 1):
            text = self.texts[line - 1]
            if not text.strip() or text.lstrip().startswith(("//", "#")):
                continue
            runs = [count for place, kind, count in regions if kind == CODE and place[0] == line]
            if not runs:
                start = (line, len(text) - len(text.lstrip()) + 1)
                around = [region for region in regions if region[0][:2] <= start < region[0][2:]]
                place, kind, count = max(around, key=lambda region: (region[0][:2], [-end for end in region[0][2:]]))
                if kind == SKIPPED:
                    self.leftOut.setdefault(line, place)
                    continue
                runs = [count]
            self.lines[line] = self.lines.get(line, False) or max(runs) > 0

    def excuseAll(self):
        """Applies an exclusion of the whole file; returns what is wrong with it, or None."""
        if not self.regions:
            return "not a region of its file is measured"
        if any(self.regions.values()):
            return "not needed: code of its file is run"
        self.isExcused = True
        return None

    def excuseEmpty(self):
        """Applies an exclusion of a file that the preprocessor leaves nothing of; returns as excuseAll does."""
        if self.regions:
            return "not needed: code of its file is compiled"
        self.isExcused = True
        return None

    def excuseGuarded(self, constant):
        """Applies an exclusion of what `if constexpr` leaves out for this constant; returns as excuseAll does."""
        guard = re.compile(rf"if constexpr \((detail::)?{constant}\) \{{$")
        lines = [line for line, place in self.leftOut.items() if guard.fullmatch(self.texts[place[0] - 1].strip())]
        if not lines:
            return "not needed: its constant leaves nothing out"
        self.excused["lines"].update(lines)
        return None

    def excuse(self, text, condition, outcome):
        """Applies an exclusion of an outcome; returns as excuseAll does."""
        numbers = [number for number, line in enumerate(self.texts, 1) if line.strip() == text]
        if len(numbers) != 1:
            return f"its line stands {len(numbers)} times in the file"
        places = [place for place in self.branches if place[0] == numbers[0] and self.text(place) == condition]
        if len(places) != 1:
            return "its condition is no branch of its line"
        if self.branches[places[0]][0 if outcome else 1]:
            return "not needed: its outcome is taken"
        self.excused["outcomes"].add((places[0], outcome))
        self.excused["conditions"].add(places[0])
        for region, runs in self.regions.items():
            if runs == 0 and region[0] == numbers[0] and region[:2] >= places[0][2:]:
                self.excused["lines"].update(range(region[0] + 1, region[2] + (self.lines.get(region[2]) is False)))
        return None

    def findings(self):
        """What is not covered, as (line, text)."""
        if self.isExcused:
            return
        if self.name.endswith(".cpp") and not self.regions:
            yield 1, "not compiled in any program: the whole file"
        for line in sorted(self.leftOut.keys() - self.lines.keys() - self.excused["lines"]):
            yield line, f"not compiled in any instantiation: {self.texts[line - 1].strip()}"
        missing = sorted(self.missingOutcomes())
        for place, outcome in missing:
            yield place[0], f"not taken: {'true' if outcome else 'false'} of: {self.text(place)}"
        for place in sorted(place for place, runs in self.regions.items() if runs == 0):
            # What a missing outcome of a branch alone leads to goes without saying.
            told = {branch[0] for branch, _ in missing} | {branch[0] for branch, _ in self.excused["outcomes"]}
            if place[0] not in told and place[0] not in self.excused["lines"]:
                yield place[0], f"not run: {self.text(place)}"
        told = {place for place, _ in missing}
        for decision, shown in sorted(self.decisions.items()):
            for place, alone in zip(self.conditions(decision), shown):
                if not alone and place not in self.excused["conditions"] and place not in told:
                    yield place[0], f"not deciding alone: {self.text(place)} in: {self.text(decision)}"

    def missingOutcomes(self):
        """The outcomes of branches that are neither taken nor excused, as (place, outcome)."""
        for place, taken in self.branches.items():
            for outcome, wasTaken in ((True, taken[0]), (False, taken[1])):
                if not wasTaken and (place, outcome) not in self.excused["outcomes"]:
                    yield place, outcome

    def figures(self):
        """(covered, all) of lines, branch outcomes and conditions, the excused ones left out."""
        if self.isExcused:
            return [(0, 0)] * 3
        lines = [covered for line, covered in self.lines.items() if line not in self.excused["lines"]]
        taken = sum(sum(outcomes) for outcomes in self.branches.values())
        shown = [
            alone
            for decision, conditions in self.decisions.items()
            for place, alone in zip(self.conditions(decision), conditions)
            if place not in self.excused["conditions"]
        ]
        outcomes = 2 * len(self.branches) - len(self.excused["outcomes"])
        return [(sum(lines), len(lines)), (taken, outcomes), (sum(shown), len(shown))]


def readExclusions(path):
    """The entries of the exclusions' file, as (source, what it is for a reader, how it is applied to the source)."""
    entries = []
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            text = line.strip()
            if not text or text.startswith("#"):
                continue
            if not line[0].isspace():
                entries.append({"source": text})
                continue
            key, _, value = text.partition(":")
            if entries and key in ("line", "never", "constant", "macro", "leaves out", "reason"):
                entries[-1][key] = value.strip()
            elif not entries or "reason" not in entries[-1]:
                sys.exit(f"{path}:{number}: not understood: {text}")
    result = []
    for entry in entries:
        condition, _, outcome = entry.get("never", "").rpartition(" is ")
        kind = set(entry) - {"source", "reason"}
        if not entry.get("reason"):
            sys.exit(f"{path}: the entry for {entry['source']} gives no reason")
        if kind == {"line", "never"} and outcome in ("true", "false"):
            apply = functools.partial(Source.excuse, text=entry["line"], condition=condition,
                                      outcome=outcome == "true")
        elif kind == {"constant", "leaves out"} and entry["leaves out"] == "the file":
            apply = Source.excuseAll
        elif kind == {"macro", "leaves out"} and entry["leaves out"] == "the file":
            apply = Source.excuseEmpty
        elif kind == {"constant", "leaves out"} and entry["leaves out"] == "what it guards":
            apply = functools.partial(Source.excuseGuarded, constant=re.escape(entry["constant"]))
        else:
            sys.exit(f"{path}: the entry for {entry['source']} is not complete")
        result.append((entry["source"], entry.get("line") or entry["leaves out"], apply))
    return result


def main(arguments):
    separator = arguments.index("--")
    arguments, exports = arguments[:separator], arguments[separator + 1 :]
    options = {"--result": None, "--prefix": ""}
    for name in options:
        if name in arguments:
            position = arguments.index(name)
            options[name] = arguments[position + 1]
            del arguments[position : position + 2]
    root, exclusions, *names = arguments
    sources = {os.path.realpath(os.path.join(root, name)): Source(root, name) for name in names}
    for export in exports:
        with open(export, encoding="utf-8") as file:
            for function in json.load(file)["data"][0]["functions"]:
                source = sources.get(os.path.realpath(function["filenames"][0]))
                if source is not None:
                    source.add(function)

    findings = []
    entries = readExclusions(exclusions)
    for name, what, apply in entries:
        source = sources.get(os.path.realpath(os.path.join(root, name)))
        wrong = "its file is not measured" if source is None else apply(source)
        if wrong is not None:
            findings.append(f"not a good exclusion: {name}, {what}: {wrong}")

    totals = [[0, 0], [0, 0], [0, 0]]
    print(f"{'':44}{'lines':>12}{'branches':>12}{'MC/DC':>12}")
    for source in sources.values():
        figures = source.figures()
        findings += [f"{text}  ({source.name}:{line})" for line, text in source.findings()]
        for total, (covered, whole) in zip(totals, figures):
            total[0] += covered
            total[1] += whole
        if source.lines:
            print(f"{source.name:44}" + "".join(f"{f'{covered}/{whole}':>12}" for covered, whole in figures))
    print(f"{'all':44}" + "".join(f"{f'{covered}/{whole}':>12}" for covered, whole in totals))
    for finding in findings:
        print(finding)
    if any(whole == 0 for _, whole in totals[:2]):
        findings.append("not a single line or branch was measured")
        print(findings[-1])

    if options["--result"] is not None:
        figures = {name: f"{covered} of {whole}" for name, (covered, whole)
                   in zip(("lines", "branch outcomes", "MC/DC conditions"), totals)}
        figures.update({"exclusions": len(entries), "findings": len(findings)})
        with open(options["--result"], "w", encoding="utf-8") as file:
            file.writelines(f"{options['--prefix']}{name}: {figure}\n" for name, figure in figures.items())
    return 1 if findings or any(covered != whole for covered, whole in totals) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
