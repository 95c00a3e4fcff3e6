"""The list of mutants that no test can see, each with its reason."""


def read(path):
    """Mutant's key -> reason.

    A block is separated from the next by an empty line:

        file: libsrc/…
        line: the line's text, without what surrounds it
        mutation: as the survivor was described; any number of these lines, each with " #2" for the second of its kind
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
        for mutation in fields["mutation"]:
            label, _, number = mutation.rpartition(" #")
            if not number.isdigit() or not label:
                label, number = mutation, "1"
            entries[(fields["file"], fields["line"], label, int(number))] = fields["because"]
    return entries
