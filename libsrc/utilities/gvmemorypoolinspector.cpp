#include <gilvane/utilities/gvmemorypoolinspector.h>

#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvrawblock.h>

#include <algorithm>
#include <iterator>
#include <mutex>

namespace Gilvane {

namespace {

constexpr const char* theStateCharacters[] = {".", "o", "x"}; // by GVHashTableEntryState
constexpr std::size_t theSlotsInALine = 64;

// What the compiler puts before the first element of an array whose elements have destructors: their number and, on
// 32-bit ARM, their size.
#ifdef __ARM_EABI__
constexpr std::size_t theArrayCookieBytes = 2 * sizeof(std::size_t);
#else
constexpr std::size_t theArrayCookieBytes = sizeof(std::size_t);
#endif

template <typename T>
void writeElement(std::ostream& stream, const char* name, const T& value) {
    stream << "<" << name << ">";
    detail::writeDumpValue(stream, value);
    stream << "</" << name << ">";
}

template <typename T>
void writeLine(std::ostream& stream, const char* name, const T& value) {
    stream << "\t";
    writeElement(stream, name, value);
    stream << "\n";
}

void writeTokens(std::ostream& stream, const char* name, const GVMemoryPoolInspector::TokenList& tokens) {
    stream << "\t<" << name << ">";
    const char* separator = "";
    for (const unsigned int token : tokens) {
        stream << separator;
        detail::writeDumpValue(stream, token);
        separator = " ";
    }
    stream << "</" << name << ">\n";
}

void writeSlots(std::ostream& stream, const GVMemoryPoolInspector::StateList& states) {
    stream << "\t<slots>\n";
    for (std::size_t slot = 0; slot < states.size(); ++slot) {
        stream << (slot % theSlotsInALine == 0 ? "\t\t" : "");
        stream << theStateCharacters[states[slot]];
        stream << ((slot + 1) % theSlotsInALine == 0 || slot + 1 == states.size() ? "\n" : "");
    }
    stream << "\t</slots>\n";
}

void writeBlock(std::ostream& stream, const GVInspectedBlock& block) {
    stream << "\t<block>";
    writeElement(stream, "token", block.theToken);
    writeElement(stream, "bytes", block.theBytes);
    writeElement(stream, "length", block.theLength);
    stream << "<state>" << (block.isFree ? "free" : "lent") << "</state>";
    writeElement(stream, "slot", block.theSlot);
    writeElement(stream, "probes", block.theProbeCount);
    stream << "</block>\n";
}

// The lowest token of the blocks that cannot have been lent; beyond all tokens when there are no such blocks. Each block
// beyond what the table stores without growing was stored while it could not grow: its building ended with an exception,
// before its token came into the free list. Such blocks were built last, and blocks that are built later have higher
// tokens.
// countFrom: the number of blocks whose token is that one or higher
template <typename CountFrom>
std::uint64_t lowestTokenNeverLentAmong(std::size_t slots, CountFrom countFrom) {
    const std::size_t mostWithoutGrowth = 2 * slots / 3; // three never divides it, since slots is a power of two
    const std::size_t blocks = countFrom(0U);
    if (blocks <= mostWithoutGrowth) {
        return std::uint64_t{1} << 32;
    }
    // Bit by bit the largest token from which on there are as many blocks; sorting would need memory.
    unsigned int lowest = 0;
    for (unsigned int bit = 1U << 31; bit != 0; bit >>= 1) {
        if (countFrom(lowest | bit) >= blocks - mostWithoutGrowth) {
            lowest |= bit;
        }
    }
    return lowest;
}

} // namespace

GVMemoryPoolInspector::GVMemoryPoolInspector(const GVMemoryPool& pool) : thePool(&pool) {
    TokenList keys;
    TokenList freeTokens;
    copyFrom(pool, keys, freeTokens);
    evaluate(keys, freeTokens);
}

GVMemoryPoolInspector::GVMemoryPoolInspector(const GVSharedPool& pool)
    : thePool(&detail::GVSharedPoolAccess::innerPool(pool)) {
    TokenList keys;
    TokenList freeTokens;
    {
        const std::lock_guard<detail::GVPlainLock> guard(detail::GVSharedPoolAccess::lock(pool));
        copyFrom(*thePool, keys, freeTokens);
    }
    evaluate(keys, freeTokens);
}

GVMemoryPoolInspector::TokenList GVMemoryPoolInspector::getTokensNeverLent() const {
    const std::uint64_t lowest = lowestTokenNeverLentAmong(theSlotStates.size(), [this](unsigned int token) {
        std::size_t count = 0;
        for (const GVInspectedBlock& block : theBlocks) {
            count += block.theToken >= token ? 1 : 0;
        }
        return count;
    });
    TokenList tokens;
    for (const GVInspectedBlock& block : theBlocks) {
        if (!block.isFree && block.theToken >= lowest) {
            tokens.push_back(block.theToken);
        }
    }
    std::sort(tokens.begin(), tokens.end());
    return tokens;
}

std::size_t GVMemoryPoolInspector::getBytesOfHeaderWords() const {
    std::size_t count = theBlocks.size();
    for (const GVInspectedBlock& block : theBlocks) {
        count += block.theBytes != nullptr ? 1 : 0;
    }
    count += theBytesOfSlots != 0 ? 1 : 0;
    count += theBytesOfFreeList != 0 ? 1 : 0;
    return count * detail::rawBlockHeaderBytes;
}

std::size_t GVMemoryPoolInspector::getBytesSpent() const {
    return getBytesOfPool() + getBytesOfBlockObjects() + theBytesAskedFor + getBytesOfHeaderWords() + theBytesOfSlots +
           theBytesOfFreeList;
}

std::size_t GVMemoryPoolInspector::getNumberOfSlots(GVHashTableEntryState state) const {
    return static_cast<std::size_t>(std::count(theSlotStates.begin(), theSlotStates.end(), state));
}

double GVMemoryPoolInspector::getLoad() const {
    const std::size_t filled = theSlotStates.size() - getNumberOfSlots(gvemptyentry);
    return static_cast<double>(filled) / static_cast<double>(theSlotStates.size());
}

double GVMemoryPoolInspector::getMeanProbe() const {
    return theReachedCount == 0 ? 0 : static_cast<double>(theProbeSum) / static_cast<double>(theReachedCount);
}

bool GVMemoryPoolInspector::hasFindings() const {
    return !theTokensTwiceFree.empty() || !theTokensUnknown.empty() || !theTokensUnreachable.empty() ||
           !theTokensWithoutBlock.empty();
}

std::ostream& GVMemoryPoolInspector::print(std::ostream& stream) const {
    stream << "<GVMemoryPoolInspector>\n";
    writeLine(stream, "pool", thePool);
    writeLine(stream, "numberOfBlocks", getNumberOfBlocks());
    writeLine(stream, "numberOfFreeBlocks", getNumberOfFreeBlocks());
    writeLine(stream, "numberOfLentBlocks", getNumberOfLentBlocks());
    writeLine(stream, "numberOfFreeTokens", getNumberOfFreeTokens());
    writeLine(stream, "bytesInEachObject", getBytesInEachObject());
    writeLine(stream, "bytesAskedFor", getBytesAskedFor());
    writeLine(stream, "bytesOfPool", getBytesOfPool());
    writeLine(stream, "bytesOfBlockObjects", getBytesOfBlockObjects());
    writeLine(stream, "bytesOfHeaderWords", getBytesOfHeaderWords());
    writeLine(stream, "bytesOfSlots", getBytesOfSlots());
    writeLine(stream, "bytesOfFreeList", getBytesOfFreeList());
    writeLine(stream, "bytesSpent", getBytesSpent());
    writeLine(stream, "tableSize", getTableSize());
    writeLine(stream, "occupiedSlots", getNumberOfSlots(gvoccupiedentry));
    writeLine(stream, "emptySlots", getNumberOfSlots(gvemptyentry));
    writeLine(stream, "deletedSlots", getNumberOfSlots(gvdeletedentry));
    writeLine(stream, "load", getLoad());
    writeLine(stream, "longestProbe", getLongestProbe());
    writeLine(stream, "meanProbe", getMeanProbe());
    writeTokens(stream, "tokensTwiceFree", theTokensTwiceFree);
    writeTokens(stream, "tokensUnknown", theTokensUnknown);
    writeTokens(stream, "tokensUnreachable", theTokensUnreachable);
    writeTokens(stream, "tokensWithoutBlock", theTokensWithoutBlock);
    writeSlots(stream, theSlotStates);
    for (const GVInspectedBlock& block : theBlocks) {
        writeBlock(stream, block);
    }
    stream << "</GVMemoryPoolInspector>";
    return stream;
}

// Fills the record of the block in a slot in, all but isNeverLent.
// Returns false for a slot without a block.
bool GVMemoryPoolInspector::lookAt(const GVMemoryPool& pool, unsigned int slot, GVVisitedBlock& block) {
    const Table::Entry& entry = pool.memoryPool.getEntry(slot);
    if (entry.theState != gvoccupiedentry || entry.theValue == nullptr) {
        return false;
    }
    describe(pool.memoryPool, slot, block);
    block.theProbeCount = pool.memoryPool.countProbes(slot);
    const TokenList& freeTokens = pool.availableTokens;
    block.isFree = std::find(freeTokens.begin(), freeTokens.end(), block.theToken) != freeTokens.end();
    return true;
}

std::uint64_t GVMemoryPoolInspector::lowestTokenNeverLent(const GVMemoryPool& pool) {
    const Table& table = pool.memoryPool;
    return lowestTokenNeverLentAmong(table.getSlotCount(), [&table](unsigned int token) {
        std::size_t count = 0;
        for (unsigned int slot = 0; slot < table.getSlotCount(); ++slot) {
            const Table::Entry& entry = table.getEntry(slot);
            const bool isCounted =
                entry.theState == gvoccupiedentry && entry.theValue != nullptr && entry.theKey >= token;
            count += isCounted ? 1 : 0;
        }
        return count;
    });
}

// The slot has a block.
void GVMemoryPoolInspector::describe(const Table& table, unsigned int slot, GVInspectedBlock& block) {
    const Table::Entry& entry = table.getEntry(slot);
    block.theToken = entry.theKey;
    block.theBytes = entry.theValue->getBytes();
    block.theLength = entry.theValue->getLength();
    block.theSlot = slot;
}

// Does all that needs the pool's lock, and nothing else. The keys and the free list are for evaluate.
void GVMemoryPoolInspector::copyFrom(const GVMemoryPool& pool, TokenList& keys, TokenList& freeTokens) {
    pool.withLock([&] {
        const Table& table = pool.memoryPool;
        freeTokens = pool.availableTokens;
        theBytesInEachObject = pool.bytesInEachObject;
        theBytesOfFreeList = pool.availableTokens.capacity() * sizeof(unsigned int);
        if (table.getHeapEntryCount() != 0) {
            theBytesOfSlots = table.getHeapEntryCount() * sizeof(Table::Entry) + theArrayCookieBytes;
        }
        keys.reserve(table.getUsedCount());
        theBlocks.reserve(table.getUsedCount());
        theSlotStates.reserve(table.getSlotCount());
        for (unsigned int slot = 0; slot < table.getSlotCount(); ++slot) {
            const Table::Entry& entry = table.getEntry(slot);
            theSlotStates.push_back(static_cast<unsigned char>(entry.theState));
            if (entry.theState == gvoccupiedentry) {
                keys.push_back(entry.theKey);
                copyEntry(table, slot);
            }
        }
    });
}

void GVMemoryPoolInspector::copyEntry(const Table& table, unsigned int slot) {
    const Table::Entry& entry = table.getEntry(slot);
    GVInspectedBlock block;
    block.theProbeCount = table.countProbes(slot);
    if (block.theProbeCount != 0) {
        theLongestProbe = std::max(theLongestProbe, block.theProbeCount);
        theProbeSum += block.theProbeCount;
        ++theReachedCount;
    } else {
        theTokensUnreachable.push_back(entry.theKey);
    }
    if (entry.theValue == nullptr) {
        theTokensWithoutBlock.push_back(entry.theKey);
        return;
    }
    describe(table, slot, block);
    theBytesAskedFor += block.theLength;
    theBlocks.push_back(block);
}

void GVMemoryPoolInspector::evaluate(TokenList& keys, TokenList& freeTokens) {
    theFreeTokenCount = freeTokens.size();
    std::sort(keys.begin(), keys.end());
    std::sort(freeTokens.begin(), freeTokens.end());
    std::sort(theTokensUnreachable.begin(), theTokensUnreachable.end());
    std::sort(theTokensWithoutBlock.begin(), theTokensWithoutBlock.end());

    auto twice = std::adjacent_find(freeTokens.begin(), freeTokens.end());
    while (twice != freeTokens.end()) {
        theTokensTwiceFree.push_back(*twice);
        twice = std::adjacent_find(std::upper_bound(twice, freeTokens.end(), *twice), freeTokens.end());
    }
    freeTokens.erase(std::unique(freeTokens.begin(), freeTokens.end()), freeTokens.end());
    std::set_difference(freeTokens.begin(), freeTokens.end(), keys.begin(), keys.end(),
                        std::back_inserter(theTokensUnknown));
    for (GVInspectedBlock& block : theBlocks) {
        block.isFree = std::binary_search(freeTokens.begin(), freeTokens.end(), block.theToken);
        theFreeBlockCount += block.isFree ? 1 : 0;
    }
}

std::ostream& operator<<(std::ostream& stream, const GVMemoryPoolInspector& inspector) {
    return inspector.print(stream);
}

} // namespace Gilvane
