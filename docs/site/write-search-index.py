#!/usr/bin/env python3
"""Writes search-index.js, what the site's search looks through. It is a script, since a page that is opened as a file
may load scripts and nothing else.

    write-search-index.py HTML_DIR DUK

It sets two variables:

    siteSections    the sections of all pages, each [the page's title, its heading, its address, its text]; what stands
                    before a page's first heading is a section without one
    siteIndex       the index that index.js makes of them, by the interpreter DUK
"""
import html.parser
import json
import pathlib
import re
import subprocess
import sys

# Lists of names, which are found on the pages of the classes.
LISTS = re.compile(r"(.*-members|dir_.*|annotated|files|pages|usergroup\d+)\.html")
HEADINGS = ("h1", "h2", "h3", "h4")
# Classes of what says nothing new: links to a heading, tables of contents, members that a base class has.
SKIPPED = {"permalink", "toc", "inherit", "inherit_header"}
# Tags that end no word.
INLINE = ("a", "b", "code", "em", "i", "span", "strong", "tt")
VOID = ("area", "br", "col", "hr", "img", "input", "link", "meta", "wbr")


class Page(html.parser.HTMLParser):
    """The sections of a page."""

    def __init__(self, name):
        super().__init__()
        self.name = name
        self.title = ""
        self.sections = [["", name, ""]]
        self.open = []      # what is open: "title", "contents", "skipped", or nothing of interest
        self.anchor = None  # the last one that was seen; a heading's stands before it or in it
        self.heading = None  # the text of the heading that is open

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        if attributes.get("id"):
            self.anchor = attributes["id"]
        if tag in VOID:
            self.separate()
            return
        classes = (attributes.get("class") or "").split()
        self.open.append("title" if tag == "div" and "title" in classes else
                         "contents" if tag == "div" and "contents" in classes else
                         "skipped" if tag in ("script", "style") or SKIPPED & set(classes) else "")
        if tag in HEADINGS and "contents" in self.open:
            self.heading = ""
        elif tag not in INLINE:
            self.separate()

    def handle_startendtag(self, tag, attributes):
        self.handle_starttag(tag, attributes)
        if tag not in VOID:
            self.handle_endtag(tag)

    def handle_endtag(self, tag):
        if tag in VOID:
            return
        if tag in HEADINGS and self.heading is not None:
            self.sections.append([plain(self.heading), f"{self.name}#{self.anchor}" if self.anchor else self.name, ""])
            self.heading = None
        if self.open:
            self.open.pop()
        if tag not in INLINE:
            self.separate()

    def handle_data(self, data):
        if "skipped" in self.open:
            return
        if "title" in self.open and "contents" not in self.open:
            self.title += data
        elif self.heading is not None:
            self.heading += data
        elif "contents" in self.open:
            self.sections[-1][2] += data

    def separate(self):
        self.handle_data(" ")


def plain(text):
    # Doxygen puts spaces of no width where a long name may be broken.
    return " ".join(text.replace("\u200b", "").replace("\u00ad", "").split())


def sections(site):
    for file in sorted(site.glob("*.html")):
        if LISTS.fullmatch(file.name):
            continue
        page = Page(file.name)
        page.feed(file.read_text())
        for heading, address, text in page.sections:
            if plain(text):
                title = re.sub(r"( Class| Struct)?( Template)?( File)? Reference$", "", plain(page.title))
                yield [title, heading, address, plain(text)]


def assigned(name, data):
    # Parsed from one string: engines bound how many constants a script may have.
    return f"var {name} = JSON.parse({json.dumps(data, ensure_ascii=False)});\n"


site = pathlib.Path(sys.argv[1])
written = site / "search-index.js"
written.write_text(assigned("siteSections", json.dumps(list(sections(site)), ensure_ascii=False)))
index = subprocess.run([sys.argv[2], site / "lunr.min.js", written, pathlib.Path(__file__).with_name("index.js")],
                       check=True, stdout=subprocess.PIPE, text=True).stdout
with written.open("a") as file:
    file.write(assigned("siteIndex", index))
