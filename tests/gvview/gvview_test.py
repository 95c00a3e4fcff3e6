#!/usr/bin/env python3
"""The picture of a pool shows what the input holds, and says what it does not.

    gvview_test.py GVVIEW FOLDER REAL_INPUT...

FOLDER holds the inputs that are known by heart; the REAL_INPUTs come from a program.
"""

import re
import subprocess
import sys
import unittest
import xml.etree.ElementTree as ElementTree
from html.parser import HTMLParser

gvview, folder = sys.argv[1:3]
realInputs = sys.argv[3:]


def run(text):
    data = text if isinstance(text, bytes) else text.encode()
    return subprocess.run([gvview], input=data, capture_output=True, timeout=100, check=False)


def read(name):
    with open(name, encoding="utf-8") as file:
        return file.read()


class Page(HTMLParser):
    """What a page shows: text by section, and the drawings' cells as (title, classes)."""

    def __init__(self, text):
        super().__init__()
        self.size = len(text.encode())
        self.text = {"": ""}
        self.cells = {}
        self.points = {}
        self.outside = []
        self.section = ""
        self.cell = None
        self.inTitle = False
        # A browser forgives; this does not, and with it nothing is left open or overlapping.
        ElementTree.fromstring(text)
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        if tag in ("script", "link", "img", "iframe") or "src" in values or "href" in values:
            self.outside.append(tag)
        if tag == "section":
            self.section = values["id"]
            self.text[self.section] = ""
            self.cells[self.section] = []
            self.points[self.section] = 0
        if tag == "g" and values.get("class") == "cell":
            self.cell = ["", []]
            self.cells[self.section].append(self.cell)
        if tag == "circle":
            self.points[self.section] += 1
        if tag == "title":
            self.inTitle = True
        if tag == "rect" and self.cell is not None and values["class"] != "ground":
            self.cell[1].append(values["class"])

    def handle_startendtag(self, tag, attributes):
        self.handle_starttag(tag, attributes)

    def handle_endtag(self, tag):
        if tag == "g":
            self.cell = None
        if tag == "title":
            self.inTitle = False

    def handle_data(self, data):
        if self.cell is not None and self.inTitle:
            self.cell[0] += data
        elif not self.inTitle:
            self.text[self.section] += data.replace("\u202f", "")

    def colours(self, section):
        return ["+".join(classes) for _, classes in self.cells[section]]


def dumpOf(blocks):
    entries = "".join("\n\t<GVHashTableEntry>\n\t\t<K>%d</K>\n\t\t<V>%s</V>\n\t</GVHashTableEntry>\n" %
                      (token, hex(place) if place else "0") for token, place in blocks)
    return ("<GVMemoryPool><memoryPool><GVHashTable>%s</GVHashTable></memoryPool><bytesInEachObject>16"
            "</bytesInEachObject><theMutexHandle>0</theMutexHandle><useMutexHandle>0</useMutexHandle></GVMemoryPool>"
            % entries)


def reportOf(count, slots):
    values = dict.fromkeys((
        "bytesAskedFor bytesOfPool bytesOfBlockObjects bytesOfHeaderWords bytesOfSlots bytesOfFreeList bytesSpent "
        "bytesInEachObject deletedSlots load longestProbe meanProbe numberOfFreeTokens").split(), 1)
    values.update(pool="0x1000", numberOfBlocks=count, numberOfFreeBlocks=count // 2,
                  numberOfLentBlocks=count - count // 2, tableSize=slots, occupiedSlots=count,
                  emptySlots=slots - count, tokensTwiceFree="", tokensUnknown=" ".join(map(str, range(5000))),
                  tokensUnreachable="", tokensWithoutBlock="")
    lines = ["\t<%s>%s</%s>" % (name, value, name) for name, value in values.items()]
    lines.append("\t<slots>\n\t\t%s\n\t</slots>" % ("o" * count + "." * (slots - count)))
    lines += ["\t<block><token>%d</token><bytes>%s</bytes><length>48</length><state>%s</state><slot>%d</slot>"
              "<probes>%d</probes></block>" % (token, hex(0x100000 + token * 7919 % count * 80),
                                               "free" if token < count // 2 else "lent", token, 1 + token % 40)
              for token in range(count)]
    return "<GVMemoryPoolInspector>\n%s\n</GVMemoryPoolInspector>" % "\n".join(lines)


class Picture(unittest.TestCase):
    def page(self, text):
        result = run(text)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        page = Page(result.stdout.decode())
        self.assertEqual(page.outside, [], "the page needs something else")
        return page

    def refusal(self, text):
        result = run(text)
        self.assertEqual((result.returncode, result.stdout), (1, b""))
        self.assertRegex(result.stderr.decode(), r"^gvview: [^\n]+\n$")
        return result.stderr.decode()


class Dump(Picture):
    def test_showsWhereEachBlockLies(self):
        page = self.page(read(folder + "/pool.dump"))
        self.assertIn("blocks4", page.text[""])
        self.assertIn("bytes in each block16", page.text[""])
        self.assertIn("pool locksyes", page.text[""])
        # 16 bytes a cell: 0x13000, 0x13060 and 0x130f0, then, after the cut, 0x98000
        self.assertIn("a cell stands for 16 bytes", page.text["memory"])
        expected = [""] * 16 + ["block"]
        for cell in (0, 6, 15):
            expected[cell] = "block"
        self.assertEqual(page.colours("memory"), expected)
        self.assertEqual(page.cells["memory"][6][0], "0x13060 to 0x1306f; token 1")
        self.assertIn("532 KiB without a block, cut out", page.text["memory"])
        self.assertEqual(page.points["order"], 4)
        self.assertIn("Of the 3 blocks after the first, 3 lie above the one before", page.text["order"])

    def test_saysWhatItDoesNotHold(self):
        page = self.page(read(folder + "/pool.dump"))
        for section, what in (("loans", "does not hold which blocks are free or lent"),
                              ("slots", "does not hold the slots' states"),
                              ("probes", "does not hold the lengths of probes"),
                              ("absent", "where the blocks' bytes lie"),
                              ("absent", "which blocks are free"), ("absent", "slots of the table")):
            self.assertIn(what, page.text[section])
            self.assertEqual(page.cells[section], [])
        self.assertNotIn("bytes", page.cells)

    def test_findsWhatTokensAndAddressesTell(self):
        page = self.page(dumpOf([(1, 0x1000), (1, 0x1060), (2, 0x1000), (5, 0)]))
        self.assertIn("entries without a block15", page.text["findings"])
        self.assertIn("tokens with more than one entry11", page.text["findings"])
        self.assertIn("blocks under more than one token21, 2", page.text["findings"])
        self.assertIn("Looked for and not found: entries without a block; tokens with more than one entry; blocks",
                      self.page(dumpOf([(1, 0x1000)])).text["findings"])

    def test_maybeASharedPool(self):
        pool = read(folder + "/pool.dump").strip()
        page = self.page("<GVSharedPool>%s</GVSharedPool>" % pool)
        self.assertIn("Pool for threads", page.text[""])
        self.assertIn("statistics, caches and waiters", page.text["absent"])
        self.assertEqual(page.cells, self.page(pool).cells)

    def test_maybeATableOrASmartPointer(self):
        pool = read(folder + "/pool.dump").strip()
        table = pool[pool.index("<GVHashTable>"):pool.index("</memoryPool>")]
        page = self.page(table)
        self.assertIn("Table of blocks", page.text[""])
        self.assertIn("how large the blocks are, and whether the pool locks", page.text["absent"])
        pointer = '<GVSmartPointer object="0x12f08" refCount="3" ownObject="1" lock="0x14a00">%s</GVSmartPointer>'
        page = self.page(pointer % pool)
        self.assertIn("Shared memory pool at 0x12f08", page.text[""])
        self.assertIn("sharers3last sharerdeletes the poolpointer locksyes", page.text[""])
        self.assertEqual(page.colours("memory").count("block"), 4)
        page = self.page("<GVSmartPointer></GVSmartPointer>")
        self.assertIn("a pool: the pointer is empty", page.text["absent"])

    def test_maybeOfAnEmptyPool(self):
        page = self.page(dumpOf([]))
        self.assertIn("There are no blocks.", page.text["memory"])

    def test_ofAHundredThousandBlocksGivesASmallPage(self):
        page = self.page(dumpOf((token, 0x5500000000 + token * 7919 % 100000 * 96) for token in range(100000)))
        self.assertLess(page.size, 1 << 20)
        self.assertIn("blocks100000", page.text[""])
        self.assertLess(len(page.cells["memory"]), 1000)
        self.assertEqual(set(page.colours("memory")), {"block"})
        counted = sum(int(title.split("; ")[1].split(" block")[0].replace("\u202f", ""))
                      for title, _ in page.cells["memory"])
        self.assertEqual(counted, 100000)


class RealInput(Picture):
    def test_isRead(self):
        self.assertGreater(len(realInputs), 0)
        for name in realInputs:
            text = read(name)
            page = self.page(text)
            self.assertIn("blocks%d" % (text.count("<K>") + text.count("<block>")), page.text[""])


class Report(Picture):
    def test_showsFreeAndLentBlocks(self):
        page = self.page(read(folder + "/pool.report"))
        self.assertIn("lent: 3, 75 %", page.text["loans"])
        self.assertIn("free: 1, 25 %", page.text["loans"])
        self.assertEqual(page.cells["loans"], [["token 0: free", ["free"]], ["token 4: lent", ["lent"]],
                                               ["token 8: lent", ["lent"]], ["token 17: lent", ["lent"]]])
        # 16 bytes a cell, the block at 0x13048 in the first, at 0x13078 in the fourth, at 0x130a8 in the seventh
        self.assertEqual(page.colours("memory"), ["free", "", "", "lent", "", "", "lent"] + ["lent"])
        self.assertEqual(page.cells["memory"][3][0], "0x13078 to 0x13087: lent 16 bytes; token 8")

    def test_showsSlotsByStateAndProbes(self):
        page = self.page(read(folder + "/pool.report"))
        self.assertEqual(page.colours("slots"),
                         ["occupied", "occupied", "deleted", "", "occupied", "", "occupied", ""])
        self.assertEqual(page.cells["slots"][1][0], "slot 1: occupied by token 8, found at probe 3")
        self.assertEqual(page.cells["slots"][6][0], "slot 6: occupied by token 17, which no search reaches")
        self.assertIn("occupied: 4", page.text["slots"])
        self.assertIn("deleted: 1", page.text["slots"])
        self.assertIn("empty: 3", page.text["slots"])
        self.assertEqual("".join(page.text["probes"].split("blocks.")[1].split()), "1231notreached1")

    def test_showsFindingsAndBytes(self):
        page = self.page(read(folder + "/pool.report"))
        self.assertIn("Something is wrong", page.text["findings"])
        self.assertIn("tokens more than once in the free list10", page.text["findings"])
        self.assertIn("tokens in the free list that the pool does not know299, 4000000000", page.text["findings"])
        self.assertIn("entries that no search reaches117", page.text["findings"])
        self.assertIn("not found: entries without a block.", page.text["findings"])
        self.assertIn("blocks' bytes: 64 bytes", page.text["bytes"])
        self.assertIn("pool's object: 392 bytes", page.text["bytes"])
        self.assertIn("the order in which the free blocks will be lent", page.text["absent"])

    def test_ofAHundredThousandBlocksGivesASmallPage(self):
        page = self.page(reportOf(100000, 262144))
        self.assertLess(page.size, 2 << 20)
        self.assertIn("and 4940 more", page.text["findings"])
        for section in ("memory", "loans", "slots"):
            self.assertLess(len(page.cells[section]), 1000)
        # Half the slots' rows: full cells, one that is partly full, empty ones
        self.assertEqual(page.colours("slots").count("occupied"), -(-100000 // -(-262144 // 576)))

    def test_ofBlocksThatSpanCellsFillsThemAll(self):
        text = read(folder + "/pool.report").replace("<length>16<", "<length>48<").replace("0x98048", "0x130d8")
        self.assertEqual(self.page(text).colours("memory"), ["free"] * 3 + ["lent"] * 9)


class WrongInput(Picture):
    def test_isReadFromAFileAsFromStandardInput(self):
        name = folder + "/pool.dump"
        fromFile = subprocess.run([gvview, name], capture_output=True, timeout=100, check=True)
        self.assertEqual(fromFile.stdout, run(read(name)).stdout)

    def test_isRefusedInOneLineWhenThereIsNoSuchFile(self):
        refused = subprocess.run([gvview, folder + "/none"], capture_output=True, timeout=100, check=False)
        self.assertNotEqual(refused.returncode, 0)
        self.assertRegex(refused.stderr.decode(), r"\Agvview: .*none.*\n\Z")

    def test_isRefusedInOneLine(self):
        self.assertIn("the input is empty", self.refusal(""))
        self.assertIn("not text", self.refusal(b"\xff\xfe\x00"))
        self.assertIn("line 1: expected the dump of a pool", self.refusal("hello"))
        self.assertIn("line 1: expected the dump of a pool", self.refusal("<GVMemoryPoolObject></GVMemoryPoolObject>"))

    def test_isRefusedAtTheLineThatIsWrong(self):
        pool = read(folder + "/pool.dump")
        self.assertIn('line 9: expected <V>, found "</GVHashTableEntry>"',
                      self.refusal(pool.replace("\t\t<V>0x13060</V>\n", "")))
        self.assertIn('a token is "x", which is no number', self.refusal(pool.replace("<K>1<", "<K>x<")))
        self.assertIn('the address of block 1 is "13060"', self.refusal(pool.replace("0x13060", "13060")))
        self.assertIn("expected the end", self.refusal(pool + "more"))

    def test_isRefusedWhereverItIsCut(self):
        for name in ("pool.dump", "pool.report"):
            text = read(folder + "/" + name).strip()
            for length in (*range(1, len(text), 151), len(text) - 1):
                self.refusal(text[:length])

    def test_isRefusedWhenAReportContradictsItself(self):
        report = read(folder + "/pool.report")
        self.assertIn("numberOfBlocks is 5, but 4 are there",
                      self.refusal(report.replace("numberOfBlocks>4<", "numberOfBlocks>5<")))
        self.assertIn("tableSize is 16, but 8", self.refusal(report.replace("tableSize>8<", "tableSize>16<")))
        self.assertIn("not occupied", self.refusal(report.replace("<slot>4<", "<slot>3<")))
        self.assertIn("neither free nor lent", self.refusal(report.replace(">free<", ">gone<")))
        self.assertIn("the report has no element load", self.refusal(report.replace("<load>0.625</load>", "")))
        self.assertIn('load is "1.2.3", which is no number', self.refusal(report.replace("<load>0.625<", "<load>1.2.3<")))
        self.assertIn("block 8 has no element slot", self.refusal(report.replace("<slot>1</slot>", "")))
        self.assertIn("more than one element pool", self.refusal(report.replace("<load>", "<pool></pool><load>")))
        self.assertIn("not well-formed", self.refusal(report.replace("</load>", "")))

    def test_neverBecomesMarkup(self):
        # Whatever a page shows is refused, and what is not refused is not shown.
        for name in ("pool.dump", "pool.report"):
            text = read(folder + "/" + name)
            drawn = run(text).stdout
            for value in re.finditer(r"(?<=>)[^<>]+(?=</)", text):
                hostile = run(text[:value.start()] + "&lt;script&gt;" + text[value.end():])
                self.assertIn((hostile.returncode, hostile.stdout), [(1, b""), (0, drawn)])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
