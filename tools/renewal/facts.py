"""The README's table of measured facts, from the pages that programs wrote."""

import pathlib
import re
import sys

import stamps

ROOT = pathlib.Path(__file__).resolve().parents[2]
BEGIN = "<!-- facts, written by tools/renew -->\n"
END = "<!-- end of facts -->\n"


def rows(name):
    """The cells of every line of the document's tables, without emphasis."""
    for line in (ROOT / "docs" / name).read_text().splitlines():
        if line.startswith("|"):
            yield [cell.strip().replace("**", "") for cell in line.strip("|").split("|")]


def one(found, what):
    found = list(found)
    if len(found) != 1:
        sys.exit(f"renew: {len(found)} rows instead of one tell of {what}")
    return found[0]


def ratio(title, size, against):
    """How the library compares in a row of the table of goals."""
    return one((row[5] for row in rows("performance.md")
                if len(row) == 9 and row[0] == title and row[1] == size and row[3].startswith(against)),
               f"{title}, {size}, against {against}")


def sharing(threads):
    """How a shared pool with caches compares with the best of the others, and which that is."""
    title = f"borrow + address + touch + return, shared pool and caches, {threads} thread{'s' if threads > 1 else ''}"
    row = one((row for row in rows("performance.md") if len(row) == 9 and row[0] == title and ", the best of" in row[3]),
              title)
    return f"{row[5]} {row[3].partition(',')[0]} with {threads}"


def bytes_per_block():
    return one((row[2] for row in rows("performance.md") if row[0] == "resident memory per block, bytes"), "memory")


def proven(part, what):
    here = None
    for row in rows("proof.md"):
        here = row[0] or here
        if (here, row[1]) == (part, what):
            return f"{int(row[2]):,}".replace(",", " ") if row[2].isdigit() else row[2]
    sys.exit(f"renew: {part} says nothing of {what}")


def tests(preset):
    return one((re.sub(r".* of (\d+) .*", r"\1", row[4]) for row in rows("platforms.md")
                if row[0].startswith(f"`{preset}`")), preset)


def size(name):
    row = one((row for row in rows("layout.md") if row[0] == f"`{name}`"), name)
    return row[2], row[5]


def facts():
    small, large = "1 000", "1 000 000"
    arm, x86 = size("GVMemoryPool")
    arm_block, x86_block = size("GVMemoryPoolObject")
    by_hand = "as much as a pool written by hand with Boost and Abseil"
    table = [
        ("threads borrow, use and return shared blocks",
         f"{sharing(1)}, {sharing(2)}, {sharing(8)}: the best of malloc, mimalloc, jemalloc, tcmalloc and rte_mempool"),
        ("borrow and return, no lock", f"{ratio('borrow + return, unlocked', '1 024', 'hand-written')} {by_hand}"),
        ("address of a random token, 1 000 blocks", f"{ratio('address of a random live token', small, 'hand-written')} likewise"),
        ("shrink of a million free blocks, each block",
         f"{ratio('shrink a pool of free blocks to half, tokens free in the order of building', large, 'at')} the cost in a thousand"),
        ("memory, a million blocks of 64 bytes", f"{bytes_per_block()} bytes for each, all counted"),
        ("size of a pool, of a block's object", f"{x86} and {x86_block} bytes; on 32-bit ARM {arm} and {arm_block}"),
        ("tests", f"{tests('dev')} on x86-64, {tests('arm')} on 32-bit ARM, {tests('asan')} under sanitizers"),
        ("points where an allocation was refused",
         f"{proven('failures', 'failure points, refused once')}, once each and from there on, on both"),
        ("sequences of operations beside a model", proven("model", "sequences enumerated")),
        ("interleavings of threads beside a reference", proven("interleavings", "schedules")),
        ("branch outcomes, MC/DC conditions covered",
         f"{proven('coverage', 'branch outcomes')}, {proven('coverage', 'MC/DC conditions')}"),
        ("mutants killed", f"{proven('mutants', 'killed')} of {proven('mutants', 'mutants')}; "
                           f"{proven('mutants', 'equivalent')} cannot be, each with its reason"),
    ]
    yield "| What | Figure |\n|---|---|\n"
    for what, figure in table:
        yield f"| {what} | {figure} |\n"


def sources():
    """Of which library the pages are that the facts come from."""
    for page in ("performance", "platforms", "proof"):
        stamp = stamps.stampOf((ROOT / "docs" / f"{page}.md").read_text())
        yield page, f"version {stamp[0]}, libsrc {stamp[1]}" if stamp else "an earlier library"


def provenance():
    """A sentence for each library that facts are of."""
    pages = {}
    for page, about in sources():
        pages.setdefault(about, []).append(page)
    return " ".join(f"The figures of {' and '.join(names)} are of {about}." for about, names in pages.items())


def renewed():
    """The README, with the facts as the pages have them."""
    text = (ROOT / "README.md").read_text()
    before, begin, rest = text.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        sys.exit("renew: README.md has no place for the facts")
    return before + BEGIN + "\n" + "".join(facts()) + "\n" + provenance() + "\n\n" + END + after


def areShown():
    return renewed() == (ROOT / "README.md").read_text()


def write():
    (ROOT / "README.md").write_text(renewed())
