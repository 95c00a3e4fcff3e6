"""Shows Gilvane's objects in GDB, writes a pool's dump, and tells where a token and the loans of a pool are.

Loaded by GDB itself where the library was installed, and by `source tools/gdb/gilvane_gdb.py` elsewhere. Everything is
read from memory by the debug information: no function of the program is called, so core files will do, of any machine
that the debugger knows.
"""

import re

import gdb
import gdb.printing
import gdb.xmethod

# As the library names them, which a program's debug information may lack when nothing refers to the enumeration.
ENTRY_STATES = {0: "gvemptyentry", 1: "gvoccupiedentry", 2: "gvdeletedentry"}
EXCEPTION_KINDS = {1: "gvinvalidstate", 5: "gvoutofmemory", 12: "gviteratormisuse", 20: "gvhashtablefailure"}
OCCUPIED = 1
NO_FIELDS = "fields unknown: the library has no debug information"
ESCAPES = {'"': '\\"', "\\": "\\\\"}

SMALL_SIZE = 8
SLOTS_AT_ONCE = 4096  # a damaged table may claim billions: memory is asked for piece by piece
SHARED_TOKEN_STATES = {0: "unknown", 1: "free", 2: "lent", 4: "being returned"}
# What a look into damaged memory, or at a type that is not known whole, ends with.
UNREADABLE = (gdb.error, LookupError, OverflowError, TypeError, ValueError)


# --- Reading ---


def target(value):
    """What a reference refers to; any other value as it is."""
    if value.type.strip_typedefs().code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
        return pointed(value.address)
    return value


def pointed(pointer):
    """What a pointer points to, as the class that the pointer names. The way over an array keeps the debugger from
    looking for a derived class, which it warns about for classes that have other symbols in the hardened build."""
    return pointer.cast(pointed_type(pointer).array(0).pointer()).dereference()[0]


def readable(value):
    """A value whose memory was read."""
    value.fetch_lazy()
    return value


def address(pointer):
    """A pointer as a stream writes it."""
    number = int(pointer)
    return hex(number) if number != 0 else "0"


def pointed_type(pointer):
    """The type that a pointer points to, whatever both are called."""
    return pointer.type.strip_typedefs().target().strip_typedefs()


def has_fields(kind):
    """Whether the fields of a class are known: compilers describe a class only where its virtual table is."""
    return bool(kind.strip_typedefs().fields())


def in_words(count, thing):
    return "%d %s%s" % (count, thing, "" if count == 1 else "s")


class Slots:
    """The slots of a table, read many at a time."""

    def __init__(self, table):
        first = table["theTable"]
        self.first = first
        self.start = int(first)
        entry = pointed_type(first)
        self.entryBytes = entry.sizeof
        self.fields = {field.name: (field.bitpos // 8, field.type.sizeof) for field in entry.fields()
                       if not field.is_base_class and hasattr(field, "bitpos")}
        mask = table["theMask"]
        # The table counts in 32 bits: this is the index of its end slot, whatever theMask holds.
        self.count = (int(mask) + 1) & 0xFFFFFFFF
        one = bytes([1]) + bytes(mask.type.sizeof - 1)
        self.byteOrder = "little" if int(gdb.Value(one, mask.type)) == 1 else "big"

    def occupied(self):
        """The index and the bytes of each occupied slot, in ascending order."""
        for index in range(0, self.count, SLOTS_AT_ONCE):
            count = min(SLOTS_AT_ONCE, self.count - index)
            place = self.start + index * self.entryBytes
            memory = bytes(gdb.selected_inferior().read_memory(place, count * self.entryBytes))
            for offset in range(0, len(memory), self.entryBytes):
                entry = memory[offset:offset + self.entryBytes]
                if self.number(entry, "theState") == OCCUPIED:
                    yield index + offset // self.entryBytes, entry

    def number(self, entry, field):
        offset, size = self.fields[field]
        return int.from_bytes(entry[offset:offset + size], self.byteOrder)


def damage_of_table(table):
    """What is wrong with a table, in words; None when it holds together."""
    used, fill, mask = (int(table[field]) for field in ("theUsedCount", "theFillCount", "theMask"))
    size = mask + 1
    if int(table["theTable"]) == 0:
        return "theTable is null"
    if size < SMALL_SIZE or size & mask != 0 or size > 0x80000000:
        return "theMask is %d, which is not a power of two less one" % mask
    if not used <= fill <= size:
        return "theUsedCount is %d and theFillCount %d in %d slots" % (used, fill, size)
    if table.address is not None:
        small = int(table["theTable"]) == int(table["theSmallTable"].address)
        if small != (size == SMALL_SIZE):
            return "theTable %s theSmallTable with %d slots" % ("is" if small else "is not", size)
    return None


def tokens_in_list(tokens):
    """First position, and length, of a vector, mostly one of tokens."""
    storage = tokens["_M_impl"]
    first, last = storage["_M_start"], storage["_M_finish"]
    distance = int(last) - int(first)
    size = pointed_type(first).sizeof
    if distance < 0 or distance % size != 0:
        raise ValueError("it begins at %s and ends at %s" % (address(first), address(last)))
    return first, distance // size


def shown_tokens(first, count):
    """Tokens in a row; of many the last ones, which are lent first."""
    hidden = max(0, count - elements_shown())
    tokens = ["... %d more" % hidden] if hidden else []
    tokens += [str(int((first + index).dereference())) for index in range(hidden, count)]
    return "{%s}" % ", ".join(tokens)


def elements_shown():
    """How many elements the user wants to see, at most."""
    limit = gdb.parameter("print elements")
    return limit if limit else 0x7FFFFFFF


def text_in_string(string):
    """A standard string in quotes, with what is not printable escaped."""
    length = int(string["_M_string_length"])
    first = string["_M_dataplus"]["_M_p"]
    if int(first) == 0:
        return "<null>"
    shown = min(length, elements_shown())
    try:
        read = bytes(gdb.selected_inferior().read_memory(int(first), shown)) if shown else b""
    except gdb.MemoryError:
        return "<not readable at %s>" % address(first)
    text = "".join(c if c.isprintable() and c not in '"\\' else ESCAPES.get(c) or c.encode("unicode_escape").decode()
                   for c in read.decode("utf-8", "surrogateescape"))
    return '"%s"%s' % (text, "..." if shown < length else "")


# --- Printers ---


class Printer:
    """One object in words, and perhaps its parts; memory that cannot be read is said to be so."""

    def __init__(self, value):
        self.value = target(value)
        tag = self.value.type.strip_typedefs().unqualified().tag
        self.name = tag.split("<")[0].rpartition("::")[2]

    def to_string(self):
        if not has_fields(self.value.type):
            return "%s, %s" % (self.name, NO_FIELDS)
        try:
            return "%s%s" % (self.name, self.summary())
        except UNREADABLE as problem:
            return "%s, not readable: %s" % (self.name, problem)


class FieldsPrinter(Printer):
    """One object in words, and its fields."""

    def children(self):
        if not has_fields(self.value.type):
            return
        try:
            yield from self.parts()
        except UNREADABLE as problem:
            yield "...", "<%s>" % problem


class TablePrinter(FieldsPrinter):
    """The keys and values of a table in the order of its slots, or its fields where it is damaged."""

    def __init__(self, value):
        super().__init__(value)
        try:
            self.damage = damage_of_table(self.value)
        except UNREADABLE as problem:
            self.damage = str(problem)

    def display_hint(self):
        return "map" if self.damage is None else None

    def summary(self):
        if self.damage is not None:
            return ", damaged: %s" % self.damage
        used, fill, mask = (int(self.value[field]) for field in ("theUsedCount", "theFillCount", "theMask"))
        return " of %s in %d slots%s" % (in_words(used, "key"), mask + 1,
                                         ", %d deleted" % (fill - used) if fill != used else "")

    def parts(self):
        if self.damage is not None:
            for field in ("theUsedCount", "theFillCount", "theMask", "theTable"):
                yield field, self.value[field]
            return
        slots = Slots(self.value)
        try:
            for index, _ in slots.occupied():
                entry = (slots.first + index).dereference()
                yield "[%d].key" % index, entry["theKey"]
                yield "[%d].value" % index, entry["theValue"]
        except UNREADABLE as problem:
            yield "...key", "..."
            yield "...value", "<%s>" % problem


class EntryPrinter(FieldsPrinter):
    """A slot's state by name; and key, value and hash, which an empty slot has not."""

    def summary(self):
        state = int(self.value["theState"])
        return ", %s" % ENTRY_STATES.get(state, "damaged: theState is %d" % state)

    def parts(self):
        if int(self.value["theState"]) != 0:
            for field in ("theKey", "theValue", "theHash"):
                yield field, self.value[field]


class IteratorPrinter(FieldsPrinter):
    """Where an iterator stands, and the slot there."""

    def summary(self):
        capacity, index = int(self.value["theCapacity"]), int(self.value["theIndex"])
        if int(self.value["theTable"]) == 0:
            return ", not ready" if capacity == 0 and index == 0 else ", damaged: theTable is null"
        if index >= capacity:
            return ", damaged: theIndex is %d and theCapacity %d" % (index, capacity)
        if index == capacity - 1:
            return " at the end of %d slots" % (capacity - 1)
        return " on slot %d of %d" % (index, capacity - 1)

    def parts(self):
        capacity, index = int(self.value["theCapacity"]), int(self.value["theIndex"])
        if int(self.value["theTable"]) != 0 and index + 1 < capacity:
            yield "slot", (self.value["theTable"] + index).dereference()


class BlockPrinter(Printer):
    """Token, size and place of a block."""

    def summary(self):
        token, length = int(self.value["theToken"]), int(self.value["theLength"])
        if int(self.value["theBytes"]) == 0:
            return " %d without bytes%s" % (token, ", damaged: theLength is %d" % length if length != 0 else "")
        return " %d of %s at %s" % (token, in_words(length, "byte"), address(self.value["theBytes"]))


class PoolPrinter(FieldsPrinter):
    """A pool in numbers, and its fields."""

    def summary(self):
        _, free = tokens_in_list(self.value["availableTokens"])
        locks, handle = int(self.value["useMutexHandle"]), int(self.value["theMutexHandle"])
        damage = ""
        if locks not in (0, 1):
            damage = ", damaged: useMutexHandle is %d" % locks
        elif (locks == 1) != (handle != 0):
            damage = ", damaged: useMutexHandle is %d and theMutexHandle %s" % (locks, address(handle))
        return " of %s of %s, %d free, %s%s" % (
            in_words(int(self.value["memoryPool"]["theUsedCount"]), "block"),
            in_words(int(self.value["bytesInEachObject"]), "byte"), free, "locking" if locks else "not locking", damage)

    def parts(self):
        yield "memoryPool", self.value["memoryPool"]
        try:
            free = self.free_tokens()
        except UNREADABLE as problem:
            free = "<%s>" % problem
        yield "availableTokens", free
        for field in ("initialNumberOfObjects", "bytesInEachObject", "theMutexHandle", "useMutexHandle"):
            yield field, self.value[field]

    def free_tokens(self):
        return shown_tokens(*tokens_in_list(self.value["availableTokens"]))


def atomic_word(word):
    """The number in an atomic of 32 bits, whatever the standard library calls its field."""
    memory = bytes(gdb.selected_inferior().read_memory(int(word.address), word.type.sizeof))
    return int(gdb.Value(memory, gdb.lookup_type("unsigned int")))


def registered_caches(pool):
    """What a shared pool knows of its caches; of a list that does not end, the first thousand beyond its blocks."""
    cache = pool["theFirstCache"]
    for _ in range(int(pool["theNumberOfObjects"]) + 1000):
        if int(cache) == 0:
            return
        yield cache
        cache = cache["theNext"]


class SharedPoolPrinter(FieldsPrinter):
    """A shared pool in numbers, and the pool that it stands on."""

    def summary(self):
        count = int(self.value["theNumberOfObjects"])
        _, free = tokens_in_list(self.value["thePool"]["availableTokens"])
        cached = sum(atomic_word(cache["theCount"].dereference()) for cache in registered_caches(self.value))
        damage = ""
        if free + cached > count:
            damage = ", damaged: more free and cached than blocks"
        return " of %s of %s, %d lent, %d in caches, %d free, %s%s" % (
            in_words(count, "block"), in_words(int(self.value["theBytesInEachObject"]), "byte"),
            max(0, count - free - cached), cached, free, "closed" if int(self.value["theClosedFlag"]) else "open", damage)

    def parts(self):
        for field in ("thePool", "theFirstWaiter", "theHighestLentCount", "theWaitCount", "theTimeoutCount",
                      "theDescriptor"):
            yield field, self.value[field]


class TokenCachePrinter(FieldsPrinter):
    """How full a cache is, and its tokens, the next to lend at the end."""

    def summary(self):
        count, capacity = atomic_word(self.value["theCount"]), int(self.value["theCapacity"])
        return " of %s at most, %d in it%s" % (in_words(capacity, "token"), count,
                                               ", damaged: more than that" if count > capacity else "")

    def parts(self):
        yield "theTokens", shown_tokens(self.value["theTokens"], atomic_word(self.value["theCount"]))
        yield "thePool", self.value["thePool"]


class LeasePrinter(FieldsPrinter):
    """The loan of a lease, and where it goes back."""

    def summary(self):
        if int(self.value["thePool"]) == 0:
            return ", empty"
        return " of token %d, %s" % (int(self.value["theToken"]), self.place())

    def place(self):
        length, place = int(self.value["theLength"]), int(self.value["theBytes"])
        if place == 0:
            return "a block without bytes%s" % (", damaged: theLength is %d" % length if length != 0 else "")
        return "%s at %s" % (in_words(length, "byte"), address(place))

    def parts(self):
        if int(self.value["thePool"]) != 0:
            yield "thePool", self.value["thePool"]


class ObjectLeasePrinter(FieldsPrinter):
    """The object of a lease, and its token."""

    def summary(self):
        if int(self.value["theObject"]) == 0:
            return ", empty"
        return " of token %d" % int(self.lease()["theToken"])

    def lease(self):
        """The lease of the block, which is one of two kinds: its table of virtual operations tells which."""
        first = self.value["theLease"].address.cast(gdb.lookup_type("Gilvane::GVObject").pointer())
        lease = first.cast(first.dynamic_type).dereference()
        if lease.type.tag == "Gilvane::GVObject":
            raise ValueError("theLease is damaged")
        return lease

    def parts(self):
        if int(self.value["theObject"]) == 0:
            return
        yield "object", self.value["theObject"]
        yield "thePool", self.lease()["thePool"]
        yield "*object", readable(pointed(self.value["theObject"]))


class InspectorPrinter(FieldsPrinter):
    """A snapshot in numbers, and what is wrong with the pool that it is of."""

    FINDINGS = ("theTokensTwiceFree", "theTokensUnknown", "theTokensUnreachable", "theTokensWithoutBlock")

    def summary(self):
        _, blocks = tokens_in_list(self.value["theBlocks"])
        free = int(self.value["theFreeBlockCount"])
        findings = sum(tokens_in_list(self.value[field])[1] for field in self.FINDINGS)
        if free > blocks:
            return " of %s, damaged: theFreeBlockCount is %d" % (in_words(blocks, "block"), free)
        return " of %s, %d free, %d lent, %s" % (in_words(blocks, "block"), free, blocks - free,
                                                 in_words(findings, "finding"))

    def parts(self):
        for field in ("thePool", "theBytesInEachObject", "theBytesAskedFor", "theLongestProbe"):
            yield field, self.value[field]
        for field in self.FINDINGS:
            tokens = tokens_in_list(self.value[field])
            if tokens[1] != 0:
                yield field, shown_tokens(*tokens)


class ResourcePrinter(FieldsPrinter):
    """What a memory resource takes its blocks from, and what goes behind it."""

    LENDERS = (("theCache", "a cache"), ("theSharedPool", "a shared pool"), ("thePool", "a pool"))

    def lender(self):
        return next((field, name) for field, name in self.LENDERS if int(self.value[field]) != 0)

    def summary(self):
        try:
            return " over %s, for less than %s" % (self.lender()[1], in_words(int(self.value["theSmallEnd"]), "byte"))
        except StopIteration:
            return ", damaged: it stands on no pool"

    def parts(self):
        for field, _ in self.LENDERS:
            if int(self.value[field]) != 0:
                yield field, self.value[field]
        yield "theUpstream", self.value["theUpstream"]


class HooksPrinter(FieldsPrinter):
    """A budget or an arena: their numbers are not in the object, but the process has only one of each."""

    def __init__(self, value):
        super().__init__(value)
        symbol = gdb.lookup_static_symbol("Gilvane::(anonymous namespace)::the" + self.name[len("GVAllocation"):])
        self.state = symbol.value() if symbol is not None else None

    def summary(self):
        if self.state is None:
            return ", " + NO_FIELDS
        live = "%s live" % in_words(int(self.state["theLiveCount"]), "block")
        place = "in place" if int(self.state["isInPlace"]) else "not in place"
        return ", %s, %s, %s" % (place, live, self.bytes_in_words())


class BudgetPrinter(HooksPrinter):
    """A budget in numbers."""

    def parts(self):
        if self.state is not None:
            for field in ("theHighestBytes", "theGrantedCount", "theGrantedBytes", "theRefusedCount", "theRefusedBytes"):
                yield field, self.state[field]

    def bytes_in_words(self):
        most = self.state["theMostBytes"]
        limit = "" if int(most) == (1 << 8 * most.type.sizeof) - 1 else " of %d" % int(most)
        return "%d%s bytes" % (int(self.state["theLiveBytes"]), limit)


class ArenaPrinter(HooksPrinter):
    """An arena in numbers."""

    def parts(self):
        if self.state is not None:
            for field in ("theBytes", "theLastBlock"):
                yield field, address(self.state[field])

    def bytes_in_words(self):
        return "%d of %d bytes used" % (int(self.state["theUsedBytes"]), int(self.state["theSize"]))


class SmartPointerPrinter(FieldsPrinter):
    """How an object is shared, and the object."""

    def summary(self):
        pointed = {field: int(self.value[field]) for field in ("object", "refCount", "ownObject", "lock")}
        if not any(pointed.values()):
            return ", empty"
        for field in ("object", "refCount", "ownObject"):
            if pointed[field] == 0:
                return ", damaged: %s is null" % field
        count, owns = int(self.value["refCount"].dereference()), int(self.value["ownObject"].dereference())
        return " shared by %d, %s, %s%s" % (count, "owning" if owns else "not owning",
                                            "locking" if pointed["lock"] else "not locking",
                                            ", damaged: ownObject is %d" % owns if owns not in (0, 1) else "")

    def parts(self):
        pointer = self.value["object"]
        if int(pointer) == 0:
            return
        yield "object", pointer
        yield "*object", readable(pointed(pointer))


class ExceptionPrinter(Printer):
    """What went wrong, where, and of which sort it is."""

    def summary(self):
        kind = int(self.value["theKind"])
        texts = self.value["theMessage"]
        return " %s (%d), code %d: %s in %s, line %d" % (
            EXCEPTION_KINDS.get(kind, "of unknown kind"), kind, int(self.value["theCode"]),
            text_in_string(texts["theMessage"]), text_in_string(texts["theFile"]), int(self.value["theLine"]))


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("gilvane")
    for name, pattern, printer in (
            ("GVHashTable", "GVHashTable<.*>", TablePrinter),
            ("GVHashTableEntry", "GVHashTableEntry<.*>", EntryPrinter),
            ("GVHashTableEntry_Iterator", "GVHashTableEntry_Iterator<.*>", IteratorPrinter),
            ("GVMemoryPoolObject", "GVMemoryPoolObject", BlockPrinter),
            ("GVMemoryPool", "GVMemoryPool", PoolPrinter),
            ("GVSharedPool", "GVSharedPool", SharedPoolPrinter),
            ("GVTokenCache", "GVTokenCache", TokenCachePrinter),
            ("GVTokenLease", "GVTokenLease", LeasePrinter),
            ("GVSharedTokenLease", "GVSharedTokenLease", LeasePrinter),
            ("GVObjectLease", "GVObjectLease<.*>", ObjectLeasePrinter),
            ("GVMemoryPoolInspector", "GVMemoryPoolInspector", InspectorPrinter),
            ("GVPoolResource", "GVPoolResource", ResourcePrinter),
            ("GVAllocationBudget", "GVAllocationBudget", BudgetPrinter),
            ("GVAllocationArena", "GVAllocationArena", ArenaPrinter),
            ("GVSmartPointer", "GVSmartPointer<.*>", SmartPointerPrinter),
            ("GVException", "GVException", ExceptionPrinter)):
        collection.add_printer(name, "^Gilvane::%s$" % pattern, printer)
    return collection


# --- Operators ---


class PointerOperator(gdb.xmethod.XMethodWorker):
    """What `*` and `->` of a smart pointer or a lease give, read from the field that holds the address."""

    def __init__(self, operator, field, pointer):
        self.operator, self.field, self.pointer = operator, field, pointer

    def get_arg_types(self):
        return None

    def get_result_type(self, *_):
        return self.pointer.target() if self.operator == "operator*" else self.pointer

    def __call__(self, value):
        pointer = value[self.field]
        return pointed(pointer) if self.operator == "operator*" else pointer


class PointerOperators(gdb.xmethod.XMethodMatcher):
    """Lets expressions use `*pool` and `pool->field` where no function of the program can be called, as in a core."""

    OPERATORS = ("operator*", "operator->", "get")
    FIELDS = (("^Gilvane::GVSmartPointer<.*>$", "object"), ("^Gilvane::GVObjectLease<.*>$", "theObject"))

    def __init__(self):
        super().__init__("gilvane")
        self.methods = [gdb.xmethod.XMethod(name) for name in self.OPERATORS]

    def match(self, class_type, method_name):
        kind = class_type.strip_typedefs().unqualified()
        method = next((method for method in self.methods if method.name == method_name and method.enabled), None)
        field = next((field for pattern, field in self.FIELDS if re.match(pattern, kind.tag or "")), None)
        if method is None or field is None or not has_fields(kind):
            return None
        return PointerOperator(method_name, field, kind[field].type.strip_typedefs())


# --- Which pool ---


def as_class(value, pattern):
    """A value as the class of that name, which may be a base of its own; None if there is none."""
    kind = value.type.strip_typedefs().unqualified()
    if kind.code != gdb.TYPE_CODE_STRUCT:
        return None
    if re.match(pattern, kind.tag or ""):
        return value
    for field in kind.fields():
        if field.is_base_class:
            found = as_class(value[field], pattern)
            if found is not None:
                return found
    return None


def pools_from(expression):
    """The pool that an expression gives, refers to, points to or shares, and the shared pool that stands on it; None
    where none does."""
    value = target(gdb.parse_and_eval(expression))
    if value.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
        if int(value) == 0:
            raise gdb.GdbError("%s is a null pointer." % expression)
        value = pointed(value)
    shared = as_class(value, r"^Gilvane::GVSmartPointer<.*>$")
    if shared is not None:
        if int(shared["object"]) == 0:
            raise gdb.GdbError("%s is an empty smart pointer." % expression)
        value = pointed(shared["object"])
    cache = as_class(value, r"^Gilvane::GVTokenCache$")
    if cache is not None and has_fields(cache.type):
        value = pointed(cache["thePool"])
    threaded = as_class(value, r"^Gilvane::GVSharedPool$")
    if threaded is not None and has_fields(threaded.type):
        value = threaded["thePool"]
    pool = as_class(value, r"^Gilvane::GVMemoryPool$")
    if pool is None:
        raise gdb.GdbError("%s has the type %s, which is no pool." % (expression, value.type))
    if not has_fields(pool.type):
        raise gdb.GdbError("%s: %s." % (expression, NO_FIELDS))
    return pool, threaded


# --- info gvpool ---


def dump(pool):
    """What GVMemoryPool::print writes on a stream with default flags, piece by piece."""
    yield "<GVMemoryPool><memoryPool><GVHashTable>"
    slots = Slots(pool["memoryPool"])
    if slots.start == 0:
        raise gdb.GdbError("The pool is damaged: its table has no slots.")
    for _, entry in slots.occupied():
        yield "\n\t<GVHashTableEntry>\n\t\t<K>%d</K>\n\t\t<V>%s</V>\n\t</GVHashTableEntry>\n" % (
            slots.number(entry, "theKey"), address(slots.number(entry, "theValue")))
    yield "</GVHashTable></memoryPool><bytesInEachObject>%d</bytesInEachObject>" % int(pool["bytesInEachObject"])
    yield "<theMutexHandle>%s</theMutexHandle>" % address(pool["theMutexHandle"])
    yield "<useMutexHandle>%d</useMutexHandle></GVMemoryPool>" % int(pool["useMutexHandle"])


class InfoPool(gdb.Command):
    """Write the dump of a Gilvane memory pool.
Usage: info gvpool EXPRESSION

EXPRESSION gives a pool, a reference or a pointer to one, or a smart pointer that shares one; of a smart
pointer, the dump of its pool is written, without the pointer's own tags, and of a shared pool that of the
pool that it stands on. What is written is byte for byte what
GVMemoryPool::print would write on a stream with default flags. No function of the program is called, so this
works on core files too; nothing is written when a part of the pool cannot be read.

The dump as a picture: pipe info gvpool EXPRESSION | gvview > pool.html"""

    def __init__(self):
        super().__init__("info gvpool", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        if not argument.strip():
            raise gdb.GdbError("Which pool? info gvpool needs an expression that gives one.")
        try:
            with NoCalls():
                text = "".join(dump(pools_from(argument)[0]))
        except UNREADABLE as problem:
            raise gdb.GdbError("%s: %s" % (argument, problem))
        # The dump does not end its line; a prompt is not to stand behind it.
        gdb.write(text + ("\n" if from_tty else ""))


# --- info gvtoken ---


def block_at(place, length):
    return "a block without bytes" if int(place) == 0 else "%s at %s" % (in_words(length, "byte"), address(place))


def token_of_shared_pool(pool, token):
    """State and address of a token, in words, as the directory of a shared pool has them."""
    block = block_of_shared_pool(pool, token)
    state = 0 if block is None else atomic_word(block["theState"])
    if state == 0:
        return "unknown: the pool has no such token"
    words = SHARED_TOKEN_STATES.get(state, "damaged: theState is %d" % state)
    if state == 1:
        words += ", in the pool" if token in free_list(pool["thePool"]) else ", in a cache"
    if state == 2:
        loan = loans_of(pool).get(token)
        words += ", %s" % loan_in_words(loan) if loan is not None else ""
    return "%s, %s" % (words, block_at(block["theBytes"], int(pool["theBytesInEachObject"])))


def block_of_shared_pool(pool, token):
    """What the directory has for a token; None for one beyond it. Tokens may pass 2^32: their distance wraps too."""
    directory = pool["theDirectory"]
    index = (token - int(directory["theFirstToken"])) & 0xFFFFFFFF
    return (directory["theBlocks"] + index).dereference() if index < int(directory["theSpan"]) else None


def free_list(pool):
    first, count = tokens_in_list(pool["availableTokens"])
    return [int((first + index).dereference()) for index in range(count)]


def token_of_pool(pool, token):
    """State and address of a token, in words, as the table and the free list of a plain pool have them."""
    damage = damage_of_table(pool["memoryPool"])
    if damage is not None:
        raise ValueError("the pool is damaged: %s" % damage)
    slots = Slots(pool["memoryPool"])
    blocks = {slots.number(entry, "theKey"): slots.number(entry, "theValue") for _, entry in slots.occupied()}
    times = free_list(pool).count(token)
    free = "" if times == 0 else "free" if times == 1 else "free %d times" % times
    if blocks.get(token, 0) == 0:
        return "%s, without a block" % free if free else "unknown: the pool has no block for it"
    pointer = pool["memoryPool"]["theTable"].dereference()["theValue"].type
    block = gdb.Value(blocks[token]).cast(pointer).dereference()
    words = free or ("never lent" if token in tokens_never_lent(blocks, slots.count) else "lent")
    return "%s, %s" % (words, block_at(block["theBytes"], int(block["theLength"])))


def tokens_never_lent(blocks, slots):
    """As GVMemoryPoolInspector::getTokensNeverLent tells them, with those that are free."""
    tokens = sorted(token for token, block in blocks.items() if block != 0)
    return set(tokens[2 * slots // 3:])


class InfoToken(gdb.Command):
    """Write where a token of a Gilvane pool is.
Usage: info gvtoken POOL TOKEN

POOL is as for info gvpool, or a cache of a shared pool, and has no blanks; TOKEN is an expression, too. What is
written is the token's state, and the length and the address of its block:

  free        nobody has it: it is in the free list or, in a shared pool, in a cache
  lent        somebody has it. In the hardened build a shared pool also knows who
  being returned  in the hardened build: a thread is just giving it back
  free N times  it was returned too often
  never lent  nobody has it, and nobody can have it: its building ended with an exception
  unknown     it is not of this pool, or its block is gone

No function of the program is called, so this works on core files too."""

    def __init__(self):
        super().__init__("info gvtoken", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        expression, _, number = argument.strip().partition(" ")
        if not number:
            raise gdb.GdbError("Which token? info gvtoken needs a pool and a token.")
        try:
            with NoCalls():
                token = int(gdb.parse_and_eval(number)) & 0xFFFFFFFF
                pool, shared = pools_from(expression)
                words = token_of_pool(pool, token) if shared is None else token_of_shared_pool(shared, token)
        except UNREADABLE as problem:
            raise gdb.GdbError("%s: %s" % (argument, problem))
        gdb.write("token %d: %s\n" % (token, words))


# --- info gvloans ---


def loans_of(pool):
    """Token -> record of each loan that a shared pool has noted."""
    records = pool["theLoans"]
    if int(records) == 0:
        return {}
    records = records.dereference()
    loans = ((records["theRecords"] + index).dereference() for index in range(int(records["theSpan"])))
    return {int(loan["theToken"]): loan for loan in loans if int(loan["theNumber"]) != 0}


def loan_in_words(loan):
    return "loan %d to thread %d" % (int(loan["theNumber"]), int(loan["theThread"]))


def begin_of(loan):
    """Nanoseconds of the steady clock, which both standard libraries keep in one field in one field."""
    place = loan["theBegin"]
    return int(gdb.Value(bytes(gdb.selected_inferior().read_memory(int(place.address), 8)), gdb.lookup_type("long long")))


def code_in_words(place):
    """Function and line of a call that returns to an address, as far as they are known."""
    call = place - 1  # the address itself is behind the call
    symbol = gdb.execute("info symbol %d" % call, to_string=True).strip()
    found = gdb.find_pc_line(call)
    line = " at %s:%d" % (found.symtab.filename, found.line) if found.symtab is not None else ""
    known = not symbol.startswith("No symbol")
    return "%s%s%s" % (hex(place), " in " + re.sub(r" in section .*| \+ \d+.*", "", symbol) if known else "", line)


class InfoLoans(gdb.Command):
    """Write who has the blocks of a shared pool of the hardened build.
Usage: info gvloans POOL

POOL is as for info gvtoken. The oldest loan comes first. Each has the thread by the number that `info threads` shows
behind LWP, and how long before the newest loan it began: a core does not say what time it is. Where the program had
its loans traced, the calls follow that led to it.

No function of the program is called, so this works on core files too."""

    def __init__(self):
        super().__init__("info gvloans", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        if not argument.strip():
            raise gdb.GdbError("Which pool? info gvloans needs an expression that gives a shared one.")
        try:
            with NoCalls():
                text = "".join(line + "\n" for line in self.lines(argument))
        except UNREADABLE as problem:
            raise gdb.GdbError("%s: %s" % (argument, problem))
        gdb.write(text)

    def lines(self, expression):
        pool = pools_from(expression)[1]
        if pool is None:
            raise gdb.GdbError("%s is no shared pool: it does not note loans." % expression)
        if int(pool["theLoans"]) == 0:
            raise gdb.GdbError("%s notes no loans: the library is not hardened." % expression)
        loans = sorted(loans_of(pool).values(), key=lambda loan: int(loan["theNumber"]))
        yield in_words(len(loans), "loan")
        for loan in loans:
            age = (begin_of(loans[-1]) - begin_of(loan)) / 1e9
            yield "token %d: %s, %.3f s before the newest" % (int(loan["theToken"]), loan_in_words(loan), age)
            for number in range(min(int(loan["theFrameCount"]), loan["theFrames"].type.range()[1] + 1)):
                yield "  " + code_in_words(int(loan["theFrames"][number]))


class NoCalls:
    """Keeps expressions from calling functions of the program, such as a smart pointer's operators."""

    def __enter__(self):
        self.before = gdb.parameter("may-call-functions")
        gdb.execute("set may-call-functions off", to_string=True)

    def __exit__(self, *_):
        gdb.execute("set may-call-functions %s" % ("on" if self.before else "off"), to_string=True)


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
gdb.xmethod.register_xmethod_matcher(gdb.current_objfile(), PointerOperators(), replace=True)
InfoPool()
InfoToken()
InfoLoans()
