"""Which library a page of measured figures is of.

The last line of such a page is its stamp: version, a hash of libsrc, and a seal, which is a hash of all above. So a page
whose figures were changed by hand, or put together from two, is found out; one of an earlier library says so itself.
"""

import hashlib
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
STAMP = re.compile(r"\nMeasured with version (?P<version>\S+), libsrc (?P<library>[0-9a-f]{12}), "
                   r"seal (?P<seal>[0-9a-f]{12})\.\n\Z")


def hashOf(text):
    return hashlib.sha256(text.encode()).hexdigest()[:12]


def library():
    """The library as it stands, changes that are not committed included."""
    return hashOf("".join(f"{path.relative_to(ROOT)} {hashlib.sha256(path.read_bytes()).hexdigest()}\n"
                          for path in sorted(ROOT.glob("libsrc/**/*")) if path.is_file()))


def version():
    header = (ROOT / "libsrc/base/gvversion.h").read_text()
    return ".".join(re.search(rf"^#define GILVANE_VERSION_{number} (\d+)$", header, re.MULTILINE)[1]
                    for number in ("MAJOR", "MINOR", "PATCH"))


def stamped(text, ofLibrary=None):
    """A page of figures of this library, or of another whose hash is known, with its stamp."""
    body = text.rstrip("\n") + "\n"
    about = f"{version()}, libsrc {ofLibrary or library()}"
    return body + f"\nMeasured with version {about}, seal {hashOf(body + about)}.\n"


def stampOf(text):
    """What the stamp says: (version, library), or nothing where there is none. A seal that does not fit is an error."""
    match = STAMP.search(text)
    if match is None:
        return None
    about = f"{match['version']}, libsrc {match['library']}"
    if match["seal"] != hashOf(text[:match.start()] + about):
        raise ValueError("its figures are not what was measured with the library that it names")
    return match["version"], match["library"]


if __name__ == "__main__":
    print(library())
