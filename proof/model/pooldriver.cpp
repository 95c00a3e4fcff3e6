#include "pooldriver.h"

#include "arena.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sstream>
#include <utility>

namespace Gilvane::driver {

namespace {

constexpr const char* callNames[] = {"init",       "initWithNumberOfObjects",
                                     "initSized",  "borrow",
                                     "write",      "release",
                                     "removeFree", "resizeTo",
                                     "growBy",     "shrinkBy",
                                     "makePool",   "setBytes",
                                     "setDefault", "copyConstruct",
                                     "assign",     "moveConstruct",
                                     "moveAssign", "reset",
                                     "decrement",  "deepCopy",
                                     "alias",      "fromNull",
                                     "deleteData"};
static_assert(std::size(callNames) == static_cast<std::size_t>(PoolCall::numberOfCalls));

constexpr int numberOfPointers = 4;

// Enters what the library has for a number of the model; what was entered before must be the same.
template <typename T>
void identify(const char* what, std::vector<T*>& known, int number, T* library) {
    const auto index = static_cast<unsigned int>(number);
    if (known.size() <= index) {
        known.resize(index + 1, nullptr);
    }
    if (known[index] == nullptr) {
        // No address is given out twice, so that two numbers never have the same.
        if (library == nullptr || std::find(known.begin(), known.end(), library) != known.end()) {
            throw Difference{std::string(what) + " is not a new one"};
        }
        known[index] = library;
    } else if (known[index] != library) {
        throw Difference{std::string(what) + " is not the one that it was or should be"};
    }
}

std::string address(const void* pointer) {
    if (pointer == nullptr) {
        return "0";
    }
    std::string digits;
    for (auto rest = reinterpret_cast<std::uintptr_t>(pointer); rest != 0; rest /= 16) {
        digits.insert(digits.begin(), "0123456789abcdef"[rest % 16]);
    }
    return "0x" + digits;
}

template <typename T>
std::string dumpOf(const T& printable) {
    std::ostringstream stream;
    stream << printable;
    return stream.str();
}

} // namespace

PoolDriver::PoolDriver(unsigned char scene) : theWorld(firstTokens[scene % std::size(firstTokens)]) {
    GVTestPeer::nextToken() = theWorld.nextToken;
    GVMemoryPool::defaultNumberOfObjects = theWorld.defaultNumber;
    for (auto& storage : theStorage) {
        ::new (static_cast<void*>(storage)) Pointer();
    }
}

GVSmartPointer<GVMemoryPool>& PoolDriver::pointer(int number) {
    return *std::launder(reinterpret_cast<Pointer*>(theStorage[number]));
}

// Puts an empty pointer in a pointer's place, whose destructor is not run.
void PoolDriver::forget(int number) { ::new (static_cast<void*>(theStorage[number])) Pointer(); }

std::optional<unsigned int> PoolDriver::chooseToken(unsigned char b, const model::Pool& pool) const {
    const unsigned int rank = b & 0x3fU;
    const std::vector<unsigned int> keys = pool.table.keys();
    const std::vector<unsigned int>& list = (b & 0xc0U) == ofTable  ? keys
                                            : (b & 0xc0U) == ofFree ? pool.freeTokens
                                                                    : theLentTokens;
    if ((b & 0xc0U) == unknown) {
        return 0x40000000 + rank;
    }
    if (list.empty()) {
        return std::nullopt;
    }
    const auto position = static_cast<unsigned int>(rank % list.size());
    return (b & 0xc0U) == ofTable ? list[position] : list[list.size() - 1 - position];
}

std::optional<PoolDriver::Call> PoolDriver::decode(Operation operation) {
    const auto what = static_cast<PoolCall>(operation.code % static_cast<unsigned int>(PoolCall::numberOfCalls));
    Call call{what, operation.a & 3,        (operation.a >> 2) & 3, operation.b,
              0,    (operation.b & 1) != 0, (operation.b & 2) != 0};
    const bool hasShare = theWorld.shareNumber(call.pointer) != model::none;
    const bool hasPool = hasShare && theWorld.poolOf(call.pointer).alive;
    const auto needing = [&call](bool condition) { return condition ? std::optional<Call>(call) : std::nullopt; };
    switch (what) {
    case PoolCall::initCount:
        call.number = operation.b / 2U % 16;
        return call;
    case PoolCall::initSized:
        call.number = operation.b / 2U % 16;
        call.bytes = blockSizes[operation.b / 32];
        return call;
    case PoolCall::write:
    case PoolCall::release:
    case PoolCall::removeFree: {
        if (!hasPool) {
            return std::nullopt;
        }
        const std::optional<unsigned int> token = chooseToken(operation.b, theWorld.poolOf(call.pointer));
        call.number = token.value_or(0);
        return needing(token.has_value());
    }
    case PoolCall::resizeTo:
        call.number = operation.b % 48U;
        return needing(hasPool);
    case PoolCall::growBy:
    case PoolCall::shrinkBy: {
        if (!hasPool) {
            return std::nullopt;
        }
        const unsigned int count = theWorld.poolOf(call.pointer).table.used;
        const unsigned int step = operation.b % 16U + 1;
        call.number = what == PoolCall::growBy ? count + step : count - step;
        return needing(what == PoolCall::growBy || step <= count);
    }
    case PoolCall::makePool:
        call.number = operation.b % 24U;
        return needing(hasPool);
    case PoolCall::setBytes:
        call.bytes = blockSizes[operation.b % std::size(blockSizes)];
        return needing(hasPool);
    case PoolCall::setDefault:
        call.number = operation.b % 10U;
        return call;
    case PoolCall::copyConstruct:
    case PoolCall::moveConstruct:
        return needing(call.pointer != call.other);
    case PoolCall::borrow:
    case PoolCall::deepCopy:
    case PoolCall::alias:
        return needing(hasPool);
    default:
        return call;
    }
}

model::Outcome PoolDriver::makeOnModel(model::World& world, const Call& call, unsigned char content) {
    const auto pool = [&world, &call]() -> model::Pool& { return world.poolOf(call.pointer); };
    switch (call.what) {
    case PoolCall::init:
        world.take(call.pointer, world.newShare(world.newPool(world.defaultNumber, 0, call.flag), true, true));
        return {};
    case PoolCall::initCount:
        world.take(call.pointer, world.newShare(world.newPool(call.number, 0, call.flag), true, true));
        return {};
    case PoolCall::initSized: {
        const int made = world.newPool(call.number, call.bytes, call.flag);
        world.makePool(world.pools.back(), call.number);
        world.take(call.pointer, world.newShare(made, true, true));
        return {};
    }
    case PoolCall::borrow:
        return world.borrow(pool());
    case PoolCall::write: {
        model::Block& block = world.memoryOf(pool(), call.number);
        block.content = content;
        return {static_cast<unsigned int>(&block - world.blocks.data()), {}};
    }
    case PoolCall::release:
        world.release(pool(), call.number);
        return {};
    case PoolCall::removeFree:
        world.removeFree(pool(), call.number);
        return {};
    case PoolCall::resizeTo:
    case PoolCall::growBy:
    case PoolCall::shrinkBy:
        world.resizePool(pool(), call.number);
        return {};
    case PoolCall::makePool:
        world.makePool(pool(), call.number);
        return {};
    case PoolCall::setBytes:
        return world.setBytes(pool(), call.bytes);
    case PoolCall::setDefault:
        world.defaultNumber = call.number;
        return {};
    case PoolCall::copyConstruct:
    case PoolCall::assign:
        world.assign(call.pointer, call.other);
        return {};
    case PoolCall::moveConstruct:
    case PoolCall::moveAssign:
        world.moveAssign(call.pointer, call.other);
        return {};
    case PoolCall::reset:
    case PoolCall::fromNull:
        world.take(call.pointer, model::none);
        return {};
    case PoolCall::decrement:
        // A pointer that gave up its share and keeps its fields must not be destroyed: it is forgotten.
        if (!world.decrement(call.pointer)) {
            world.shareNumber(call.pointer) = model::none;
        }
        return {};
    case PoolCall::deepCopy:
        world.take(call.other, world.deepCopy(call.pointer));
        return {};
    case PoolCall::alias:
        world.take(call.other, world.newShare(world.shareOf(call.pointer).pool, call.owning, call.flag));
        return {};
    default:
        world.deleteData(call.pointer);
        return {};
    }
}

model::Outcome PoolDriver::makeOnLibrary(const Call& call, const model::Outcome& expected, unsigned char content) {
    Pointer& target = pointer(call.pointer);
    Pointer& other = pointer(call.other);
    switch (call.what) {
    case PoolCall::init:
        target = GVMemoryPool::init(call.flag);
        return {};
    case PoolCall::initCount:
        target = GVMemoryPool::initWithNumberOfObjects(call.number, call.flag);
        return {};
    case PoolCall::initSized:
        target = GVMemoryPool::initWithNumberOfObjectsAndSize(call.number, call.bytes, call.flag);
        return {};
    case PoolCall::borrow:
        return {target->getTokenForFreeMemoryObject(), {}};
    case PoolCall::write: {
        GVMemoryPoolObject* const block = theBlocks[*expected.number];
        void* const bytes = target->getMemoryForToken(call.number);
        same("the memory of a token", bytes, block->getBytes());
        if (bytes != nullptr) {
            std::memset(bytes, content, block->getLength());
        }
        return expected;
    }
    case PoolCall::release:
        target->releaseObject(call.number);
        return {};
    case PoolCall::removeFree:
        target->removeTokenFromAvailableList(call.number);
        return {};
    case PoolCall::resizeTo:
    case PoolCall::growBy:
    case PoolCall::shrinkBy:
        target->resizePool(call.number);
        return {};
    case PoolCall::makePool:
        target->makePool(call.number);
        return {};
    case PoolCall::setBytes:
        try {
            target->setNumberOfBytesInPoolObject(call.bytes);
            return {};
        } catch (const GVException& exception) {
            same("the exception's file", std::string(exception.getFile()),
                 std::string("libsrc/utilities/gvmemorypool"));
            same<int>("the exception's kind", exception.getKind(), 1);
            same("the exception's code", exception.getCode(), 0);
            return {std::nullopt, exception.getMessage()};
        }
    case PoolCall::setDefault:
        GVMemoryPool::defaultNumberOfObjects = call.number;
        return {};
    case PoolCall::copyConstruct: {
        Pointer copy(other);
        target.~Pointer();
        ::new (static_cast<void*>(theStorage[call.pointer])) Pointer(copy);
        return {};
    }
    case PoolCall::assign:
        target = other;
        return {};
    case PoolCall::moveConstruct: {
        Pointer moved(std::move(other));
        target.~Pointer();
        ::new (static_cast<void*>(theStorage[call.pointer])) Pointer(std::move(moved));
        return {};
    }
    case PoolCall::moveAssign:
        target = std::move(other);
        return {};
    case PoolCall::reset:
        target.~Pointer();
        ::new (static_cast<void*>(theStorage[call.pointer])) Pointer();
        return {};
    case PoolCall::fromNull:
        target.~Pointer();
        ::new (static_cast<void*>(theStorage[call.pointer])) Pointer(nullptr, call.owning, call.flag);
        return {};
    case PoolCall::decrement:
        decrementOnLibrary(call.pointer);
        return {};
    case PoolCall::deepCopy:
        other = target.deepCopy();
        return {};
    case PoolCall::alias:
        other = Pointer(target.get(), call.owning, call.flag);
        return {};
    default:
        target.deleteData();
        return {};
    }
}

// The last share leaves the pointer empty; any other leaves the fields, and the pointer is then forgotten.
void PoolDriver::decrementOnLibrary(int number) {
    Pointer& target = pointer(number);
    const Pointer* const before = &target;
    GVMemoryPool* const object = GVTestPeer::object(target);
    unsigned int* const count = GVTestPeer::refCount(target);
    bool* const flag = GVTestPeer::ownObject(target);
    GVMutexHandle* const lock = GVTestPeer::lock(target);
    const bool last = count == nullptr || *count == 1;
    target.decrementRefCount();
    same("the pointer", before, static_cast<const Pointer*>(&target));
    same("the object after a decrement", GVTestPeer::object(target), last ? nullptr : object);
    same("the count cell after a decrement", GVTestPeer::refCount(target), last ? nullptr : count);
    same("the flag cell after a decrement", GVTestPeer::ownObject(target), last ? nullptr : flag);
    same("the lock after a decrement", GVTestPeer::lock(target), last ? nullptr : lock);
    forget(number);
}

// Makes a call on both sides if it has an outcome.
bool PoolDriver::commit(const Call& call) {
    const auto content = static_cast<unsigned char>(theCalls.size() + 1);
    model::World next = theWorld;
    model::Outcome expected;
    try {
        expected = makeOnModel(next, call, content);
    } catch (const model::NotDriven&) {
        return false;
    }
    theCalls.push_back(call);
    theWorld = std::move(next);
    const model::Outcome actual = makeOnLibrary(call, expected, content);
    same("the message of the exception", actual.refusal, expected.refusal);
    same("whether something is returned", actual.number.has_value(), expected.number.has_value());
    same("what is returned", actual.number.value_or(0), expected.number.value_or(0));
    if (call.what == PoolCall::borrow) {
        theLentTokens.push_back(*expected.number);
    }
    compareFields();
    return true;
}

bool PoolDriver::make(Operation operation) {
    const std::optional<Call> call = decode(operation);
    return call && commit(*call);
}

void PoolDriver::finish() {
    for (int number = 0; number < numberOfPointers; ++number) {
        if (!commit({PoolCall::reset, number, 0, 0, 0, false, false})) {
            theWorld.shareNumber(number) = model::none;
            forget(number);
        }
    }
}

// ---- Comparison --------------------------------------------------------------------------------------------------

void PoolDriver::compareFields() {
    same("the next token", GVTestPeer::nextToken(), theWorld.nextToken);
    same("the default number of blocks", GVMemoryPool::defaultNumberOfObjects, theWorld.defaultNumber);
    for (int number = 0; number < numberOfPointers; ++number) {
        comparePointer(number);
    }
    for (unsigned int number = 0; number < theWorld.pools.size(); ++number) {
        if (isKnown(number) && theWorld.pools[number].alive) {
            comparePool(number);
        }
    }
    compareBlocks();
    for (unsigned int number = 0; number < theHandles.size(); ++number) {
        if (theHandles[number] != nullptr && theWorld.handles[number].alive) {
            same("whether a lock is free", theHandles[number]->tryLock(), true);
            theHandles[number]->unlock();
        }
    }
    same<std::size_t>("live raw blocks", arena::liveCount(), theWorld.rawBlocks());
}

void PoolDriver::comparePointer(int number) {
    Pointer& library = pointer(number);
    if (theWorld.shareNumber(number) == model::none) {
        same("the object of an empty pointer", GVTestPeer::object(library), static_cast<GVMemoryPool*>(nullptr));
        same("the count of an empty pointer", GVTestPeer::refCount(library), static_cast<unsigned int*>(nullptr));
        same("the flag of an empty pointer", GVTestPeer::ownObject(library), static_cast<bool*>(nullptr));
        same("the lock of an empty pointer", GVTestPeer::lock(library), static_cast<GVMutexHandle*>(nullptr));
        same("the number of sharers of nothing", library.getRefCount(), 0U);
        return;
    }
    const model::Share& share = theWorld.shareOf(number);
    identify("a pointer's object", thePools, share.pool, GVTestPeer::object(library));
    identify("a pointer's count cell", theCounts, theWorld.shareNumber(number), GVTestPeer::refCount(library));
    identify("a pointer's flag cell", theFlags, theWorld.shareNumber(number), GVTestPeer::ownObject(library));
    same("a pointer's count", *GVTestPeer::refCount(library), share.count);
    same("a pointer's flag", *GVTestPeer::ownObject(library), share.own);
    same("whether a pointer has a lock", GVTestPeer::lock(library) != nullptr, share.handle != model::none);
    if (share.handle != model::none) {
        identify("a pointer's lock", theHandles, share.handle, GVTestPeer::lock(library));
    }
    same("the number of sharers", library.getRefCount(), share.count);
}

void PoolDriver::comparePool(unsigned int number) {
    const model::Pool& pool = theWorld.pools[number];
    GVMemoryPool& library = *thePools[number];
    compareTable(pool, GVTestPeer::table(library));
    const auto& free = GVTestPeer::freeTokens(library);
    same("free tokens", free.size(), pool.freeTokens.size());
    for (std::size_t index = 0; index < free.size(); ++index) {
        same("a free token", free[index], pool.freeTokens[index]);
    }
    same<std::size_t>("the capacity of the free list", free.capacity(), pool.freeCapacity);
    same("the initial number of blocks", GVTestPeer::initialNumberOfObjects(library), pool.initial);
    same("bytes in each block", GVTestPeer::bytesInEachObject(library), pool.bytes);
    same("whether the pool locks", GVTestPeer::useMutexHandle(library), pool.useMutex);
    same("whether the pool has a lock", GVTestPeer::mutexHandle(library) != nullptr, pool.handle != model::none);
    if (pool.handle != model::none) {
        identify("a pool's lock", theHandles, pool.handle, GVTestPeer::mutexHandle(library));
    }
}

void PoolDriver::compareTable(const model::Pool& pool, TokenTable& table) {
    same("occupied slots", GVTestPeer::usedCount(table), pool.table.used);
    same("occupied and deleted slots", GVTestPeer::fillCount(table), pool.table.fill);
    same("the mask", GVTestPeer::mask(table), pool.table.size - 1);
    same("whether the slots are embedded", GVTestPeer::slots(table) == GVTestPeer::smallSlots(table),
         pool.table.size == 8);
    const auto compareSlots = [this](const std::vector<model::Slot<model::BlockValue>>& slots,
                                     const TokenTable::Entry* library) {
        for (const model::Slot<model::BlockValue>& slot : slots) {
            same("a slot's state", library->theState, slot.state);
            same("a slot's key", slot.key ? library->theKey : 0, slot.key.value_or(0));
            same("a slot's hash", slot.hash ? library->theHash : 0, slot.hash.value_or(0));
            if (slot.value && *slot.value != 0) {
                identify("a block", theBlocks, static_cast<int>(*slot.value - 1), library->theValue);
            } else if (slot.value) {
                same("a null block", library->theValue, static_cast<GVMemoryPoolObject*>(nullptr));
            }
            ++library;
        }
    };
    compareSlots(pool.table.embedded, GVTestPeer::smallSlots(table));
    compareSlots(pool.table.heap, GVTestPeer::slots(table));
}

void PoolDriver::compareBlocks() {
    for (unsigned int number = 0; number < theBlocks.size(); ++number) {
        const model::Block& block = theWorld.blocks[number];
        if (theBlocks[number] == nullptr || !block.alive) {
            continue;
        }
        GVMemoryPoolObject& library = *theBlocks[number];
        same("a block's token", library.getToken(), block.token);
        same("a block's length", library.getLength(), block.length);
        same("whether a block has bytes", library.getBytes() != nullptr, block.hasBytes);
        if (block.content) {
            const auto* const bytes = static_cast<const unsigned char*>(library.getBytes());
            for (unsigned int index = 0; index < block.length; ++index) {
                same("a byte of a block", bytes[index], *block.content);
            }
        }
    }
}

void PoolDriver::compareViews() {
    for (unsigned int number = 0; number < theWorld.pools.size(); ++number) {
        if (isKnown(number) && theWorld.pools[number].alive) {
            comparePoolViews(number);
        }
    }
    compareEquality();
    for (int number = 0; number < numberOfPointers; ++number) {
        if (theWorld.shareNumber(number) == model::none || theWorld.poolOf(number).alive) {
            same("the text of a pointer", dumpOf(pointer(number)), pointerText(number));
        }
    }
    for (unsigned int number = 0; number < theBlocks.size(); ++number) {
        const model::Block& block = theWorld.blocks[number];
        if (theBlocks[number] != nullptr && block.alive) {
            same("the text of a block", dumpOf(*theBlocks[number]),
                 "<GVMemoryPoolObject><theBytes>" + address(theBlocks[number]->getBytes()) + "</theBytes><theLength>" +
                     std::to_string(block.length) + "</theLength><theToken>" + std::to_string(block.token) +
                     "</theToken></GVMemoryPoolObject>");
        }
    }
}

void PoolDriver::comparePoolViews(unsigned int number) {
    const model::Pool& pool = theWorld.pools[number];
    GVMemoryPool& library = *thePools[number];
    TokenTable& table = GVTestPeer::table(library);
    try {
        const unsigned int inUse = theWorld.inUse(pool);
        same("blocks in use", library.numberOfObjectsInPoolInUse(), inUse);
    } catch (const model::NotDriven&) {
    }
    const std::vector<unsigned int> keys = pool.table.keys();
    const auto listed = table.get_keys();
    same("the keys of a table", std::vector<unsigned int>(listed.begin(), listed.end()) == keys, true);
    std::vector<unsigned int> searched = keys;
    searched.insert(searched.end(), pool.freeTokens.begin(), pool.freeTokens.end());
    searched.push_back(theWorld.nextToken);
    for (const unsigned int token : searched) {
        const std::optional<unsigned int> index = pool.table.get(token);
        const TokenTable::Entry* const entry = table.get(token);
        same("whether a token is found", entry != nullptr, index.has_value());
        if (index) {
            same<std::ptrdiff_t>("where a token is found", entry - GVTestPeer::slots(table), *index);
        }
    }
    same("the text of a pool", dumpOf(library), poolText(pool));
}

void PoolDriver::compareEquality() {
    for (unsigned int one = 0; one < theWorld.pools.size(); ++one) {
        for (unsigned int other = 0; other < theWorld.pools.size(); ++other) {
            if (isKnown(one) && isKnown(other) && theWorld.pools[one].alive && theWorld.pools[other].alive) {
                const bool equal = theWorld.equal(theWorld.pools[one], theWorld.pools[other]);
                same("whether two pools are equal", *thePools[one] == *thePools[other], equal);
                same("whether two pools are unequal", *thePools[one] != *thePools[other], !equal);
            }
        }
    }
}

std::string PoolDriver::poolText(const model::Pool& pool) const {
    const auto blockText = [this](model::BlockValue value) {
        return value == 0 ? std::string("0") : address(theBlocks[value - 1]);
    };
    const void* const handle =
        pool.handle == model::none ? nullptr : theHandles[static_cast<unsigned int>(pool.handle)];
    return "<GVMemoryPool><memoryPool>" + pool.table.dump(blockText) + "</memoryPool><bytesInEachObject>" +
           std::to_string(pool.bytes) + "</bytesInEachObject><theMutexHandle>" + address(handle) +
           "</theMutexHandle><useMutexHandle>" + (pool.useMutex ? "1" : "0") + "</useMutexHandle></GVMemoryPool>";
}

std::string PoolDriver::pointerText(int number) const {
    const int shareNumber = theWorld.pointers[static_cast<unsigned int>(number)];
    if (shareNumber == model::none) {
        return "<GVSmartPointer></GVSmartPointer>";
    }
    const model::Share& share = theWorld.shares[static_cast<unsigned int>(shareNumber)];
    const auto pool = static_cast<unsigned int>(share.pool);
    std::string text = "<GVSmartPointer object=\"" + address(thePools[pool]) + "\" refCount=\"" +
                       std::to_string(share.count) + "\" ownObject=\"" + (share.own ? "1" : "0") + "\"";
    if (share.handle != model::none) {
        text += " lock=\"" + address(theHandles[static_cast<unsigned int>(share.handle)]) + "\"";
    }
    return text + ">" + poolText(theWorld.pools[pool]) + "</GVSmartPointer>";
}

std::string PoolDriver::calls() const {
    std::string text;
    for (const Call& call : theCalls) {
        text += std::string("  ") + callNames[static_cast<unsigned int>(call.what)] + " pointer " +
                std::to_string(call.pointer) + ", other " + std::to_string(call.other) + ", number " +
                std::to_string(call.number) + ", bytes " + std::to_string(call.bytes) + (call.flag ? ", lock" : "") +
                (call.owning ? ", owning" : "") + "\n";
    }
    return text;
}

} // namespace Gilvane::driver
