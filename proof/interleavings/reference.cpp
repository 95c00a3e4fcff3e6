#include "reference.h"

#include "switchpoints.h"

#include <algorithm>
#include <cstdlib>

namespace Gilvane {
namespace Interleavings {

namespace {

// What fresh memory holds; see the allocation hooks of the library's side.
constexpr unsigned char freshContent = 0xa5;

ReferencePool::Entry* find(ReferencePool& pool, unsigned int token) {
    return std::find_if(pool.table.begin(), pool.table.end(),
                        [token](const ReferencePool::Entry& entry) { return entry.token == token; });
}

} // namespace

Description describe(Sight sight) {
    switch (sight) {
    case secondGrowthDidNothing:
        return {"two loans find the pool dry; the later read the number of blocks before the growth, and does nothing",
                "docs/deliberate.md, Growth"};
    case secondGrowthDoubledAgain:
        return {
            "two loans find the pool dry; the later read the number of blocks after the growth, and doubles it again",
            "docs/deliberate.md, Growth"};
    case grewByAPartialNumber:
        return {"a loan reads the number while another thread builds blocks, and doubles that number",
                "docs/deliberate.md, Growth"};
    case rebuiltByAPartialNumber:
        return {"a loan reads 0 while another thread builds the first blocks, and rebuilds the pool",
                "docs/deliberate.md, Growth"};
    case staleNumberShrank:
        return {"a loan reads a number that is out of date when it acts, and shrinks the pool",
                "docs/deliberate.md, Growth"};
    case staleNumberRemovedALentBlock:
        return {"a loan reads a number that is out of date when it acts, and removes a lent block",
                "docs/deliberate.md, Growth"};
    case secondRebuildingDestroyedALentBlock:
        return {"a second loan reads 0, rebuilds the pool, and deletes a block that was just lent",
                "docs/deliberate.md, Growth"};
    case rebuildingDestroyedALentBlock:
        return {"makePool deletes a lent block", "docs/deliberate.md, Rebuilding"};
    case shrinkingRemovedALentBlock:
        return {"resizePool removes a lent block", "docs/deliberate.md, Shrinking"};
    case sizeChangeDestroyedALentBlock:
        return {"a change of size deletes a block that was borrowed in the gap", "docs/deliberate.md, Rebuilding"};
    case sizeChangeRefused:
        return {"a change of size is refused", "docs/guide/sizes-and-locking.md, How large"};
    case sizeChangeBesideBuilding:
        return {"a change of size while another thread builds blocks gives blocks of both sizes",
                "docs/deliberate.md, Rebuilding"};
    case grewWithATokenBack:
        return {"a pool grows although a token came back in the gap", "docs/deliberate.md, Growth"};
    case tookATokenGivenBackMeanwhile:
        return {"a loan that grew the pool takes a token that came back in the gap", "docs/deliberate.md, Growth"};
    case twoPoolsMadeOneToken:
        return {"two pools build blocks with the same token", "docs/deliberate.md, Tokens"};
    case poolLostABlock:
        return {"a pool builds two blocks with the same token and loses the first", "docs/deliberate.md, Tokens"};
    case tokenLentTwice:
        return {"two blocks have the same token, and it is lent to two borrowers", "docs/deliberate.md, Tokens"};
    case deadTokenLent:
        return {"a token without a block is lent", "docs/deliberate.md, Rebuilding"};
    case inUseWrapped:
        return {"the number in use wraps below 0", "docs/deliberate.md, Tokens"};
    case firstThreadDeletedThePool:
        return {"the first thread gives up the last share and deletes the pool",
                "docs/guide/threads.md, What each call does for threads"};
    case otherThreadDeletedThePool:
        return {"another thread gives up the last share and deletes the pool",
                "docs/guide/threads.md, What each call does for threads"};
    case nothingToTake:
        return {"ends: other threads took every new token, and there is none to take", "docs/deliberate.md, Growth"};
    case unknownToken:
        return {"ends: a thread looks up a token whose block was removed", "docs/deliberate.md, Tokens"};
    case deletedBlockTouched:
        return {"ends: a thread touches a block that was deleted", "docs/deliberate.md, Rebuilding"};
    case numberOfSights:
        break;
    }
    return {"", ""};
}

Reference& Reference::world() {
    static Reference theWorld;
    return theWorld;
}

void Reference::reset() {
    for (ReferencePool& pool : pools) {
        pool.table.size = 0;
        pool.freeTokens.size = 0;
        pool.exists = false;
        pool.growths = 0;
        pool.returns = 0;
        pool.building = false;
    }
    blocks.size = 0;
    counter = 0;
    holders.fill(nobody);
    refCount = 0;
    thread = outsideThreads;
    sights.reset();
}

void Reference::makePool(unsigned int number, unsigned int blockCount, unsigned int bytes, unsigned int later) {
    ReferencePool& pool = pools[number];
    pool.exists = true;
    pool.initialNumber = later != 0 ? later : blockCount;
    pool.bytes = bytes;
    if (later == 0) {
        rebuild(number, blockCount);
    }
}

void Reference::destroyPool(unsigned int number) {
    ReferencePool& pool = pools[number];
    at(Step::deleteHandle, number);
    for (const ReferencePool::Entry& entry : pool.table) {
        blocks.items[entry.block].alive = false;
    }
    pool.exists = false;
}

unsigned int Reference::borrow(unsigned int number) {
    ReferencePool& pool = pools[number];
    lock(number);
    if (pool.freeTokens.size == 0) {
        const unsigned int returns = pool.returns;
        Loan loan{pool.growths, false, false};
        unlock(number);
        at(Step::readCount);
        const unsigned int count = pool.table.size;
        loan.late = pool.growths != loan.growths;
        loan.partial = pool.building;
        if (count != 0) {
            resizeFor(number, count * 2, &loan);
        } else {
            if (loan.partial) {
                sights.set(rebuiltByAPartialNumber);
            }
            rebuildFor(number, pool.initialNumber, Reason::loan);
        }
        if (pool.returns != returns) {
            sights.set(grewWithATokenBack);
        }
        const unsigned int returnsAfterGrowth = pool.returns;
        lock(number);
        if (pool.returns != returnsAfterGrowth) {
            sights.set(tookATokenGivenBackMeanwhile);
        }
    }
    at(Step::pop);
    if (pool.freeTokens.size == 0) {
        cut(nothingToTake);
    }
    const unsigned int token = pool.freeTokens.items[--pool.freeTokens.size];
    lend(number, token);
    unlock(number);
    return token;
}

void Reference::give(unsigned int number, unsigned int token) {
    ReferencePool& pool = pools[number];
    lock(number);
    pool.freeTokens.append(token);
    ++pool.returns;
    ReferencePool::Entry* const entry = find(pool, token);
    if (entry != pool.table.end() && blocks.items[entry->block].loans != 0) {
        --blocks.items[entry->block].loans;
    }
    unlock(number);
}

unsigned int Reference::use(unsigned int number, unsigned int token, unsigned char mark) {
    ReferencePool& pool = pools[number];
    lock(number);
    at(Step::lookUp);
    ReferencePool::Entry* const entry = find(pool, token);
    if (entry == pool.table.end()) {
        cut(unknownToken);
    }
    ReferenceBlock& block = blocks.items[entry->block];
    unlock(number);
    if (block.length == 0) {
        return 0;
    }
    at(Step::touch);
    if (!block.alive) {
        cut(deletedBlockTouched);
    }
    const unsigned int content = block.content;
    block.content = mark;
    return content;
}

unsigned int Reference::inUse(unsigned int number) {
    ReferencePool& pool = pools[number];
    lock(number);
    const unsigned int result = pool.table.size == 0 ? 0 : pool.table.size - pool.freeTokens.size;
    if (pool.table.size != 0 && pool.freeTokens.size > pool.table.size) {
        sights.set(inUseWrapped);
    }
    unlock(number);
    return result;
}

void Reference::resizeFor(unsigned int number, unsigned int blockCount, const Loan* loan) {
    ReferencePool& pool = pools[number];
    lock(number);
    const unsigned int count = pool.table.size;
    if (loan != nullptr && blockCount < count) {
        sights.set(staleNumberShrank);
    } else if (loan != nullptr && loan->partial) {
        sights.set(grewByAPartialNumber);
    } else if (loan != nullptr && loan->late) {
        sights.set(secondGrowthDoubledAgain);
    } else if (loan != nullptr && pool.growths != loan->growths && blockCount == count) {
        sights.set(secondGrowthDidNothing);
    }
    if (blockCount >= count) {
        build(number, blockCount - count);
    } else {
        std::array<unsigned int, mostBlocks> tokens;
        std::transform(pool.table.begin(), pool.table.end(), tokens.begin(),
                       [](const ReferencePool::Entry& entry) { return entry.token; });
        std::sort(tokens.begin(), tokens.begin() + count);
        for (unsigned int left = count; left > blockCount; --left) {
            const unsigned int token = tokens[left - 1];
            at(Step::removeBlock);
            ReferencePool::Entry* const entry = find(pool, token);
            deleteBlock(blocks.items[entry->block],
                        loan != nullptr ? staleNumberRemovedALentBlock : shrinkingRemovedALentBlock);
            pool.table.erase(static_cast<unsigned int>(entry - pool.table.begin()));
        }
        // The tokens leave the free list together; nobody sees it before, since the lock is held.
        for (unsigned int left = count; left > blockCount; --left) {
            const unsigned int* const position =
                std::find(pool.freeTokens.begin(), pool.freeTokens.end(), tokens[left - 1]);
            if (position != pool.freeTokens.end()) {
                pool.freeTokens.erase(static_cast<unsigned int>(position - pool.freeTokens.begin()));
            }
        }
    }
    pool.growths += loan != nullptr ? 1 : 0;
    unlock(number);
}

void Reference::rebuildFor(unsigned int number, unsigned int blockCount, Reason reason) {
    ReferencePool& pool = pools[number];
    lock(number);
    for (const ReferencePool::Entry& entry : pool.table) {
        deleteBlock(blocks.items[entry.block], reason == Reason::loan         ? secondRebuildingDestroyedALentBlock
                                               : reason == Reason::sizeChange ? sizeChangeDestroyedALentBlock
                                                                              : rebuildingDestroyedALentBlock);
    }
    pool.table.size = 0;
    build(number, blockCount);
    pool.growths += reason == Reason::loan ? 1 : 0;
    unlock(number);
}

bool Reference::setSize(unsigned int number, unsigned int bytes) {
    ReferencePool& pool = pools[number];
    if (inUse(number) != 0) {
        sights.set(sizeChangeRefused);
        return false;
    }
    at(Step::writeSize);
    pool.bytes = bytes;
    at(Step::readCount);
    rebuildFor(number, pool.table.size, Reason::sizeChange);
    return true;
}

void Reference::addShare() {
    lock(shareHandle);
    ++refCount;
    unlock(shareHandle);
}

void Reference::giveUpShare() {
    lock(shareHandle);
    if (--refCount != 0) {
        unlock(shareHandle);
        return;
    }
    if (thread >= 0) {
        sights.set(thread == 0 ? firstThreadDeletedThePool : otherThreadDeletedThePool);
    }
    destroyPool(0);
    unlock(shareHandle);
    at(Step::deleteHandle, shareHandle);
}

unsigned int Reference::sharers() {
    lock(shareHandle);
    const unsigned int result = refCount;
    unlock(shareHandle);
    return result;
}

void Reference::lock(unsigned int handle) {
    at(Step::lock, handle);
    holders[handle] = thread;
}

void Reference::unlock(unsigned int handle) {
    at(Step::unlock, handle);
    holders[handle] = nobody;
}

void Reference::build(unsigned int number, unsigned int blockCount) {
    ReferencePool& pool = pools[number];
    const unsigned int bytes = pool.bytes;
    pool.building = blockCount > 0;
    for (; blockCount > 0; --blockCount) {
        const unsigned int length = pool.bytes;
        at(Step::readCounter);
        const unsigned int token = counter;
        at(Step::writeCounter);
        counter = token + 1;
        const ReferenceBlock* const same =
            std::find_if(blocks.begin(), blocks.end(), [token](const auto& block) { return block.token == token; });
        ReferencePool::Entry* const entry = find(pool, token);
        if (entry != pool.table.end()) {
            blocks.items[entry->block].lost = true;
            entry->block = blocks.size;
            sights.set(poolLostABlock);
        } else {
            pool.table.append({token, blocks.size});
            if (same != blocks.end()) {
                sights.set(twoPoolsMadeOneToken);
            }
        }
        blocks.append({token, length, freshContent, true, false, 0});
        pool.freeTokens.append(token);
        if (length != bytes) {
            sights.set(sizeChangeBesideBuilding);
        }
    }
    pool.building = false;
}

void Reference::deleteBlock(ReferenceBlock& block, Sight sightIfLent) {
    block.alive = false;
    if (block.loans != 0) {
        sights.set(sightIfLent);
    }
}

void Reference::lend(unsigned int number, unsigned int token) {
    ReferencePool& pool = pools[number];
    ReferencePool::Entry* const entry = find(pool, token);
    if (entry == pool.table.end()) {
        sights.set(deadTokenLent);
    } else if (blocks.items[entry->block].loans++ != 0) {
        sights.set(tokenLentTwice);
    }
}

void Reference::cut(Sight sight) {
    sights.set(sight);
    at(Step::cut);
    std::abort(); // a cut schedule does not go on, and none is cut outside the threads
}

} // namespace Interleavings
} // namespace Gilvane
