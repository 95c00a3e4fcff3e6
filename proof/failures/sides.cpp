#include "sides.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <unordered_map>

namespace Proof {

using Gilvane::GVTestPeer;
using Gilvane::detail::rawBlockHeaderBytes;

namespace {

// Memory of the library's side. As with the default hooks, the byte after the header word gets malloc's full alignment.
constexpr std::size_t padding = alignof(std::max_align_t) - rawBlockHeaderBytes;
constexpr int freshByte = 0xa5;
constexpr int deadByte = 0xdd;

std::unordered_map<const void*, Id>& idsByStart() {
    static std::unordered_map<const void*, Id> theIds;
    return theIds;
}

Books::Block& blockOf(Id id) { return RealMemory::books().blocks[static_cast<std::size_t>(id) - 1]; }

void* take(unsigned int bytes) {
    Books& books = RealMemory::books();
    if (!books.request(bytes)) {
        return nullptr;
    }
    void* const memory = std::malloc(padding + bytes);
    if (memory == nullptr) {
        std::abort();
    }
    void* const start = static_cast<char*>(memory) + padding;
    std::memset(start, freshByte, bytes);
    books.blocks.back().start = start;
    idsByStart()[start] = static_cast<Id>(books.blocks.size());
    return start;
}

void giveBack(void* start, Hooks hooks) {
    const auto found = idsByStart().find(start);
    Lines& events = RealMemory::books().events;
    if (found == idsByStart().end() || !blockOf(found->second).live) {
        events.push_back("release of what is not live");
        return;
    }
    Books::Block& block = blockOf(found->second);
    block.live = false;
    std::memset(start, deadByte, block.bytes);
    events.push_back("release " + std::to_string(found->second) + (block.hooks == hooks ? "" : " by the other hook"));
}

void giveBackOfTheState(void* start) { giveBack(start, hooksOfTheState); }
void giveBackOfTheOperation(void* start) { giveBack(start, hooksOfTheOperation); }

bool isFilledWith(int byte, const void* bytes, std::size_t count) {
    const auto* const first = static_cast<const unsigned char*>(bytes);
    return std::all_of(first, first + count, [byte](unsigned char b) { return b == byte; });
}

/// What the language puts in front of an array whose elements have a destructor.
struct ArrayProbe {
    static std::size_t& asked() {
        static std::size_t theBytes;
        return theBytes;
    }
    static void* operator new[](std::size_t bytes) {
        asked() = bytes;
        return ::operator new[](bytes);
    }
    static void operator delete[](void* array) { ::operator delete[](array); }
    virtual ~ArrayProbe() = default;
};

} // namespace

std::size_t bytesBeforeAnArray() {
    static const std::size_t bytes = [] {
        delete[] new ArrayProbe[1];
        return ArrayProbe::asked() - sizeof(ArrayProbe);
    }();
    return bytes;
}

Books& RealMemory::books() {
    static Books theBooks;
    return theBooks;
}

void RealMemory::useHooks(int hooks) {
    if (hooks == 0) {
        Gilvane::GVObject::SetAllocationHooks(nullptr, nullptr);
        return;
    }
    books().hooks = static_cast<Hooks>(hooks);
    Gilvane::GVObject::SetAllocationHooks(&take,
                                          hooks == hooksOfTheState ? &giveBackOfTheState : &giveBackOfTheOperation);
}

Id RealMemory::idOf(const void* address, std::size_t offset) {
    if (address == nullptr) {
        return 0;
    }
    const auto start = reinterpret_cast<std::uintptr_t>(address) - rawBlockHeaderBytes - offset;
    const auto found = idsByStart().find(reinterpret_cast<const void*>(start));
    return found == idsByStart().end() ? -1 : found->second;
}

void* RealMemory::userBytes(Id id) {
    if (id <= 0 || static_cast<std::size_t>(id) > books().blocks.size() || !blockOf(id).live) {
        return nullptr;
    }
    return static_cast<char*>(blockOf(id).start) + rawBlockHeaderBytes;
}

Lines RealMemory::forget() {
    Lines wrong;
    for (const Books::Block& block : books().blocks) {
        if (block.start == nullptr) {
            continue;
        }
        if (!block.live && !isFilledWith(deadByte, block.start, block.bytes)) {
            wrong.push_back("a released block of " + std::to_string(block.bytes) + " bytes was written to");
        }
        std::free(static_cast<char*>(block.start) - padding);
    }
    idsByStart().clear();
    books() = Books();
    return wrong;
}

// Memory of the reference's side

namespace {

std::optional<Ledger> theLedger;

std::map<Id, PlainModel>& plainObjects() {
    static std::map<Id, PlainModel> objects;
    return objects;
}

} // namespace

Ledger& Model::ledger() { return *theLedger; }

void Model::forget() { reference::begin(theLedger.emplace(), 0); }

PlainModel* PlainModel::make() {
    const Id id = reference::requestOrThrow(What::otherObject);
    return &(plainObjects()[id] = {id});
}

void PlainModel::destroy(PlainModel* plain) {
    if (plain != nullptr) {
        reference::release(plain->self);
        plainObjects().erase(plain->self);
    }
}

PlainModel& PlainModel::find(Id id) { return plainObjects().at(id); }

// Operations that are spelled differently on the two sides

namespace {

const char* const hookMessage = "Allocation hooks must be set or reset together.";
const char* const copyMessage = "Object of smart pointer cannot be copied.";

const char* messageOf(Misuse misuse) {
    switch (misuse) {
    case Misuse::derefAtEnd:
    case Misuse::stepAtEnd:
        return "Iterator at end.";
    case Misuse::derefNotReady:
        return "Iterator not ready to dereference.";
    case Misuse::stepNotReady:
        return "Iterator not ready to increment.";
    case Misuse::keyNotReady:
        return "Iterator not ready to get key.";
    case Misuse::valueNotReady:
        return "Iterator not ready to get value.";
    default:
        return "Iterator refers to invalid table entry.";
    }
}

} // namespace

void Real::misuse(Table& table, Misuse misuse) {
    Table::Iterator atEnd = table.end();
    Table::Iterator notReady;
    switch (misuse) {
    case Misuse::derefAtEnd:
        static_cast<void>(*atEnd);
        break;
    case Misuse::derefNotReady:
        static_cast<void>(*notReady);
        break;
    case Misuse::stepAtEnd:
        atEnd++;
        break;
    case Misuse::stepNotReady:
        notReady++;
        break;
    case Misuse::keyAtEnd:
        static_cast<void>(atEnd.GetKey());
        break;
    case Misuse::keyNotReady:
        static_cast<void>(notReady.GetKey());
        break;
    case Misuse::valueAtEnd:
        static_cast<void>(atEnd.GetValue());
        break;
    case Misuse::valueNotReady:
        static_cast<void>(notReady.GetValue());
        break;
    }
}

std::size_t Model::keys(Table& table) {
    std::vector<reference::RawBlock> nodes;
    for (unsigned int listed = 0; listed < table.used; ++listed) {
        nodes.emplace_back(What::keyNode);
    }
    return nodes.size();
}

void Model::misuse(Table&, Misuse misuse) { reference::throwException(12, messageOf(misuse), Table::file); }

void Model::refuseOneHook() { reference::throwException(1, hookMessage, "libsrc/base/gvobject"); }

void Real::copyTheUncopyable() {
    UncopyableObject object;
    Gilvane::GVSmartPointer<UncopyableObject> pointer(&object, false, false);
    static_cast<void>(pointer.deepCopy());
}

void Model::copyTheUncopyable() {
    Plain object{-1}; // in no raw block
    const PlainPointer pointer(&object, false, false);
    reference::throwException(1, copyMessage, "libsrc/utilities/gvsmartpointer");
}

void Real::makeAndCopyException(const std::string& text) {
    const Gilvane::GVException first(text.c_str(), "libsrc/utilities/gvmemorypool", 1, Gilvane::gvoutofmemory, 0);
    const Gilvane::GVException second(first); // NOLINT(performance-unnecessary-copy-initialization)
}

void Model::makeAndCopyException(const std::string& text) {
    const char* const file = Pool::file;
    const reference::RawBlock texts[] = {reference::memoryOfText(text), reference::memoryOfText(file),
                                         reference::memoryOfText(text), reference::memoryOfText(file)};
}

bool Real::makeBlock(unsigned int bytes, bool mayThrow) {
    using Block = Gilvane::GVMemoryPoolObject;
    const Block* const block = mayThrow ? (bytes == 0 ? new Block : new Block(bytes))
                                        : (bytes == 0 ? new (std::nothrow) Block : new (std::nothrow) Block(bytes));
    const bool made = block != nullptr;
    delete block;
    return made;
}

bool Model::makeBlock(unsigned int bytes, bool mayThrow) {
    const Id block = reference::makeBlock(bytes, mayThrow);
    reference::deleteBlock(block);
    return block != 0;
}

void Real::makeEntries(std::size_t number) { delete[] new Table::Entry[number]; }

void Model::makeEntries(std::size_t number) { const reference::RawBlock array(What::arrayOfTable, number); }

// States in text

namespace {

std::string number(long value) { return " " + std::to_string(value); }
std::string request(Id id) { return " #" + std::to_string(id); }

template <typename T>
std::string known(const std::optional<T>& value) {
    return value ? " " + std::to_string(*value) : std::string(" ?");
}

void addSlots(Lines& lines, const std::string& name, const std::vector<reference::Slot>& slots) {
    for (std::size_t index = 0; index < slots.size(); ++index) {
        const reference::Slot& slot = slots[index];
        if (slot.state == reference::empty && !slot.key && !slot.value && !slot.hash) {
            continue;
        }
        lines.push_back(name + "[" + std::to_string(index) + "]" + number(slot.state) + known(slot.key) +
                        known(slot.value) + known(slot.hash));
    }
}

/// What both sides have of a table.
struct TableSeen {
    unsigned int used;
    unsigned int fill;
    unsigned int size;
    Id array;
    const std::vector<reference::Slot>& small;
    const std::vector<reference::Slot>& large;
};

void addTable(Lines& lines, const std::string& name, const TableSeen& table) {
    lines.push_back(name + number(table.used) + number(table.fill) + number(table.size) + request(table.array));
    addSlots(lines, name + ".small", table.small);
    addSlots(lines, name + ".large", table.large);
}

void addTable(Lines& lines, const std::string& name, const reference::Table& table, const reference::Table&) {
    addTable(lines, name, {table.used, table.fill, table.size, table.array.id(), table.small, table.large});
}

int valueInText(int value) { return value; }
int valueInText(const Gilvane::GVMemoryPoolObject* block) { return RealMemory::idOf(block); }

template <typename Entry>
std::vector<reference::Slot> slotsSeen(const Entry* entries, std::size_t count,
                                       const std::vector<reference::Slot>& knownSlots) {
    std::vector<reference::Slot> slots(count);
    for (std::size_t index = 0; index < count; ++index) {
        reference::Slot& slot = slots[index];
        const reference::Slot knownSlot = index < knownSlots.size() ? knownSlots[index] : reference::Slot();
        slot.state = entries[index].theState;
        if (knownSlot.key) {
            slot.key = entries[index].theKey;
        }
        if (knownSlot.value) {
            slot.value = valueInText(entries[index].theValue);
        }
        if (knownSlot.hash) {
            slot.hash = entries[index].theHash;
        }
    }
    return slots;
}

template <typename V>
void addTable(Lines& lines, const std::string& name, Gilvane::GVHashTable<unsigned int, V>& table,
              const reference::Table& knownTable) {
    const unsigned int size = GVTestPeer::mask(table) + 1;
    const auto small = slotsSeen(GVTestPeer::smallSlots(table), reference::Table::smallSize + 1, knownTable.small);
    std::vector<reference::Slot> large;
    Id array = 0;
    const auto* const slots = GVTestPeer::slots(table);
    if (slots != GVTestPeer::smallSlots(table)) {
        array = RealMemory::idOf(slots, bytesBeforeAnArray());
        if (array > 0 &&
            blockOf(array).bytes == rawBlockHeaderBytes + bytesBeforeAnArray() + (size + 1) * sizeof *slots) {
            large = slotsSeen(slots, size + 1, knownTable.large);
        } else {
            lines.push_back(name + " has an array that is not its own");
        }
    }
    addTable(lines, name, {GVTestPeer::usedCount(table), GVTestPeer::fillCount(table), size, array, small, large});
}

void addFreeList(Lines& lines, const std::string& name, const std::vector<unsigned int>& tokens, std::size_t capacity,
                 Id storage) {
    std::string text = name + " of" + number(static_cast<long>(capacity)) + " in" + request(storage) + ":";
    for (const unsigned int token : tokens) {
        text += number(token);
    }
    lines.push_back(text);
}

void addFreeList(Lines& lines, const std::string& name, const reference::FreeList& list) {
    addFreeList(lines, name, list.tokens, list.capacity, list.storage.id());
}
void addFreeList(Lines& lines, const std::string& name, const Real::Tokens& list) {
    addFreeList(lines, name, {list.begin(), list.end()}, list.capacity(), RealMemory::idOf(list.data()));
}

void addPool(Lines& lines, const std::string& name, const reference::Pool* pool, const reference::Pool*) {
    if (pool == nullptr) {
        return;
    }
    lines.push_back(name + request(pool->self) + number(pool->initial) + number(pool->bytes) + request(pool->handle) +
                    number(pool->useMutex));
    addTable(lines, name + ".memoryPool", pool->table, pool->table);
    addFreeList(lines, name + ".availableTokens", pool->freeList);
}
void addPool(Lines& lines, const std::string& name, Gilvane::GVMemoryPool* pool, const reference::Pool* knownPool) {
    if (pool == nullptr || knownPool == nullptr) {
        if ((pool == nullptr) != (knownPool == nullptr)) {
            lines.push_back(name + (pool == nullptr ? " is missing" : " should not be there"));
        }
        return;
    }
    lines.push_back(name + request(RealMemory::idOf(pool)) + number(GVTestPeer::initialNumberOfObjects(*pool)) +
                    number(GVTestPeer::bytesInEachObject(*pool)) +
                    request(RealMemory::idOf(GVTestPeer::mutexHandle(*pool))) +
                    number(GVTestPeer::useMutexHandle(*pool)));
    addTable(lines, name + ".memoryPool", GVTestPeer::table(*pool), knownPool->table);
    addFreeList(lines, name + ".availableTokens", GVTestPeer::freeTokens(*pool));
}

template <typename T>
void addPointer(Lines& lines, const std::string& name, const std::optional<reference::Pointer<T>>& pointer) {
    if (pointer) {
        const auto& fields = pointer->fields;
        lines.push_back(name + request(fields.object) + request(fields.count) + request(fields.flag) +
                        request(fields.handle));
    }
}
template <typename T>
void addPointer(Lines& lines, const std::string& name, std::optional<Gilvane::GVSmartPointer<T>>& pointer) {
    if (pointer) {
        lines.push_back(name + request(RealMemory::idOf(GVTestPeer::object(*pointer))) +
                        request(RealMemory::idOf(GVTestPeer::refCount(*pointer))) +
                        request(RealMemory::idOf(GVTestPeer::ownObject(*pointer))) +
                        request(RealMemory::idOf(GVTestPeer::lock(*pointer))));
    }
}

// The ledger: what is live, with its size and whose header word it has.
void addLedger(Lines& lines, const Books& books, bool readHeaders) {
    for (std::size_t index = 0; index < books.blocks.size(); ++index) {
        const Books::Block& block = books.blocks[index];
        if (!block.live) {
            continue;
        }
        int header = block.hooks;
        if (readHeaders) {
            Gilvane::GVDeallocatorFunction function = nullptr;
            std::memcpy(&function, block.start, sizeof function);
            header = function == &giveBackOfTheState       ? hooksOfTheState
                     : function == &giveBackOfTheOperation ? hooksOfTheOperation
                                                           : 0;
        }
        lines.push_back("live" + request(static_cast<Id>(index) + 1) + number(block.bytes) + " header" +
                        number(header));
    }
}

/// @param known  the reference's actors, for either side
template <typename Side>
void addActors(Lines& lines, Actors<Side>& actors, Actors<Model>& known) {
    const auto poolOf = [](auto& pointer) { return pointer ? pointer->get() : nullptr; };
    addPool(lines, "pool", actors.pool, known.pool);
    addPool(lines, "other", actors.other, known.other);
    addPool(lines, "copy", actors.copy, known.copy);
    addPointer(lines, "pointer", actors.pointer);
    addPointer(lines, "sharer", actors.sharer);
    addPointer(lines, "deep", actors.deep);
    addPool(lines, "pointer's pool", poolOf(actors.pointer), poolOf(known.pointer));
    addPool(lines, "deep's pool", poolOf(actors.deep), poolOf(known.deep));
    addPointer(lines, "plain", actors.plainPointer);
    addPointer(lines, "plain copy", actors.plainCopy);
    if (actors.table && known.table) {
        addTable(lines, "table", *actors.table, *known.table);
    }
    if (actors.secondTable && known.secondTable) {
        addTable(lines, "second table", *actors.secondTable, *known.secondTable);
    }
    if (actors.tokens) {
        addFreeList(lines, "tokens", *actors.tokens);
    }
}

} // namespace

Lines stateOf(Actors<Model>& actors) {
    Lines lines = {"next token" + number(reference::nextToken)};
    for (const auto& [id, handle] : reference::handles) {
        lines.push_back("handle" + request(id) + (handle.locked ? " locked" : " free"));
    }
    for (const auto& [id, block] : reference::blocks) {
        lines.push_back("block" + request(id) + number(block.token) + number(block.length) + request(block.bytes) +
                        " untouched");
    }
    for (const auto& [id, count] : reference::counts) {
        lines.push_back("count" + request(id) + number(count));
    }
    for (const auto& [id, flag] : reference::flags) {
        lines.push_back("flag" + request(id) + number(flag));
    }
    addActors(lines, actors, actors);
    addLedger(lines, Model::ledger().books, false);
    return lines;
}

Lines stateOf(Actors<Real>& actors, Actors<Model>& known) {
    Lines lines = {"next token" + number(GVTestPeer::nextToken())};
    for (const auto& handle : reference::handles) {
        const void* const address = RealMemory::userBytes(handle.first);
        const auto* const real = static_cast<const Gilvane::RecordingMutexHandle*>(address);
        lines.push_back("handle" + request(handle.first) +
                        (real == nullptr ? " gone" : (real->isLocked() ? " locked" : " free")));
    }
    for (const auto& block : reference::blocks) {
        auto* const real = static_cast<Gilvane::GVMemoryPoolObject*>(RealMemory::userBytes(block.first));
        if (real == nullptr) {
            lines.push_back("block" + request(block.first) + " gone");
            continue;
        }
        const Id bytes = RealMemory::idOf(real->getBytes());
        const bool untouched =
            bytes == 0 || (bytes > 0 && blockOf(bytes).bytes == real->getLength() + rawBlockHeaderBytes &&
                           isFilledWith(freshByte, real->getBytes(), real->getLength()));
        lines.push_back("block" + request(block.first) + number(real->getToken()) + number(real->getLength()) +
                        request(bytes) + (untouched ? " untouched" : " touched"));
    }
    for (const auto& count : reference::counts) {
        const auto* const real = static_cast<const unsigned int*>(RealMemory::userBytes(count.first));
        lines.push_back("count" + request(count.first) + (real == nullptr ? " gone" : number(*real)));
    }
    for (const auto& flag : reference::flags) {
        const auto* const real = static_cast<const bool*>(RealMemory::userBytes(flag.first));
        lines.push_back("flag" + request(flag.first) + (real == nullptr ? " gone" : number(*real)));
    }
    addActors(lines, actors, known);
    addLedger(lines, RealMemory::books(), true);
    return lines;
}

} // namespace Proof
