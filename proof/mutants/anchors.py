"""Where an edit of handwritten.py stands: the one place of a text in the function or statement that another begins.

Comments do not count.
"""

import re

COMMENT = rb"//[^\n]*|/\*.*?\*/"
LITERAL = rb'"(?:\\.|[^"\\\n])*"' + rb"|'(?:\\.|[^'\\\n])*'"


class Wrong(Exception):
    """A text that does not stand once where it should."""


def withoutComments(code):
    """The code with blanks for its comments, so that places stay the same."""
    return re.sub(LITERAL + b"|" + COMMENT,
                  lambda found: re.sub(rb"[^\n]", b" ", found[0]) if found[0].startswith(b"/") else found[0],
                  code, flags=re.DOTALL)


def endOf(code, begin):
    """The end of the function, class or statement that begins there; at the latest, that of the block around it."""
    depth = 0
    for found in re.compile(LITERAL + rb"|[][(){};]").finditer(code, begin):
        sign = found[0]
        if sign in (b"(", b"[", b"{"):
            depth += 1
        elif sign in (b")", b"]"):
            depth = max(0, depth - 1)  # the beginning may lie between brackets
        elif sign == b"}":
            depth -= 1
        if sign == b"}" and depth <= 0 or sign == b";" and depth == 0:
            return found.end()
    return len(code)


def only(code, text, begin, end, where):
    count = code.count(text, begin, end)
    if count != 1:
        raise Wrong(f"{where} holds this text {count} times, not once: {text.decode()}")
    return code.index(text, begin, end)


def place(code, within, anchor):
    """Where `anchor` stands once in what begins with `within`, which stands once in all of the code."""
    code, within, anchor = withoutComments(code), within.encode(), anchor.encode()
    begin = only(code, within, 0, len(code), "the file")
    return only(code, anchor, begin, endOf(code, begin), f"what begins with '{within.decode()}'")
