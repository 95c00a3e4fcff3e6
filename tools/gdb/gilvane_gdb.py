"""Shows Gilvane's tables, pools, blocks, pointers and exceptions in GDB, and writes a pool's dump.

Loaded by GDB itself where the library was installed, and by `source tools/gdb/gilvane_gdb.py` elsewhere. Everything is
read from memory by the debug information: no function of the program is called, so core files will do, of any machine
that the debugger knows.
"""

import re

import gdb
import gdb.printing

# As the library names them, which a program's debug information may lack when nothing refers to the enumeration.
ENTRY_STATES = {0: "gvemptyentry", 1: "gvoccupiedentry", 2: "gvdeletedentry"}
EXCEPTION_KINDS = {1: "gvinvalidstate", 5: "gvoutofmemory", 12: "gviteratormisuse", 20: "gvhashtablefailure"}
OCCUPIED = 1
NO_FIELDS = "fields unknown: the library has no debug information"
ESCAPES = {'"': '\\"', "\\": "\\\\"}

SMALL_SIZE = 8
SLOTS_AT_ONCE = 4096  # a damaged table may claim billions: memory is asked for piece by piece
# What a look into damaged memory, or at a type that is not known whole, ends with.
UNREADABLE = (gdb.error, LookupError, OverflowError, TypeError, ValueError)


# --- Reading ---


def target(value):
    """What a reference refers to; any other value as it is."""
    if value.type.strip_typedefs().code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
        return value.referenced_value()
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
    """First and last position, and length, of a vector of tokens."""
    storage = tokens["_M_impl"]
    first, last = storage["_M_start"], storage["_M_finish"]
    distance = int(last) - int(first)
    size = pointed_type(first).sizeof
    if distance < 0 or distance % size != 0:
        raise ValueError("it begins at %s and ends at %s" % (address(first), address(last)))
    return first, distance // size


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
        """The free list; of a long one its end, which is lent first."""
        first, count = tokens_in_list(self.value["availableTokens"])
        hidden = max(0, count - elements_shown())
        tokens = ["... %d more" % hidden] if hidden else []
        tokens += [str(int((first + index).dereference())) for index in range(hidden, count)]
        return "{%s}" % ", ".join(tokens)


def atomic_word(word):
    """The number in an atomic of 32 bits, whatever the standard library calls its field."""
    memory = bytes(gdb.selected_inferior().read_memory(int(word.address), word.type.sizeof))
    return int(gdb.Value(memory, gdb.lookup_type("unsigned int")))


class SharedPoolPrinter(FieldsPrinter):
    """A shared pool in numbers, and the pool that it stands on."""

    def summary(self):
        count = int(self.value["theNumberOfObjects"])
        _, free = tokens_in_list(self.value["thePool"]["availableTokens"])
        cached = sum(atomic_word(cache["theCount"].dereference()) for cache in self.caches(count))
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

    def caches(self, most):
        """What the pool knows of its caches; of a list that does not end, no more than `most` and a thousand."""
        cache = self.value["theFirstCache"]
        for _ in range(most + 1000):
            if int(cache) == 0:
                return
            yield cache
            cache = cache["theNext"]


class TokenCachePrinter(FieldsPrinter):
    """How full a cache is, and its tokens, the next to lend at the end."""

    def summary(self):
        count, capacity = atomic_word(self.value["theCount"]), int(self.value["theCapacity"])
        return " of %s at most, %d in it%s" % (in_words(capacity, "token"), count,
                                               ", damaged: more than that" if count > capacity else "")

    def parts(self):
        first, count = self.value["theTokens"], atomic_word(self.value["theCount"])
        hidden = max(0, count - elements_shown())
        tokens = ["... %d more" % hidden] if hidden else []
        tokens += [str(int((first + index).dereference())) for index in range(hidden, count)]
        yield "theTokens", "{%s}" % ", ".join(tokens)
        yield "thePool", self.value["thePool"]


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
        pointed = pointer.dereference()
        pointed.fetch_lazy()
        yield "*object", pointed


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
            ("GVSmartPointer", "GVSmartPointer<.*>", SmartPointerPrinter),
            ("GVException", "GVException", ExceptionPrinter)):
        collection.add_printer(name, "^Gilvane::%s$" % pattern, printer)
    return collection


# --- info gvpool ---


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


def pool_from(expression):
    """The pool that an expression gives, refers to, points to or shares."""
    value = target(gdb.parse_and_eval(expression))
    if value.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
        if int(value) == 0:
            raise gdb.GdbError("%s is a null pointer." % expression)
        value = value.dereference()
    shared = as_class(value, r"^Gilvane::GVSmartPointer<.*>$")
    if shared is not None:
        if int(shared["object"]) == 0:
            raise gdb.GdbError("%s is an empty smart pointer." % expression)
        value = shared["object"].dereference()
    threaded = as_class(value, r"^Gilvane::GVSharedPool$")
    if threaded is not None and has_fields(threaded.type):
        value = threaded["thePool"]
    pool = as_class(value, r"^Gilvane::GVMemoryPool$")
    if pool is None:
        raise gdb.GdbError("%s has the type %s, which is no pool." % (expression, value.type))
    if not has_fields(pool.type):
        raise gdb.GdbError("%s: %s." % (expression, NO_FIELDS))
    return pool


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
                text = "".join(dump(pool_from(argument)))
        except UNREADABLE as problem:
            raise gdb.GdbError("%s: %s" % (argument, problem))
        # The dump does not end its line; a prompt is not to stand behind it.
        gdb.write(text + ("\n" if from_tty else ""))


class NoCalls:
    """Keeps expressions from calling functions of the program, such as a smart pointer's operators."""

    def __enter__(self):
        self.before = gdb.parameter("may-call-functions")
        gdb.execute("set may-call-functions off", to_string=True)

    def __exit__(self, *_):
        gdb.execute("set may-call-functions %s" % ("on" if self.before else "off"), to_string=True)


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
InfoPool()
