"""The list of mutants that no test on this machine's plain build can see, each with its reason."""

import typing

TARGETS = ("arm", "asan", "hardened")


class Entry(typing.NamedTuple):
    reason: str
    target: str  # where the suite sees it, or None


def read(path):
    """Mutant's key -> Entry.

    A block is separated from the next by an empty line:

        file: libsrc/…
        line: the line's text, without what surrounds it
        mutation: as the survivor was described; any number of these lines, each with " #2" for the second of its kind
        watched-by: arm, asan or hardened, if the suite sees it on 32-bit ARM, under AddressSanitizer or in the
            hardened build
        because: the reason, which may go on in indented lines
    """
    entries = {}
    for block in path.read_text().split("\n\n"):
        fields = {"mutation": []}
        last = None
        for line in block.splitlines():
            if line.startswith("#"):
                continue
            if line.startswith(" "):
                fields[last] += " " + line.strip()
                continue
            last, _, value = line.partition(": ")
            if last == "mutation":
                fields[last].append(value)
            else:
                fields[last] = value
        if not fields["mutation"]:
            continue
        target = fields.get("watched-by")
        if target not in (None, *TARGETS):
            raise SystemExit(f"mutants: nothing is watched by {target}")
        for mutation in fields["mutation"]:
            label, _, number = mutation.rpartition(" #")
            if not number.isdigit() or not label:
                label, number = mutation, "1"
            key = (fields["file"], fields["line"], label, int(number))
            if key in entries:
                raise SystemExit(f"mutants: twice in the list: {' | '.join(map(str, key))}")
            entries[key] = Entry(fields["because"], target)
    return entries
