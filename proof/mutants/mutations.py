"""Every way in which one place of the library is broken, and the text of a copy in which most of them wait behind the
switch of gvmutants.h. Lines keep their numbers, since exceptions name them.

Broken are: operators (by others, by one operand alone, turned round), increments (the other way, the other form),
constants, texts, enumerators and sizes (one more, one less, the last character gone), conditions (true, false,
negated, each side of && and || alone), numbers, flags and pointers that are read (one more, one less, negated, null),
what is returned, what fields begin with, statements (dropped, swapped with the next), and what handwritten.py lists.
In the copy a constant is no constant for the compiler, so that its value can be broken, too. What the compiler itself
needs waits behind no switch: the constants in NEEDED_BY_THE_COMPILER, the values of enumerators, the conditions of `if
constexpr` and of `#if`, and what handwritten.py lists of that kind. Each such mutant is compiled alone.

Left out are: declarations and their order; `if constexpr (isHardened)`, whose branches are broken by themselves; the
code of a macro, and the empty statement that a probe leaves; the conditions in gvcompiler.h, which mark functions for
ThreadSanitizer and are watched by the part threads; the order of an access to an atomic, where it is the weakest. Two
assignments of plain values that do not read each other's are not swapped, since that changes nothing.

Left out, too, is code under `#if` that the builds of this machine's mutants do not compile:
  gvprobes.cpp, and the probes in gvprobes.h   Probes.* (tests/probes) watch them
  the memory of mimalloc, in gvobject.cpp      DefaultHooks.standOnMimallocAloneInABuildThatAsksForIt watches it
  the futex call of 32 bits, in gvwaiting.cpp  EventCount.* watch it on 32-bit ARM
  no MADV_HUGEPAGE, in gvobject.cpp            an empty function, which no test compiles
  no execinfo.h, in gvsharedloan.cpp           two functions that do nothing, which no test compiles

Each mutant says whether the hardened build alone runs it: it is then behind `if constexpr (isHardened)`, or in one of
the files that hold the checks.
"""

import re

import anchors
import handwritten
import syntax

WHOLE_NUMBERS = {"int", "short", "char", "long", "unsigned int", "unsigned short", "unsigned char", "unsigned long",
                 "unsigned long long", "long long"}
# No access to an atomic can be wrong for a stronger order than this one.
WEAKEST_ORDER = "memory_order_relaxed"
# What an operator is changed to, besides its negation where it is a comparison.
OTHER_OPERATORS = {"+": ["-"], "-": ["+"], "*": ["+", "/"], "/": ["*"], "%": ["*"], "&": ["|", "^"], "|": ["&", "^"],
                   "^": ["|", "&"], "<<": [">>"], ">>": ["<<"], "&&": ["||"], "||": ["&&"],
                   "<": ["<=", "!=", ">="], "<=": ["<", "==", ">"], ">": [">=", "!=", "<="], ">=": [">", "==", "<"],
                   "==": ["!=", "<=", ">="], "!=": ["==", "<", ">"]}
COMPARISONS = {"==", "!=", "<", ">", "<=", ">="}
# Variables that the switch would set too late; handwritten.py has what stands for their mutations.
NEEDED_BEFORE_MAIN = {"theNextToken"}
# Constants that stand in constant expressions, and the addresses of functions that are kept for the linker.
NEEDED_BY_THE_COMPILER = {"cacheLineBytes", "defaultHookPadding", "isHardened", "mostFrames",
                          "rawBlockHeaderBytes", "theSmallSize"}
NEEDED_BY_THE_LINKER = {"theKeptLoan", "theKeptLookup", "theKeptReturn"}
# The conditions in here are seen by ThreadSanitizer alone.
FILE_OF_MARKS = "libsrc/base/gvcompiler.h"
# The files that the hardened build alone runs.
FILES_OF_CHECKS = {"libsrc/base/gvhardened.h", "libsrc/base/gvhardened.cpp", "libsrc/utilities/gvmemorypoolchecks.cpp",
                   "libsrc/utilities/gvsharedloan.h", "libsrc/utilities/gvsharedloan.cpp",
                   "libsrc/utilities/gvsharedpoolchecks.cpp"}
WRAPPERS = {"ImplicitCastExpr", "ParenExpr", "ExprWithCleanups", "MaterializeTemporaryExpr", "CXXBindTemporaryExpr"}
LEAVING = {"ReturnStmt", "ContinueStmt", "BreakStmt", "CXXThrowExpr"}


class Mutant:
    """One mutation: `key` is file, line's text, what is done, and how many of the same come before it."""

    def __init__(self, file, line, text, function, label):
        self.file, self.line, self.text, self.function, self.label = file, line, text, function, label
        self.number = self.key = None
        self.isHardened = False  # whether the hardened build alone runs it
        self.alone = None  # (begin, end, text) for one that is compiled by itself

    def __str__(self):
        return f"{self.file}:{self.line} ({self.function}): {self.label}"


class Site:
    """A range of a file, and what may stand there instead."""

    def __init__(self, begin, end):
        self.begin, self.end = begin, end
        self.values = []    # (mutant, other expression)
        self.instead = []   # (mutant, other statements)
        self.dropped = []   # mutants under which the statement does not run here
        self.early = []     # (mutant, statement that runs here first)
        self.inserted = []  # (mutant, text in which ON stands for the switch)
        self.parts = []

    def order(self):
        return self.begin, self.begin != self.end, -self.end


def unqualified(type_):
    return re.sub(r"\b(const|volatile)\b", "", type_).strip()


def isWhole(type_):
    return unqualified(type_) in WHOLE_NUMBERS


def isPointer(type_):
    return unqualified(type_).endswith("*")


class Source:
    """A file of the library and its sites."""

    def __init__(self, root, name):
        self.name = name
        self.bytes = (root / name).read_bytes()
        self.sites = {}
        self.blanked = {}  # begin of a word constexpr, which the switch does not go with -> what stands there instead
        self.alone = {}  # (begin, end) of what the compiler needs -> [function's name, other texts]
        self.checks = set()  # (begin, end) of what the hardened build alone runs

    def isHardened(self, offset):
        return self.name in FILES_OF_CHECKS or any(begin <= offset < end for begin, end in self.checks)

    def line(self, offset):
        return self.bytes.count(b"\n", 0, offset) + 1

    def lineText(self, offset):
        begin = self.bytes.rfind(b"\n", 0, offset) + 1
        return self.bytes[begin:self.bytes.index(b"\n", offset)].decode().strip()

    def raw(self, begin, end):
        """The text of a range on one line, good for any other line."""
        text, pieces = self.bytes[begin:end].decode(), []
        for number, line in enumerate(text.split("\n"), self.line(begin)):
            line = re.sub(r'^((?:[^"/]|"(?:[^"\\]|\\.)*"|/(?!/))*)//.*$', r"\1", line)
            pieces.append(re.sub(r"\b__LINE__\b", f"{number}U", line).strip() if number != self.line(begin)
                          else re.sub(r"\b__LINE__\b", f"{number}U", line))
        return " ".join(pieces).strip()

    def shown(self, begin, end):
        return " ".join(self.bytes[begin:end].decode().split())

    def unfix(self, begin, end, name, isLocal):
        """Makes a constant a variable, in the branches of #if that are not compiled here, too."""
        words = [self.bytes.index(b"constexpr", begin, end)]
        words += [match.start(1) for match in re.finditer(rb"^(?:inline )?(constexpr) [\w: ]+ %s = " % name.encode(),
                                                          self.bytes, re.MULTILINE)]
        for word in words:
            self.blanked[word] = b"" if isLocal or self.bytes.endswith(b"inline ", 0, word) else b"inline"

    def site(self, begin, end):
        return self.sites.setdefault((begin, end), Site(begin, end))

    def statementEnd(self, end):
        """Past the semicolon, if the statement has one."""
        rest = self.bytes[end:].lstrip()
        return self.bytes.index(b";", end) + 1 if rest.startswith(b";") else end


class Collector:
    """Walks one instance of one function and notes what can be done where."""

    def __init__(self, source, name):
        self.source, self.name = source, name
        self.offers = {}      # (begin, end) -> {other expression: what is said of it}
        self.statements = {}  # (begin, end) of a statement -> True if it may be dropped
        self.swaps = set()    # (begin, end, begin, end) of two neighbours

    def offer(self, node, *texts):
        known = self.offers.setdefault((node.begin, node.end), {})
        for text in texts:
            if text != self.text(node):
                known[text] = None

    def text(self, node):
        return self.source.raw(node.begin, node.end)

    # Statements

    def function(self, node):
        isVoid = node.tree["type"]["qualType"].startswith("void ") or \
            node.kind in ("CXXConstructorDecl", "CXXDestructorDecl")
        for child in node.children:
            if child is None:
                continue
            if child.kind == "CXXCtorInitializer":
                for part in child.children:
                    self.expression(part, "value")
            elif child.kind == "CompoundStmt":
                self.block(child, None, isVoid)

    def block(self, node, parent, isVoid):
        # A probe leaves an empty statement.
        statements = [child for child in node.children
                      if child is not None and not child.isOfMacro and child.kind != "NullStmt"]
        for position, statement in enumerate(statements):
            self.statement(statement, isVoid)
            core = stripped(statement)
            extent = (statement.begin, self.source.statementEnd(statement.end))
            alone = len(statements) == 1 and parent is not None and parent.kind == "IfStmt" and \
                not isConstexprIf(parent)
            if core.kind in ("DeclStmt", "NullStmt", "CompoundStmt") or isConstexprIf(core):
                continue
            droppable = core.kind not in ("IfStmt", "ForStmt", "WhileStmt") and not alone
            if core.kind == "ReturnStmt":
                nested = parent is not None and not isConstexprIf(parent)
                droppable = droppable and (nested or (isVoid and parent is None))
            self.statements[extent] = droppable
            if position + 1 < len(statements) and core.kind not in LEAVING:
                following = stripped(statements[position + 1])
                if following.kind not in LEAVING | {"DeclStmt", "NullStmt"} and not isConstexprIf(following) and \
                        not self.areIndependent(core, following):
                    end = self.source.statementEnd(following.end)
                    self.swaps.add(extent + (statements[position + 1].begin, end))

    def areIndependent(self, first, second):
        """Whether both give a plain variable a plain value, and neither reads the other's: then order is nothing."""
        variables = [self.assignedVariable(node) for node in (first, second)]
        return None not in variables and not any(
            re.search(rf"\b{re.escape(name)}(?!\w)", self.text(node).rpartition(" = ")[2])
            for name, node in zip(variables, (second, first))) and variables[0] != variables[1]

    def assignedVariable(self, node):
        isAssignment = node.kind == "BinaryOperator" and node.tree["opcode"] == "="
        isStep = node.kind == "UnaryOperator" and node.tree["opcode"] in ("++", "--")
        if not (isAssignment or isStep) or "(" in self.text(node):
            return None
        return self.text(node.children[0])

    def statement(self, node, isVoid):
        children = node.children
        if node.kind == "CompoundStmt":
            self.block(node, None, isVoid)
        elif node.kind == "IfStmt":
            if node.tree.get("hasVar"):
                variable, _, *branches = children
                self.statement(variable, isVoid)
            else:
                condition, *branches = children
                if not isConstexprIf(node):
                    self.expression(condition, "condition")
                elif self.text(condition).removeprefix("detail::") == "isHardened":
                    self.source.checks.add((branches[0].begin, branches[0].end))
                else:
                    self.source.alone[condition.begin, condition.end] = [self.name, ["true", "false"]]
            for branch in branches:
                self.branch(branch, node, isVoid)
        elif node.kind == "WhileStmt":
            self.expression(children[0], "condition")
            self.branch(children[1], node, isVoid)
        elif node.kind == "ForStmt":
            start, _, condition, step, body = children
            for part, role in ((condition, "counting"), (step, "discarded")):
                if part is not None:
                    self.expression(part, role)
            if start is not None:
                self.statement(start, isVoid)
            self.branch(body, node, isVoid)
        elif node.kind == "CXXForRangeStmt":
            self.branch(children[-1], node, isVoid)
        elif node.kind == "DeclStmt":
            for variable in children:
                # An array takes its text from a literal alone.
                if variable.kind == "VarDecl" and "[" not in variable.type:
                    if variable.tree.get("constexpr"):
                        self.source.unfix(node.begin, node.end, variable.tree["name"], True)
                    for part in variable.children:
                        self.expression(part, "assigned")
        elif node.kind == "ReturnStmt":
            for part in children:
                self.expression(part, "returned")
        elif node.kind not in ("NullStmt", "ContinueStmt", "BreakStmt"):
            self.expression(node, "discarded")

    def branch(self, node, parent, isVoid):
        if node is None or node.kind == "NullStmt":
            return
        if node.kind == "CompoundStmt":
            self.block(node, parent, isVoid)
        else:
            self.statement(node, isVoid)

    # Expressions; a role says what becomes of the value

    def expression(self, node, role, isRvalue=False):
        if node is None or node.file != self.source.name:
            return
        if node.kind in WRAPPERS:
            isRvalue = isRvalue or node.tree.get("castKind") == "LValueToRValue"
            for child in node.children:
                self.expression(child, role, isRvalue)
            return
        if node.isOfMacro and node.kind != "IntegerLiteral":
            return
        if node.kind in ("ConstantExpr", "CXXDefaultArgExpr", "CXXDefaultInitExpr", "CXXThisExpr"):
            return
        self.offer(node)
        self.condition(node, role)
        handler = getattr(self, "on" + node.kind, None)
        if handler:
            handler(node, role, isRvalue or not node.isLvalue)
        else:
            for child in node.children:
                self.expression(child, "value")

    def condition(self, node, role):
        if role in ("condition", "counting") or (role == "returned" and unqualified(node.type) == "bool"):
            self.offer(node, "true", "false")
        isComparison = node.kind in ("BinaryOperator", "CXXOperatorCallExpr") and self.operator(node) in COMPARISONS
        isNegation = node.kind == "UnaryOperator" and node.tree["opcode"] == "!"
        if role in ("condition", "counting", "operand") and not isComparison and not isNegation:
            self.offer(node, f"!({self.text(node)})")

    def operator(self, node):
        if node.kind == "BinaryOperator":
            return node.tree["opcode"]
        callee = node.children[0]
        while callee.kind in WRAPPERS:
            callee = callee.children[0]
        return callee.tree.get("referencedDecl", {}).get("name", "").replace("operator", "")

    def named(self, node, role, isRvalue):
        """A variable, a field or what a function gives."""
        if not isRvalue or role in ("base", "discarded"):
            return
        text = self.text(node)
        if isWhole(node.type):
            self.offer(node, f"{text} + 1", *([f"{text} - 1"] if role != "index" else []))
            if role == "returned":
                self.offer(node, "0")
        elif unqualified(node.type) == "bool":
            self.offer(node, f"!({text})")
        elif unqualified(node.type) == "char *":
            self.offer(node, '"mutant"')
        elif isPointer(node.type) and role in ("returned", "assigned", "value"):
            self.offer(node, "nullptr")

    def onDeclRefExpr(self, node, role, isRvalue):
        if node.tree["referencedDecl"].get("name") == WEAKEST_ORDER:
            return
        if node.tree["referencedDecl"]["kind"] == "EnumConstantDecl":
            text = self.text(node)
            self.offer(node, *(f"static_cast<decltype({text})>({text} {change})" for change in ("+ 1", "- 1")))
        else:
            self.named(node, role, isRvalue)

    def onMemberExpr(self, node, role, isRvalue):
        self.named(node, role, isRvalue)
        for child in node.children:
            self.expression(child, "base")

    def onCallExpr(self, node, role, isRvalue):
        self.named(node, role, isRvalue)
        callee, *arguments = node.children
        while callee.kind in WRAPPERS:
            callee = callee.children[0]
        if callee.kind != "DeclRefExpr":
            for child in callee.children if callee.kind == "MemberExpr" else [callee]:
                self.expression(child, "base")
        for argument in arguments:
            self.expression(argument, "value")

    onCXXMemberCallExpr = onCallExpr

    def onCXXOperatorCallExpr(self, node, role, isRvalue):
        operator = self.operator(node)
        if operator in ("==", "!="):
            self.offer(node, f"!({self.text(node)})")
        for argument in node.children[1:]:
            self.expression(argument, "base" if operator in ("++", "<<", "*", "->", "[]", "=") and
                            argument is node.children[1] else "value")

    def onBinaryOperator(self, node, role, isRvalue):
        operator, (left, right) = node.tree["opcode"], node.children
        if operator == "=":
            self.expression(left, "base")
            self.expression(right, "assigned")
            return
        first, second = self.text(left), self.text(right)
        if operator in COMPARISONS:
            self.offer(node, f"!({self.text(node)})")
            if isWhole(left.type) and isWhole(right.type):
                opposite = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}[operator]
                alike = {opposite}
                if second in ("0", "gvemptyentry") and unqualified(left.type).startswith("unsigned"):
                    alike |= {"==": {"<="}, ">": {"!="}, "!=": {">"}}.get(operator, set())  # nothing is below 0
                if operator == "<" and role == "counting":
                    alike.add("!=")  # the counter comes by every number
                self.offer(node, *(f"{first} {other} {second}" for other in OTHER_OPERATORS[operator]
                                   if other not in alike))
        elif operator in ("&&", "||"):
            self.offer(node, *(f"{first} {other} {second}" for other in OTHER_OPERATORS[operator]), first, second)
        elif operator in OTHER_OPERATORS and isWhole(left.type) and isWhole(right.type):
            self.offer(node, *(f"{first} {other} {second}" for other in OTHER_OPERATORS[operator]), first)
            if operator not in ("<<", ">>"):
                self.offer(node, second)
        elif operator in ("+", "-") and isPointer(left.type):
            self.offer(node, f"{first} {OTHER_OPERATORS[operator][0]} {second}", first)
        inner = "operand" if operator in ("&&", "||") else "value"
        self.expression(left, inner)
        self.expression(right, inner)

    def onCompoundAssignOperator(self, node, role, isRvalue):
        left, right = node.children
        first, second = self.text(left), self.text(right)
        self.offer(node, *(f"{first} {other}= {second}" for other in OTHER_OPERATORS[node.tree["opcode"][:-1]]))
        self.expression(left, "base")
        self.expression(right, "value")

    def onUnaryOperator(self, node, role, isRvalue):
        operator, operand = node.tree["opcode"], node.children[0]
        text = self.text(operand)
        if operator in ("++", "--"):
            other = "--" if operator == "++" else "++"
            after = node.tree.get("isPostfix")
            self.offer(node, f"({text}){other}" if after else f"{other}({text})")
            if role != "discarded":
                self.offer(node, f"{operator}({text})" if after else f"({text}){operator}")
        elif operator == "!":
            self.offer(node, f"static_cast<bool>({text})")
        elif operator == "*":
            self.named(node, role, isRvalue)
        self.expression(operand, "operand" if operator == "!" else "base")

    def onArraySubscriptExpr(self, node, role, isRvalue):
        self.named(node, role, isRvalue)
        base, index = node.children
        self.expression(base, "base")
        self.expression(index, "index")

    def onConditionalOperator(self, node, role, isRvalue):
        condition, first, second = node.children
        self.expression(condition, "condition")
        self.expression(first, role)
        self.expression(second, role)

    def onIntegerLiteral(self, node, role, isRvalue):
        text = self.source.shown(node.begin, node.end)
        self.offer(node, f"{text} + 1")
        if text.rstrip("U") != "0":
            self.offer(node, f"{text} - 1")

    def onCXXBoolLiteralExpr(self, node, role, isRvalue):
        self.offer(node, "false" if node.tree["value"] else "true")

    def onStringLiteral(self, node, role, isRvalue):
        text = self.text(node)
        self.offer(node, re.sub(r'(\\.|[^\\"])"$', '"', text))

    def onUnaryExprOrTypeTraitExpr(self, node, role, isRvalue):
        text = self.text(node)
        self.offer(node, f"{text} + 1", f"{text} - 1")

    def onCXXNullPtrLiteralExpr(self, node, role, isRvalue):
        pass

    def field(self, node):
        for part in node.children:
            self.expression(part, "assigned")
            if part.kind == "ImplicitCastExpr" and stripped(part).kind == "CXXNullPtrLiteralExpr":
                self.offer(stripped(part), f"reinterpret_cast<{node.type}>(8)")

    def onLambdaExpr(self, node, role, isRvalue):
        closure, *_, body = node.children
        call = next(child for child in closure.children if child and child.tree.get("name") == "operator()")
        if call.kind == "FunctionTemplateDecl":  # the lambda's own body has no types; an instance's has
            call = call.children[-1]
            body = call.children[-1]
        self.block(body, None, call.tree["type"]["qualType"].startswith("void "))


def stripped(node):
    while node.kind in WRAPPERS:
        node = node.children[0]
    return node


def isConstexprIf(node):
    return node.kind == "IfStmt" and node.tree.get("isConstexpr", False)


class Catalogue:
    """All mutants of the library, numbered from 1, and its mutated text."""

    def __init__(self, root):
        self.root = root
        functions = syntax.readFunctions(root)
        missing = functions.withoutInstance()
        if missing:
            raise SystemExit(f"mutants: proof/mutants/instances.cpp uses no {', '.join(sorted(set(missing)))}")
        self.sources = {str(path.relative_to(root)): Source(root, str(path.relative_to(root)))
                        for path in sorted((root / "libsrc").rglob("*")) if path.suffix in (".h", ".cpp")}
        self.mutants = []
        self.collect(functions)
        self.collectAlone(functions)
        self.mutants += [self.addPatch(patch, "by hand: ") for patch in handwritten.PATCHES]
        self.mutants += [self.addPatch(patch, "by hand: ", True) for patch in handwritten.ALONE]
        self.planted = [self.addPatch(patch, "planted: ") for patch in handwritten.PLANTED]
        self.number()

    def collect(self, functions):
        merged = {}  # (file, begin, end) -> [function's name, texts offered by all instances]
        statements, swaps = {}, {}
        for name, node in functions.found + functions.variables + functions.fields:
            body = next((child for child in node.children if child and child.kind == "CompoundStmt"), node)
            source = self.sources.get(body.file)
            if source is None:
                continue
            collector = Collector(source, name)
            if node.kind == "FieldDecl":
                collector.field(node)
            elif node.kind == "VarDecl":
                if name in NEEDED_BEFORE_MAIN | NEEDED_BY_THE_COMPILER | NEEDED_BY_THE_LINKER:
                    continue
                if node.tree.get("constexpr"):
                    source.unfix(node.begin, node.end, name, False)
                for part in node.children:
                    collector.expression(part, "assigned")
            else:
                collector.function(node)
                if node.tree.get("constexpr"):
                    source.blanked[source.bytes.index(b"constexpr", node.begin)] = b"inline"
            for (begin, end), texts in collector.offers.items():
                known = merged.setdefault((source.name, begin, end), [name, texts])
                known[1] = {text: None for text in known[1] if text in texts}
            for extent, droppable in collector.statements.items():
                _, before = statements.get((source.name, *extent), (name, True))
                statements[(source.name, *extent)] = (name, droppable and before)
            for extents in collector.swaps:
                swaps[(source.name, *extents)] = name
        for (file, begin, end), (name, texts) in sorted(merged.items()):
            source = self.sources[file]
            for text in texts:
                mutant = self.add(source, begin, name, f"{source.shown(begin, end)} -> {text}")
                source.site(begin, end).values.append((mutant, text))
        for (file, begin, end), (name, droppable) in sorted(statements.items()):
            source = self.sources[file]
            if droppable:
                mutant = self.add(source, begin, name, f"dropped: {source.shown(begin, end)}")
                source.site(begin, end).dropped.append(mutant)
        for (file, begin, end, nextBegin, nextEnd), name in sorted(swaps.items()):
            source = self.sources[file]
            first, second = source.shown(begin, end), source.shown(nextBegin, nextEnd)
            mutant = self.add(source, begin, name, f"swapped: {first} <-> {second}")
            mutant.isHardened = mutant.isHardened or source.isHardened(nextBegin)
            source.site(begin, end).early.append((mutant, source.raw(nextBegin, nextEnd)))
            source.site(nextBegin, nextEnd).dropped.append(mutant)

    def collectAlone(self, functions):
        """What the compiler needs: constants, enumerators and conditions."""
        for name, node in functions.variables + functions.enumerators:
            source = self.sources.get(node.file)
            if source is None or (node.kind == "VarDecl" and name not in NEEDED_BY_THE_COMPILER):
                continue
            for part in node.children:
                text = source.shown(part.begin, part.end)
                others = ["true", "false"] if name == "isHardened" else [f"({text}) + 1", f"({text}) - 1"]
                source.alone[part.begin, part.end] = [name, [other for other in others if text != "0" or "-" not in
                                                             other]]
        for source in self.sources.values():
            for match in re.finditer(r"^#(if|ifdef|ifndef|elif) (.*)$", source.bytes.decode("latin-1"), re.MULTILINE):
                word, condition = match.groups()
                keepsFromBeingReadTwice = condition.endswith("_H")
                if not keepsFromBeingReadTwice and source.name != FILE_OF_MARKS:
                    opposite = {"ifdef": "ifndef", "ifndef": "ifdef"}.get(word)
                    source.alone[match.span()] = ["#" + word, [
                        f"#{opposite} {condition}" if opposite else f"#{word} !({condition})"]]
        for source in self.sources.values():
            for (begin, end), (name, others) in sorted(source.alone.items()):
                for other in others:
                    if other != source.shown(begin, end):
                        mutant = self.add(source, begin, name, f"{source.shown(begin, end)} -> {other}")
                        mutant.alone = (begin, end, other)
                        # The branches that the hardened build does not see.
                        mutant.isHardened = mutant.isHardened and name != "isHardened"

    def add(self, source, offset, function, label):
        mutant = Mutant(source.name, source.line(offset), source.lineText(offset), function, label)
        mutant.isHardened = source.isHardened(offset)
        self.mutants.append(mutant)
        return mutant

    def addPatch(self, patch, prefix, isAlone=False):
        source = self.sources.get(patch.file)
        mutant = None
        for within, kind, anchor, text in patch.edits:
            try:
                begin = anchors.place(source.bytes if source else b"", within, anchor)
            except anchors.Wrong as why:
                raise SystemExit(f"mutants: no place for the mutation by hand '{patch.name}' in {patch.file}: {why}")
            end = begin + len(anchor.encode())
            if mutant is None:
                mutant = Mutant(source.name, source.line(begin), source.lineText(begin), within, prefix + patch.name)
                mutant.isHardened = source.isHardened(begin)
            if isAlone:
                mutant.alone = (begin, end, text)
            elif kind == "before":
                source.site(begin, begin).inserted.append((mutant, text))
            else:
                site = source.site(begin, end)
                (site.values if kind == "value" else site.instead).append((mutant, text))
        return mutant

    def number(self):
        self.mutants.sort(key=lambda mutant: (mutant.file, mutant.line))
        before = {}
        for number, mutant in enumerate(self.mutants + self.planted, 1):
            key = (mutant.file, mutant.text, mutant.label)
            before[key] = before.get(key, 0) + 1
            mutant.number, mutant.key = number, key + (before[key],)

    # The mutated text

    def texts(self):
        for name, source in self.sources.items():
            yield name, self.mutated(source)

    def alone(self, mutant):
        """The text of the mutant's file under it."""
        begin, end, text = mutant.alone
        whole = self.sources[mutant.file].bytes
        return (whole[:begin] + text.encode() + whole[end:]).decode()

    def mutated(self, source):
        whole = Site(0, len(source.bytes))
        stack = [whole]
        for site in sorted(source.sites.values(), key=Site.order):
            while not (stack[-1].begin <= site.begin and site.end <= stack[-1].end) or \
                    stack[-1].begin == stack[-1].end:
                stack.pop()
            stack[-1].parts.append(site)
            stack.append(site)
        text = self.inner(source, whole)
        if source.name.endswith(".h"):
            assert text.startswith("/// @file\n"), source.name
            text = '#include "gvmutants.h"' + text[len("/// @file"):]
        assert text.count("\n") == source.bytes.count(b"\n"), source.name
        return text

    def inner(self, source, site):
        pieces, position = [], site.begin
        for part in site.parts:
            if part.begin < position:
                raise SystemExit(f"mutants: mutations overlap in {source.name}:{source.line(part.begin)}")
            pieces += [self.plain(source, position, part.begin), self.outer(source, part)]
            position = part.end
        return "".join(pieces) + self.plain(source, position, site.end)

    def plain(self, source, begin, end):
        text = source.bytes[begin:end]
        for offset in sorted(source.blanked, reverse=True):
            if begin <= offset < end:
                text = text[:offset - begin] + source.blanked[offset] + text[offset - begin + len(b"constexpr"):]
        return text.decode()

    def outer(self, source, site):
        def on(mutant):
            return f"GVMutants::on({mutant.number})"

        text = self.inner(source, site)
        if site.values:
            if any(other == "true" for _, other in site.values):
                text = f"static_cast<bool>({text})"  # a condition may be an object that converts
            text = "(" + "".join(f"{on(mutant)} ? ({other}) : " for mutant, other in site.values) + f"({text}))"
        for mutant, other in site.instead:
            text = f"if ({on(mutant)}) {{ {other} }} else {{ {text} }}"
        if site.dropped:
            text = f"if ({' && '.join('!' + on(mutant) for mutant in site.dropped)}) {{ {text} }}"
        for mutant, other in site.early:
            text = f"if ({on(mutant)}) {{ {other} }} {text}"
        for mutant, other in site.inserted:
            text = other.replace("ON", on(mutant)) + " " + text
        return text

