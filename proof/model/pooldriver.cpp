#include "pooldriver.h"

#include <array>
#include <cstdint>
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
                                     "deleteData", "nothing",
                                     "forget"};
static_assert(std::size(callNames) == static_cast<std::size_t>(PoolCall::forget) + 1);

constexpr int numberOfPointers = 4;

/// Four pointers of the library's.
struct LibrarySide {
    using Pool = GVMemoryPool;
    using Pointer = GVSmartPointer<GVMemoryPool>;

    LibrarySide() {
        for (int number = 0; number < numberOfPointers; ++number) {
            forget(number);
        }
    }
    Pointer& pointer(int number) { return *std::launder(reinterpret_cast<Pointer*>(storage[number])); }

    /// Puts an empty pointer in a pointer's place, whose destructor is not run.
    void forget(int number) { ::new (static_cast<void*>(storage[number])) Pointer(); }
    /// Ends a pointer's life and begins a new one there.
    template <typename... Arguments>
    void construct(int number, Arguments&&... arguments) {
        pointer(number).~Pointer();
        ::new (static_cast<void*>(storage[number])) Pointer(std::forward<Arguments>(arguments)...);
    }

    static Pointer init(bool locked) { return Pool::init(locked); }
    static Pointer init(unsigned int blocks, bool locked) { return Pool::initWithNumberOfObjects(blocks, locked); }
    static Pointer init(unsigned int blocks, unsigned int bytes, bool locked) {
        return Pool::initWithNumberOfObjectsAndSize(blocks, bytes, locked);
    }
    static Pointer deepCopy(Pointer& pointer) { return pointer.deepCopy(); }

    /// @returns the request that the bytes came from
    static unsigned int write(Pool& pool, unsigned int token, unsigned char content) {
        void* const bytes = pool.getMemoryForToken(token);
        if (bytes != nullptr) {
            std::memset(bytes, content, GVTestPeer::table(pool)[token]->getLength());
        }
        return static_cast<unsigned int>(arena::requestOf(bytes));
    }

    template <typename Function>
    static std::string refusalOf(Function function) {
        try {
            function();
        } catch (const GVException& exception) {
            return "GVException " + std::to_string(exception.getKind()) + " " + std::to_string(exception.getCode()) +
                   " " + exception.getFile() + ": " + exception.getMessage();
        }
        return {};
    }

    alignas(Pointer) unsigned char storage[numberOfPointers][sizeof(Pointer)];
};

/// Four of the reference's.
struct ReferenceSide {
    using Pool = reference::Pool;
    using Pointer = reference::Pointer<Pool>;

    ReferenceSide() = default;
    ReferenceSide(const ReferenceSide&) = delete;
    ReferenceSide& operator=(const ReferenceSide&) = delete;
    ~ReferenceSide() {
        for (Pointer& pointer : pointers) {
            pointer.forget();
        }
    }
    Pointer& pointer(int number) { return pointers[static_cast<std::size_t>(number)]; }
    void forget(int number) { pointer(number).forget(); }
    template <typename... Arguments>
    void construct(int number, Arguments&&... arguments) {
        pointer(number) = Pointer(std::forward<Arguments>(arguments)...);
    }

    template <typename... Arguments>
    static Pointer init(Arguments... arguments) {
        return reference::share(Pool::make(arguments...));
    }
    static Pointer deepCopy(const Pointer& pointer) { return reference::deepCopy(pointer); }

    static unsigned int write(Pool& pool, unsigned int token, unsigned char content) {
        reference::Block& block = pool.blockOf(token);
        block.content = content;
        return static_cast<unsigned int>(block.bytes);
    }

    template <typename Function>
    static std::string refusalOf(Function function) {
        try {
            function();
        } catch (const reference::Exception& exception) {
            return exception.text;
        }
        return {};
    }

    std::array<Pointer, numberOfPointers> pointers;
};

struct Call {
    PoolCall what;
    int pointer;
    int other = 0;
    unsigned int number = 0; // blocks, or a token
    unsigned int bytes = 0;
    bool flag = false;
    bool owning = false;
    unsigned char content = 0; // what is written

    template <typename Side>
    Outcome make(Side& side) const;

    std::string text() const {
        return std::string(callNames[static_cast<unsigned int>(what)]) + " pointer " + std::to_string(pointer) +
               ", other " + std::to_string(other) + ", number " + std::to_string(number) + ", bytes " +
               std::to_string(bytes) + (flag ? ", lock" : "") + (owning ? ", owning" : "");
    }
};

template <typename Side>
Outcome Call::make(Side& side) const {
    using Pointer = typename Side::Pointer;
    Pointer& target = side.pointer(pointer);
    Pointer& second = side.pointer(other);
    const auto pool = [&target]() -> typename Side::Pool& { return *target.get(); };
    switch (what) {
    case PoolCall::init:
        target = Side::init(flag);
        break;
    case PoolCall::initCount:
        target = Side::init(number, flag);
        break;
    case PoolCall::initSized:
        target = Side::init(number, bytes, flag);
        break;
    case PoolCall::borrow:
        return {pool().getTokenForFreeMemoryObject()};
    case PoolCall::write:
        return {Side::write(pool(), number, content)};
    case PoolCall::release:
        pool().releaseObject(number);
        break;
    case PoolCall::removeFree:
        pool().removeTokenFromAvailableList(number);
        break;
    case PoolCall::resizeTo:
    case PoolCall::growBy:
    case PoolCall::shrinkBy:
        pool().resizePool(number);
        break;
    case PoolCall::makePool:
        pool().makePool(number);
        break;
    case PoolCall::setBytes:
        return {std::nullopt, Side::refusalOf([&] { pool().setNumberOfBytesInPoolObject(bytes); })};
    case PoolCall::setDefault:
        Side::Pool::defaultNumberOfObjects = number;
        break;
    case PoolCall::copyConstruct:
        side.construct(pointer, second);
        break;
    case PoolCall::assign:
        target = second;
        break;
    case PoolCall::moveConstruct:
        side.construct(pointer, std::move(second));
        break;
    case PoolCall::moveAssign:
        target = std::move(second);
        break;
    case PoolCall::reset:
        side.construct(pointer);
        break;
    case PoolCall::fromNull:
        side.construct(pointer, nullptr, owning, flag);
        break;
    case PoolCall::decrement:
        target.decrementRefCount();
        break;
    case PoolCall::deepCopy:
        second = Side::deepCopy(target);
        break;
    case PoolCall::alias:
        second = Pointer(target.get(), owning, flag);
        break;
    case PoolCall::forget:
        side.forget(pointer);
        break;
    default:
        target.deleteData();
    }
    return {};
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

std::string address(reference::Id id) { return address(arena::userBytes(id)); }

template <typename T>
std::string dumpOf(const T& printable) {
    std::ostringstream stream;
    stream << printable;
    return stream.str();
}

template <typename T>
T& inLibrary(reference::Id id) {
    return *static_cast<T*>(arena::userBytes(id));
}

std::string poolText(const reference::Pool& pool) {
    return "<GVMemoryPool><memoryPool>" + pool.table.dump([](reference::Id id) { return address(id); }) +
           "</memoryPool><bytesInEachObject>" + std::to_string(pool.bytes) + "</bytesInEachObject><theMutexHandle>" +
           address(pool.handle) + "</theMutexHandle><useMutexHandle>" + (pool.useMutex ? "1" : "0") +
           "</useMutexHandle></GVMemoryPool>";
}

std::string pointerText(const ReferenceSide::Pointer& pointer) {
    const auto& fields = pointer.fields;
    if (fields.object == 0) {
        return "<GVSmartPointer></GVSmartPointer>";
    }
    std::string text = "<GVSmartPointer object=\"" + address(fields.object) + "\" refCount=\"" +
                       std::to_string(reference::counts[fields.count]) + "\" ownObject=\"" +
                       (reference::flags[fields.flag] ? "1" : "0") + "\"";
    if (fields.handle != 0) {
        text += " lock=\"" + address(fields.handle) + "\"";
    }
    return text + ">" + poolText(*pointer.get()) + "</GVSmartPointer>";
}

std::string blockText(const reference::Block& block) {
    return "<GVMemoryPoolObject><theBytes>" + address(block.bytes) + "</theBytes><theLength>" +
           std::to_string(block.length) + "</theLength><theToken>" + std::to_string(block.token) +
           "</theToken></GVMemoryPoolObject>";
}

class PoolDriver : public DriverOf<Call, LibrarySide, ReferenceSide> {
  public:
    explicit PoolDriver(unsigned char scene) : DriverOf(firstTokens[scene % std::size(firstTokens)]) {}

    bool make(Operation operation) override;
    void compareFields() override;
    void compareViews() override;
    void finish(Comparison comparison) override;

  private:
    bool hasPool(int number) const { return reference::pools.count(theReference->pointer(number).fields.object) != 0; }
    std::optional<Call> decode(Operation operation) const;
    std::optional<unsigned int> chooseToken(unsigned char b, const reference::Pool& pool) const;
    void comparePointer(int number);
    static void comparePool(GVMemoryPool& library, const reference::Pool& pool);
    static void compareBlock(GVMemoryPoolObject& library, const reference::Block& block);

    std::vector<unsigned int> theLentTokens;
};

std::optional<unsigned int> PoolDriver::chooseToken(unsigned char b, const reference::Pool& pool) const {
    const unsigned int rank = b & 0x3fU;
    const unsigned int choice = b & 0xc0U;
    if (choice == unknown) {
        return 0x40000000 + rank;
    }
    const std::vector<unsigned int> keys = choice == ofTable ? pool.table.keys() : std::vector<unsigned int>();
    const std::vector<unsigned int>& list = choice == ofTable  ? keys
                                            : choice == ofFree ? pool.freeList.tokens
                                                               : theLentTokens;
    if (list.empty()) {
        return std::nullopt;
    }
    const std::size_t position = rank % list.size();
    return choice == ofTable ? list[position] : list[list.size() - 1 - position];
}

std::optional<Call> PoolDriver::decode(Operation operation) const {
    const auto what = static_cast<PoolCall>(operation.code % static_cast<unsigned int>(PoolCall::numberOfCalls));
    Call call{what, operation.a & 3, (operation.a >> 2) & 3, operation.b};
    call.flag = (operation.b & 1) != 0;
    call.owning = (operation.b & 2) != 0;
    call.content = static_cast<unsigned char>(theCalls.size() + 1);
    const bool isAlive = hasPool(call.pointer);
    const auto needing = [&call](bool condition) { return condition ? std::optional<Call>(call) : std::nullopt; };
    const auto pool = [this, &call]() -> const reference::Pool& { return *theReference->pointer(call.pointer).get(); };
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
        if (!isAlive) {
            return std::nullopt;
        }
        const std::optional<unsigned int> token = chooseToken(operation.b, pool());
        call.number = token.value_or(0);
        return needing(token.has_value());
    }
    case PoolCall::resizeTo:
        call.number = operation.b % 48U;
        return needing(isAlive);
    case PoolCall::growBy:
    case PoolCall::shrinkBy: {
        if (!isAlive) {
            return std::nullopt;
        }
        const unsigned int count = pool().table.used;
        const unsigned int step = operation.b % 16U + 1;
        call.number = what == PoolCall::growBy ? count + step : count - step;
        return needing(what == PoolCall::growBy || step <= count);
    }
    case PoolCall::makePool:
        call.number = operation.b % 24U;
        return needing(isAlive);
    case PoolCall::setBytes:
        call.bytes = blockSizes[operation.b % std::size(blockSizes)];
        return needing(isAlive);
    case PoolCall::setDefault:
        call.number = operation.b % 10U;
        return call;
    case PoolCall::copyConstruct:
    case PoolCall::moveConstruct:
        return needing(call.pointer != call.other);
    case PoolCall::borrow:
    case PoolCall::deepCopy:
    case PoolCall::alias:
        return needing(isAlive);
    default:
        return call;
    }
}

bool PoolDriver::make(Operation operation) {
    const std::optional<Call> call = decode(operation);
    if (!call || !commit(*call)) {
        return false;
    }
    if (call->what == PoolCall::borrow) {
        theLentTokens.push_back(*theLast.number);
    }
    if (call->what == PoolCall::decrement) {
        // A pointer that gave up its share and keeps its fields must not be destroyed.
        comparePointer(call->pointer);
        commit({PoolCall::forget, call->pointer});
    }
    return true;
}

void PoolDriver::finish(Comparison comparison) {
    for (int number = 0; number < numberOfPointers; ++number) {
        if (!commit({PoolCall::reset, number})) {
            commit({PoolCall::forget, number});
        }
        if (comparison != Comparison::whereChosen) {
            compareFields();
        }
    }
}

void PoolDriver::compareFields() {
    same("the next token", GVTestPeer::nextToken(), reference::nextToken);
    same("the default number of blocks", GVMemoryPool::defaultNumberOfObjects, reference::Pool::defaultNumberOfObjects);
    for (int number = 0; number < numberOfPointers; ++number) {
        comparePointer(number);
    }
    for (const auto& [id, pool] : reference::pools) {
        comparePool(inLibrary<GVMemoryPool>(id), pool);
    }
    for (const auto& [id, block] : reference::blocks) {
        compareBlock(inLibrary<GVMemoryPoolObject>(id), block);
    }
    for (const auto& [id, handle] : reference::handles) {
        auto& library = inLibrary<GVMutexHandle>(id);
        same("whether a lock is free", library.tryLock(), !handle.locked);
        library.unlock();
    }
}

void PoolDriver::comparePointer(int number) {
    GVSmartPointer<GVMemoryPool>& library = theLibrary->pointer(number);
    const ReferenceSide::Pointer& expected = theReference->pointer(number);
    sameBlock("a pointer's object", GVTestPeer::object(library), expected.fields.object);
    sameBlock("a pointer's count cell", GVTestPeer::refCount(library), expected.fields.count);
    sameBlock("a pointer's flag cell", GVTestPeer::ownObject(library), expected.fields.flag);
    sameBlock("a pointer's lock", GVTestPeer::lock(library), expected.fields.handle);
    if (expected.fields.count != 0) {
        same("a pointer's count", *GVTestPeer::refCount(library), reference::counts[expected.fields.count]);
        same("a pointer's flag", *GVTestPeer::ownObject(library), reference::flags[expected.fields.flag]);
    }
    same("the number of sharers", library.getRefCount(), expected.getRefCount());
}

void PoolDriver::comparePool(GVMemoryPool& library, const reference::Pool& pool) {
    compareTable(GVTestPeer::table(library), pool.table,
                 [](const GVMemoryPoolObject* block, reference::Id id) { sameBlock("a block", block, id); });
    const auto& free = GVTestPeer::freeTokens(library);
    same("free tokens", free.size(), pool.freeList.tokens.size());
    for (std::size_t index = 0; index < free.size(); ++index) {
        same("a free token", free[index], pool.freeList.tokens[index]);
    }
    same("the capacity of the free list", free.capacity(), pool.freeList.capacity);
    sameBlock("the storage of the free list", free.data(), pool.freeList.storage.id());
    same("the initial number of blocks", GVTestPeer::initialNumberOfObjects(library), pool.initial);
    same("bytes in each block", GVTestPeer::bytesInEachObject(library), pool.bytes);
    same("whether the pool locks", GVTestPeer::useMutexHandle(library), pool.useMutex);
    sameBlock("a pool's lock", GVTestPeer::mutexHandle(library), pool.handle);
}

void PoolDriver::compareBlock(GVMemoryPoolObject& library, const reference::Block& block) {
    same("a block's token", library.getToken(), block.token);
    same("a block's length", library.getLength(), block.length);
    sameBlock("a block's bytes", library.getBytes(), block.bytes);
    if (block.content) {
        const auto* const bytes = static_cast<const unsigned char*>(library.getBytes());
        for (unsigned int index = 0; index < block.length; ++index) {
            same("a byte of a block", bytes[index], *block.content);
        }
    }
}

void PoolDriver::compareViews() {
    for (const auto& [id, pool] : reference::pools) {
        auto& library = inLibrary<GVMemoryPool>(id);
        if (!pool.useMutex || reference::handles.count(pool.handle) != 0) {
            same("blocks in use", library.numberOfObjectsInPoolInUse(), pool.numberOfObjectsInPoolInUse());
        }
        std::vector<unsigned int> searched = pool.freeList.tokens;
        searched.push_back(reference::nextToken);
        compareSearches(GVTestPeer::table(library), pool.table, searched);
        same("the text of a pool", dumpOf(library), poolText(pool));
        for (const auto& [otherId, other] : reference::pools) {
            auto& otherInLibrary = inLibrary<GVMemoryPool>(otherId);
            same("whether two pools are equal", library == otherInLibrary, pool == other);
            same("whether two pools are unequal", library != otherInLibrary, !(pool == other));
        }
    }
    for (int number = 0; number < numberOfPointers; ++number) {
        const ReferenceSide::Pointer& expected = theReference->pointer(number);
        if (expected.fields.object == 0 || hasPool(number)) {
            same("the text of a pointer", dumpOf(theLibrary->pointer(number)), pointerText(expected));
        }
    }
    for (const auto& [id, block] : reference::blocks) {
        same("the text of a block", dumpOf(inLibrary<GVMemoryPoolObject>(id)), blockText(block));
    }
}

} // namespace

std::unique_ptr<Driver> makePoolDriver(unsigned char scene) { return std::make_unique<PoolDriver>(scene); }

} // namespace Gilvane::driver
