"""The library's functions as clang sees them: what is executed, where it stands, and of which type it is."""

import json
import pathlib
import subprocess

FUNCTIONS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl", "CXXConversionDecl"}


class Node:
    """A piece of a function, with its place in bytes: that of all template instances of the same piece."""

    def __init__(self, tree, children):
        self.kind = tree["kind"]
        self.tree = tree
        self.children = children
        self.file, self.begin, self.end = place(tree)
        self.isOfMacro = "expansionLoc" in tree.get("range", {}).get("begin", {})
        type_ = tree.get("type", {})
        self.type = type_.get("desugaredQualType", type_.get("qualType", ""))
        self.isLvalue = tree.get("valueCategory") == "lvalue"


def place(tree):
    begin, end = tree.get("range", {}).get("begin", {}), tree.get("range", {}).get("end", {})
    begin, end = begin.get("expansionLoc", begin), end.get("expansionLoc", end)
    if "offset" not in begin or "offset" not in end or begin["at"] != end["at"]:
        return None, 0, 0
    return begin["at"], begin["offset"], end["offset"] + end["tokLen"]


def readUnit(root, source, include):
    """The trees of one translation unit's own namespace."""
    command = ["clang++", "-std=c++17", "-w", f"-I{include}", "-fsyntax-only", "-Xclang", "-ast-dump=json",
               "-Xclang", "-ast-dump-filter=Gilvane", str(source)]
    text = subprocess.run(command, cwd=root, check=True, capture_output=True, text=True).stdout
    decoder, position, trees, file = json.JSONDecoder(), 0, [], [None]
    while True:
        while position < len(text) and text[position].isspace():
            position += 1
        if position == len(text):
            break
        if text.startswith("Dumping", position):
            position = text.index("\n", position)
            continue
        tree, position = decoder.raw_decode(text, position)
        nameFiles(tree, file, root)
        trees.append(tree)
    return trees


def nameFiles(tree, file, root):
    """clang names a file only where it differs from the one before."""
    if "offset" in tree or "file" in tree:
        if "file" in tree:
            path = (root / tree["file"]).resolve()
            file[0] = str(path.relative_to(root)) if path.is_relative_to(root) else None
        tree["at"] = file[0]
    for name, part in tree.items():
        if name == "includedFrom":
            continue
        for child in part if isinstance(part, list) else [part]:
            if isinstance(child, dict):
                nameFiles(child, file, root)


def build(tree):
    children = [build(child) if "kind" in child else None for child in tree.get("inner", [])
                if child.get("kind") != "FullComment"]
    return Node(tree, children)


class Functions:
    """Collects the definitions in a unit: those of templates from their instances alone, where types are known."""

    def __init__(self):
        self.found = []  # (name, Node), instances of one template one after another
        self.variables = []  # (name, Node) of variables outside of functions
        self.fields = []  # (name, Node) of fields with an initialiser in their class
        self.enumerators = []  # (name, Node)
        self.patterns = {}  # body's place -> name
        self.patternIds = set()

    def addUnit(self, trees):
        for tree in trees:
            self.visit(tree, False)

    def visit(self, tree, inPattern):
        kind = tree.get("kind")
        if kind in ("ClassTemplateDecl", "FunctionTemplateDecl"):
            pattern = True
            for child in tree.get("inner", []):
                isPattern = child.get("kind") in FUNCTIONS | {"CXXRecordDecl"} and pattern
                self.visit(child, inPattern or isPattern)
                pattern = pattern and not isPattern
            return
        if kind in FUNCTIONS:
            self.visitFunction(tree, inPattern)
            return
        if kind == "VarDecl" and not inPattern and "init" in tree:
            self.variables.append((tree.get("name"), build(tree)))
            return
        if kind == "FieldDecl" and not inPattern and tree.get("hasInClassInitializer"):
            self.fields.append((tree.get("name"), build(tree)))
            return
        if kind == "EnumConstantDecl":
            self.enumerators.append((tree.get("name"), build(tree)))
            return
        for child in tree.get("inner", []):
            if isinstance(child, dict):
                self.visit(child, inPattern)

    def visitFunction(self, tree, inPattern):
        if tree.get("isImplicit") or "explicitlyDefaulted" in tree:
            return
        isPattern = inPattern or tree.get("previousDecl") in self.patternIds
        if isPattern:
            self.patternIds.add(tree["id"])
        bodies = [child for child in tree.get("inner", []) if child.get("kind") == "CompoundStmt"]
        if not bodies:
            return
        if isPattern:
            self.patterns[place(bodies[0])] = tree["name"]
        else:
            self.found.append((tree["name"], build(tree)))

    def withoutInstance(self):
        """Templates of the library that no unit used, and which would go unmutated."""
        used = {(child.file, child.begin, child.end) for _, function in self.found for child in function.children
                if child.kind == "CompoundStmt"}
        return [name for where, name in self.patterns.items() if where not in used]


def readFunctions(root):
    root = pathlib.Path(root).resolve()
    functions = Functions()
    for source in sorted((root / "libsrc").rglob("*.cpp")) + [root / "proof/mutants/instances.cpp"]:
        functions.addUnit(readUnit(root, source, root / "include"))
    return functions
