#include <gilvane/base/gvrawblock.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "poolsupport.h"
#include "writtentext.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;
using Tokens = GVMemoryPoolInspector::TokenList;
using Inspector = GVMemoryPoolInspector;

// The slots of a snapshot in a row, as the text draws them.
std::string slotsOf(const Inspector& inspector) {
    std::string picture;
    for (const unsigned char state : inspector.getSlotStates()) {
        picture += ".ox"[state];
    }
    return picture;
}

// The record of a block, by its token.
GVInspectedBlock blockOf(const Inspector& inspector, unsigned int token) {
    for (const GVInspectedBlock& block : inspector.getBlocks()) {
        if (block.theToken == token) {
            return block;
        }
    }
    ADD_FAILURE() << "no block " << token;
    return GVInspectedBlock();
}

} // namespace

TEST(PoolInspector, findsNothingInAnEmptyPool) {
    const GVMemoryPool pool(4, false);
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getNumberOfBlocks(), 0U);
    EXPECT_EQ(inspector.getNumberOfFreeBlocks(), 0U);
    EXPECT_EQ(inspector.getNumberOfLentBlocks(), 0U);
    EXPECT_EQ(inspector.getNumberOfFreeTokens(), 0U);
    EXPECT_EQ(inspector.getBytesInEachObject(), 0U);
    EXPECT_EQ(inspector.getBytesAskedFor(), 0U);
    EXPECT_EQ(inspector.getBytesSpent(), sizeof(GVMemoryPool));
    EXPECT_EQ(inspector.getTableSize(), 8U);
    EXPECT_EQ(inspector.getLoad(), 0.0);
    EXPECT_EQ(inspector.getLongestProbe(), 0U);
    EXPECT_EQ(inspector.getMeanProbe(), 0.0);
    EXPECT_EQ(slotsOf(inspector), "........");
    EXPECT_FALSE(inspector.hasFindings());
}

TEST(PoolInspector, countsFreeAndLentBlocks) {
    GVMemoryPool pool(3, 16, false);
    const unsigned int lent = pool.getTokenForFreeMemoryObject();
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getNumberOfBlocks(), 3U);
    EXPECT_EQ(inspector.getNumberOfFreeBlocks(), 2U);
    EXPECT_EQ(inspector.getNumberOfLentBlocks(), 1U);
    EXPECT_EQ(inspector.getNumberOfFreeTokens(), 2U);
    EXPECT_FALSE(blockOf(inspector, lent).isFree);
    EXPECT_FALSE(inspector.hasFindings());
}

TEST(PoolInspector, isASnapshotThatThePoolsChangesDoNotReach) {
    GVMemoryPool pool(3, 16, false);
    const Inspector before(pool);
    pool.getTokenForFreeMemoryObject();
    pool.resizePool(100);
    EXPECT_EQ(before.getNumberOfBlocks(), 3U);
    EXPECT_EQ(before.getNumberOfFreeBlocks(), 3U);
    EXPECT_EQ(before.getTableSize(), 8U);
}

TEST(PoolInspector, changesNothingInThePool) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 16, 8});
    pool.resizePool(2);
    pool.releaseObject(99);
    const std::string dump = textOf(pool);
    const auto freeTokens = Peer::freeTokens(pool);
    { const Inspector inspector(pool); }
    EXPECT_EQ(textOf(pool), dump);
    EXPECT_EQ(Peer::freeTokens(pool), freeTokens);
}

TEST(PoolInspector, visitsEveryBlockInTheOrderOfSlots) {
    GVMemoryPool pool(0, 24, false);
    buildBlocks(pool, {9, 1, 8});
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 8U);
    const Inspector inspector(pool);
    //  slot    0   1   2   3   4   5   6   7
    //  token   8   9   .   .   .   .   .   1
    std::vector<unsigned int> tokens;
    std::vector<const void*> addresses;
    std::vector<unsigned int> slots;
    std::string states;
    inspector.visitBlocks([&](const GVInspectedBlock& block) {
        tokens.push_back(block.theToken);
        addresses.push_back(block.theBytes);
        slots.push_back(block.theSlot);
        states += block.isFree ? 'f' : 'l';
        EXPECT_EQ(block.theLength, 24U);
    });
    EXPECT_EQ(tokens, (std::vector<unsigned int>{8, 9, 1}));
    EXPECT_EQ(addresses, (std::vector<const void*>{pool.getMemoryForToken(8), pool.getMemoryForToken(9),
                                                   pool.getMemoryForToken(1)}));
    EXPECT_EQ(slots, (std::vector<unsigned int>{0, 1, 7}));
    EXPECT_EQ(states, "lff");
    EXPECT_FALSE(inspector.hasFindings());
}

TEST(PoolInspector, aBlocksRecordStartsOutEmpty) {
    const GVInspectedBlock block;
    EXPECT_EQ(block.theToken, 0U);
    EXPECT_EQ(block.theBytes, nullptr);
    EXPECT_EQ(block.theLength, 0U);
    EXPECT_FALSE(block.isFree);
    EXPECT_EQ(block.theSlot, 0U);
    EXPECT_EQ(block.theProbeCount, 0U);
}

TEST(PoolInspectorBytes, areWhatTheAllocationFunctionGaveOut) {
    for (const unsigned int bytes : {0U, 1U, 16U}) {
        for (const unsigned int count : {0U, 1U, 5U, 6U, 100U}) { // 6 blocks need a slot array on the heap
            const HookLedger ledger;
            GVMemoryPool pool(count, bytes, false);
            const std::size_t given = ledger.liveBytes();
            const Inspector inspector(pool);
            EXPECT_EQ(inspector.getBytesSpent(), sizeof(GVMemoryPool) + given) << count << " blocks of " << bytes;
            EXPECT_EQ(inspector.getBytesAskedFor(), count * bytes);
            EXPECT_EQ(inspector.getBytesInEachObject(), bytes);
        }
    }
}

TEST(PoolInspectorBytes, areNamedByWhatTheyAreFor) {
    GVMemoryPool pool(6, 16, false);
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getBytesOfPool(), sizeof(GVMemoryPool));
    EXPECT_EQ(inspector.getBytesOfBlockObjects(), 6 * sizeof(GVMemoryPoolObject));
    EXPECT_EQ(inspector.getBytesOfHeaderWords(), (6 + 6 + 2) * sizeof(void*));
    EXPECT_EQ(inspector.getBytesOfFreeList(), 8 * sizeof(unsigned int)) << "room for 8";
    EXPECT_GE(inspector.getBytesOfSlots(), 33 * sizeof(TokenTable::Entry));
}

TEST(PoolInspectorProbes, countTheSlotsThatASearchLooksAt) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 7, 40});
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   1   .   .   40  .   .   7     40 tries 0, 1, 7 and 4
    const Inspector inspector(pool);
    EXPECT_EQ(slotsOf(inspector), "oo..o..o");
    EXPECT_EQ(blockOf(inspector, 0).theProbeCount, 1U);
    EXPECT_EQ(blockOf(inspector, 1).theProbeCount, 1U);
    EXPECT_EQ(blockOf(inspector, 7).theProbeCount, 1U);
    EXPECT_EQ(blockOf(inspector, 40).theProbeCount, 4U);
    EXPECT_EQ(blockOf(inspector, 40).theSlot, 4U);
    EXPECT_EQ(inspector.getLongestProbe(), 4U);
    EXPECT_EQ(inspector.getMeanProbe(), 1.75);
}

TEST(PoolInspectorProbes, theLongestNeedNotComeLast) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 8, 7});
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getLongestProbe(), 2U);
    EXPECT_EQ(blockOf(inspector, 7).theSlot, 7U);
}

TEST(PoolInspectorProbes, loadCountsDeletedSlots) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 2});
    pool.resizePool(2);
    const Inspector inspector(pool);
    EXPECT_EQ(slotsOf(inspector), "oox.....");
    EXPECT_EQ(inspector.getLoad(), 0.375);
    EXPECT_EQ(inspector.getNumberOfSlots(gvoccupiedentry), 2U);
    EXPECT_EQ(inspector.getNumberOfSlots(gvdeletedentry), 1U);
    EXPECT_EQ(inspector.getNumberOfSlots(gvemptyentry), 5U);
}

TEST(PoolInspectorFindings, nameATokenReturnedTwiceOnce) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 2, 3});
    for (const unsigned int token : {3U, 1U, 3U}) {
        pool.releaseObject(token);
    }
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getTokensTwiceFree(), (Tokens{1, 3}));
    EXPECT_EQ(inspector.getTokensUnknown(), Tokens());
    EXPECT_EQ(inspector.getNumberOfFreeTokens(), 7U);
    EXPECT_EQ(inspector.getNumberOfFreeBlocks(), 4U);
    EXPECT_TRUE(inspector.hasFindings());
}

TEST(PoolInspectorFindings, nameTokensThatThePoolLendsAndDoesNotKnow) {
    GILVANE_TEST_OF_MISUSE();
    Peer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(32); // leaves 0 and 1 in the free list
    pool.releaseObject(99);
    pool.releaseObject(99);
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getTokensUnknown(), (Tokens{0, 1, 99}));
    EXPECT_EQ(inspector.getTokensTwiceFree(), (Tokens{99}));
    EXPECT_EQ(inspector.getNumberOfBlocks(), 2U);
    EXPECT_EQ(inspector.getNumberOfFreeBlocks(), 2U);
}

TEST(PoolInspectorFindings, unknownTokensAloneAreAFinding) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(2, 16, false);
    pool.releaseObject(Peer::nextToken());
    const Inspector inspector(pool);
    EXPECT_TRUE(inspector.hasFindings());
    EXPECT_EQ(inspector.getTokensTwiceFree(), Tokens());
}

TEST(PoolInspectorFindings, nameAnEntryBehindADeletedSlot) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 16, 8});
    pool.resizePool(2);
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   x   .   .   .   .   8   .     the search for 8 ends where 16 was
    const Inspector inspector(pool);
    EXPECT_EQ(slotsOf(inspector), "ox....o.");
    EXPECT_EQ(inspector.getTokensUnreachable(), (Tokens{8}));
    EXPECT_EQ(inspector.getTokensTwiceFree(), Tokens());
    EXPECT_EQ(inspector.getTokensUnknown(), Tokens()) << "its entry is there";
    EXPECT_EQ(inspector.getTokensWithoutBlock(), Tokens());
    EXPECT_TRUE(inspector.hasFindings());
    EXPECT_EQ(blockOf(inspector, 8).theProbeCount, 0U);
    EXPECT_EQ(blockOf(inspector, 8).theSlot, 6U);
    EXPECT_EQ(inspector.getLongestProbe(), 1U);
    EXPECT_EQ(inspector.getMeanProbe(), 1.0) << "searches that find nothing do not count";
}

TEST(PoolInspectorFindings, nameASecondEntryForATokenAndTheEntryWithoutABlock) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 16, 8});
    pool.resizePool(2);
    Peer::table(pool).insert(8, nullptr); // as the question for the address of 8 adds it
    const Inspector inspector(pool);
    EXPECT_EQ(slotsOf(inspector), "oo....o.");
    EXPECT_EQ(inspector.getTokensUnreachable(), (Tokens{8}));
    EXPECT_EQ(inspector.getTokensWithoutBlock(), (Tokens{8}));
    EXPECT_EQ(inspector.getNumberOfBlocks(), 2U);
    EXPECT_EQ(inspector.getNumberOfSlots(gvoccupiedentry), 3U);
    EXPECT_EQ(inspector.getLongestProbe(), 2U) << "the entry without a block is found too";
}

TEST(PoolInspectorFindings, entriesWithoutABlockAloneAreAFinding) {
    GVMemoryPool pool(2, 16, false);
    Peer::table(pool).insert(4000, nullptr);
    const Inspector inspector(pool);
    EXPECT_TRUE(inspector.hasFindings());
    EXPECT_EQ(inspector.getTokensWithoutBlock(), (Tokens{4000}));
}

TEST(PoolInspectorFindings, standInAscendingOrder) {
    GVMemoryPool pool(0, 16, false);
    //  slot    0   1   2   3   4   5   6   7
    //  token   32  .   18  11  .   .   .   .     without blocks
    for (const unsigned int token : {32U, 18U, 11U}) {
        Peer::table(pool).insert(token, nullptr);
    }
    EXPECT_EQ(Inspector(pool).getTokensWithoutBlock(), (Tokens{11, 18, 32}));
    //  slot    0   1   2   3   4   5   6   7
    //  token   .   .   .   .   .   33  25  9     written there, where no search comes by
    Peer::table(pool).clear();
    auto* const slots = Peer::slots(Peer::table(pool));
    const unsigned int misplaced[] = {33, 25, 9};
    for (unsigned int slot = 5; slot < 8; ++slot) {
        slots[slot].theKey = misplaced[slot - 5];
        slots[slot].theHash = misplaced[slot - 5];
        slots[slot].theValue = nullptr;
        slots[slot].theState = gvoccupiedentry;
    }
    EXPECT_EQ(Inspector(pool).getTokensUnreachable(), (Tokens{9, 25, 33}));
    Peer::table(pool).clear();
}

TEST(PoolInspectorFindings, comeToAnEndInATableWithoutAnEmptySlot) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(0, 16, false);
    for (unsigned int token = 0; token < 8; ++token) {
        Peer::table(pool).insert_helper(token, nullptr);
    }
    pool.releaseObject(99); // the search for 99 would not end
    const Inspector inspector(pool);
    EXPECT_EQ(slotsOf(inspector), "oooooooo");
    EXPECT_EQ(inspector.getTokensUnknown(), (Tokens{99}));
    EXPECT_EQ(inspector.getTokensWithoutBlock(), (Tokens{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(inspector.getLoad(), 1.0);
}

TEST(PoolInspectorText, isWhatItsDescriptionSays) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 8, 16, 24});
    pool.resizePool(3); // 24 lay in slot 7
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 16U);
    pool.releaseObject(8);
    pool.releaseObject(77);
    pool.releaseObject(66);
    const std::size_t objects = 3 * sizeof(GVMemoryPoolObject);
    const std::size_t headers = 7 * sizeof(void*);
    const auto addressOf = [&](unsigned int token) { return textOf(pool.getMemoryForToken(token)); };
    EXPECT_EQ(textOf(Inspector(pool)), "<GVMemoryPoolInspector>\n"
                                       "\t<pool>" +
                                           textOf(&pool) +
                                           "</pool>\n"
                                           "\t<numberOfBlocks>3</numberOfBlocks>\n"
                                           "\t<numberOfFreeBlocks>2</numberOfFreeBlocks>\n"
                                           "\t<numberOfLentBlocks>1</numberOfLentBlocks>\n"
                                           "\t<numberOfFreeTokens>5</numberOfFreeTokens>\n"
                                           "\t<bytesInEachObject>16</bytesInEachObject>\n"
                                           "\t<bytesAskedFor>48</bytesAskedFor>\n"
                                           "\t<bytesOfPool>" +
                                           textOf(sizeof(GVMemoryPool)) +
                                           "</bytesOfPool>\n"
                                           "\t<bytesOfBlockObjects>" +
                                           textOf(objects) +
                                           "</bytesOfBlockObjects>\n"
                                           "\t<bytesOfHeaderWords>" +
                                           textOf(headers) +
                                           "</bytesOfHeaderWords>\n"
                                           "\t<bytesOfSlots>0</bytesOfSlots>\n"
                                           "\t<bytesOfFreeList>32</bytesOfFreeList>\n"
                                           "\t<bytesSpent>" +
                                           textOf(sizeof(GVMemoryPool) + objects + 48 + headers + 32) +
                                           "</bytesSpent>\n"
                                           "\t<tableSize>8</tableSize>\n"
                                           "\t<occupiedSlots>3</occupiedSlots>\n"
                                           "\t<emptySlots>4</emptySlots>\n"
                                           "\t<deletedSlots>1</deletedSlots>\n"
                                           "\t<load>0.5</load>\n"
                                           "\t<longestProbe>3</longestProbe>\n"
                                           "\t<meanProbe>2</meanProbe>\n"
                                           "\t<tokensTwiceFree>8</tokensTwiceFree>\n"
                                           "\t<tokensUnknown>66 77</tokensUnknown>\n"
                                           "\t<tokensUnreachable></tokensUnreachable>\n"
                                           "\t<tokensWithoutBlock></tokensWithoutBlock>\n"
                                           "\t<slots>\n"
                                           "\t\too....ox\n"
                                           "\t</slots>\n"
                                           "\t<block><token>0</token><bytes>" +
                                           addressOf(0) +
                                           "</bytes><length>16</length><state>free</state>"
                                           "<slot>0</slot><probes>1</probes></block>\n"
                                           "\t<block><token>8</token><bytes>" +
                                           addressOf(8) +
                                           "</bytes><length>16</length><state>free</state>"
                                           "<slot>1</slot><probes>2</probes></block>\n"
                                           "\t<block><token>16</token><bytes>" +
                                           addressOf(16) +
                                           "</bytes><length>16</length><state>lent</state>"
                                           "<slot>6</slot><probes>3</probes></block>\n"
                                           "</GVMemoryPoolInspector>");
}

TEST(PoolInspectorText, namesFindingsInTheirOwnLines) {
    GVMemoryPool pool(0, false);
    buildBlocks(pool, {0, 16, 8});
    pool.resizePool(2);
    Peer::table(pool).insert(12, nullptr);
    const std::string text = textOf(Inspector(pool));
    EXPECT_NE(text.find("<tokensUnreachable>8</tokensUnreachable>"), std::string::npos);
    EXPECT_NE(text.find("<tokensWithoutBlock>12</tokensWithoutBlock>"), std::string::npos);
    EXPECT_NE(text.find("<block><token>8</token><bytes>0</bytes><length>0</length><state>free</state><slot>6</slot>"
                        "<probes>0</probes></block>"),
              std::string::npos);
}

TEST(PoolInspectorText, draws64SlotsALine) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(40, 16, false);
    const std::string picture = "\t<slots>\n\t\t" + std::string(40, 'o') + std::string(24, '.') + "\n\t\t" +
                                std::string(64, '.') + "\n\t</slots>\n";
    EXPECT_NE(textOf(Inspector(pool)).find(picture), std::string::npos);
}

TEST(PoolInspectorWithoutMemory, throwsAndLeavesThePoolAsItIs) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(0, 16, true);
    buildBlocks(pool, {0, 16, 8, 9, 2, 3, 4});
    pool.releaseObject(2);
    pool.releaseObject(99);
    Peer::table(pool).insert(12, nullptr);
    const std::string dump = textOf(pool);
    std::size_t refused = 0;
    for (bool completed = false; !completed;) {
        HookLedger ledger; // fails the test if a part of a snapshot is left behind
        ledger.refuseOnce(refused);
        try {
            const Inspector inspector(pool);
            completed = true;
        } catch (const std::bad_alloc&) {
            ++refused;
        }
        EXPECT_TRUE(Peer::mutexHandle(pool)->tryLock());
        Peer::mutexHandle(pool)->unlock();
        EXPECT_EQ(textOf(pool), dump);
    }
    EXPECT_EQ(refused, 7U) << "keys, free tokens, blocks, slots, and three findings";
}

TEST(PoolInspectorWithoutMemory, asksForAsMuchMemoryAsItNeedsAtOnce) {
    GVMemoryPool pool(1000, 16, false);
    const HookLedger ledger;
    const Inspector inspector(pool);
    EXPECT_EQ(ledger.allocationCount(), 4U) << "keys, free tokens, blocks and slots";
    const std::size_t words = detail::rawBlockHeaderBytes;
    const std::vector<unsigned int> requests = ledger.requests();
    const std::vector<std::size_t> sizes(requests.begin(), requests.end());
    EXPECT_EQ(sizes,
              (std::vector<std::size_t>{1000 * sizeof(unsigned int) + words, 1000 * sizeof(unsigned int) + words,
                                        1000 * sizeof(GVInspectedBlock) + words, inspector.getTableSize() + words}));
}

} // namespace Gilvane
