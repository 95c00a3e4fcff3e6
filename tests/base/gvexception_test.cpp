#include "hookledger.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

// Both texts are longer than what a string keeps within itself, and differ in length, so that their blocks can be told
// apart.
constexpr const char* longMessage = "a message that is certainly longer than any string's own small buffer is";
constexpr const char* longFile = "libsrc/a/file/whose/name/is/longer/than/any/small/buffer";

const void* blockStartOf(const char* text) { return text - detail::rawBlockHeaderBytes; }

GVException longException() { return GVException(longMessage, longFile, 17, gvinvalidstate, 0); }

} // namespace

TEST(ExceptionKinds, haveTheirFixedValues) {
    EXPECT_EQ(static_cast<int>(gvinvalidstate), 1);
    EXPECT_EQ(static_cast<int>(gvoutofmemory), 5);
    EXPECT_EQ(static_cast<int>(gviteratormisuse), 12);
    EXPECT_EQ(static_cast<int>(gvhashtablefailure), 20);
}

TEST(ExceptionKinds, are32BitsWide) { EXPECT_EQ(sizeof(gvexceptiontype), 4U); }

TEST(Exception, keepsWhatItWasGiven) {
    const GVException exception("the message", "the/file", 4000000000U, gviteratormisuse, -3);
    EXPECT_STREQ(exception.getMessage(), "the message");
    EXPECT_STREQ(exception.getFile(), "the/file");
    EXPECT_EQ(exception.getLine(), 4000000000U);
    EXPECT_EQ(exception.getKind(), gviteratormisuse);
    EXPECT_EQ(exception.getCode(), -3);
}

TEST(Exception, itsAccessorsHaveTheirTypesAndDoNotThrow) {
    const GVException exception("", "", 0, gvinvalidstate, 0);
    EXPECT_TRUE((std::is_same_v<decltype(exception.getMessage()), const char*>));
    EXPECT_TRUE((std::is_same_v<decltype(exception.getFile()), const char*>));
    EXPECT_TRUE((std::is_same_v<decltype(exception.getLine()), unsigned int>));
    EXPECT_TRUE((std::is_same_v<decltype(exception.getKind()), gvexceptiontype>));
    EXPECT_TRUE((std::is_same_v<decltype(exception.getCode()), int>));
    EXPECT_TRUE(noexcept(exception.getMessage())&& noexcept(exception.getFile()));
}

TEST(Exception, keepsEmptyTexts) {
    const GVException exception("", "", 1, gvinvalidstate, 0);
    EXPECT_STREQ(exception.getMessage(), "");
    EXPECT_STREQ(exception.getFile(), "");
}

TEST(Exception, keepsCopiesOfItsTexts) {
    char message[] = "first message";
    char file[] = "first file";
    const GVException exception(message, file, 1, gvinvalidstate, 0);
    std::memset(message, 'x', sizeof message - 1);
    std::memset(file, 'y', sizeof file - 1);
    EXPECT_STREQ(exception.getMessage(), "first message");
    EXPECT_STREQ(exception.getFile(), "first file");
}

TEST(Exception, holdsItsTwoTextsAndThreeNumbersAndNothingElse) {
    // The root, the two texts; the message, the line, the kind, the code.
    using Text = std::basic_string<char, std::char_traits<char>, GVStdAllocator<char>>;
    EXPECT_EQ(sizeof(GVExceptionMessage), sizeof(GVObject) + 2 * sizeof(Text));
    const std::size_t alignment = alignof(GVException);
    const std::size_t bytes = sizeof(GVObject) + sizeof(GVExceptionMessage) + 3 * 4;
    EXPECT_EQ(sizeof(GVException), (bytes + alignment - 1) / alignment * alignment);
}

TEST(Exception, takesTheMemoryOfItsTextsFromTheHooks) {
    const HookLedger ledger;
    const GVException exception = longException();
    EXPECT_EQ(ledger.allocationCount(), 2U);
    const std::vector<HookLedger::Block> blocks = ledger.liveBlocks();
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].start, blockStartOf(exception.getMessage()));
    EXPECT_EQ(blocks[1].start, blockStartOf(exception.getFile()));
    EXPECT_STREQ(exception.getMessage(), longMessage);
    EXPECT_STREQ(exception.getFile(), longFile);
}

TEST(Exception, releasesItsSecondTextBeforeItsFirst) {
    const HookLedger ledger;
    const void* first = nullptr;
    const void* second = nullptr;
    {
        const GVException exception = longException();
        first = blockStartOf(exception.getMessage());
        second = blockStartOf(exception.getFile());
    }
    const std::vector<void*> releases = ledger.releases();
    ASSERT_EQ(releases.size(), 2U);
    EXPECT_EQ(releases[0], second);
    EXPECT_EQ(releases[1], first);
}

TEST(ExceptionMessage, keepsCopiesOfBothTexts) {
    char message[] = "first message";
    char file[] = "first file";
    const GVExceptionMessage texts(message, file);
    std::memset(message, 'x', sizeof message - 1);
    std::memset(file, 'y', sizeof file - 1);
    EXPECT_STREQ(texts.getMessage(), "first message");
    EXPECT_STREQ(texts.getFile(), "first file");
}

TEST(ExceptionMessage, releasesItsSecondTextBeforeItsFirst) {
    const HookLedger ledger;
    const void* first = nullptr;
    const void* second = nullptr;
    {
        const GVExceptionMessage texts(longMessage, longFile);
        first = blockStartOf(texts.getMessage());
        second = blockStartOf(texts.getFile());
    }
    const std::vector<void*> releases = ledger.releases();
    ASSERT_EQ(releases.size(), 2U);
    EXPECT_EQ(releases[0], second);
    EXPECT_EQ(releases[1], first);
}

TEST(ExceptionMessage, releasesItsFirstTextWhenTheSecondCannotBeHad) {
    HookLedger ledger;
    ledger.refuseOnce(1);
    EXPECT_THROW(GVExceptionMessage(longMessage, longFile), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(ExceptionMessage, copiesHaveTextsOfTheirOwn) {
    const HookLedger ledger;
    GVExceptionMessage copy("", "");
    {
        const GVExceptionMessage original(longMessage, longFile);
        const GVExceptionMessage built(original);
        EXPECT_NE(built.getMessage(), original.getMessage());
        EXPECT_STREQ(built.getMessage(), longMessage);
        copy = original;
    }
    EXPECT_STREQ(copy.getMessage(), longMessage);
    EXPECT_STREQ(copy.getFile(), longFile);
}

TEST(Exception, aCopyOutlivesTheOriginal) {
    const HookLedger ledger;
    GVException copy("", "", 0, gvhashtablefailure, 1);
    {
        const GVException original(longMessage, longFile, 17, gvoutofmemory, 4);
        const GVException built(original);
        EXPECT_NE(built.getMessage(), original.getMessage());
        EXPECT_NE(built.getFile(), original.getFile());
        EXPECT_EQ(built.getLine(), 17U);
        EXPECT_EQ(ledger.liveBlocks().size(), 4U);
        copy = built;
    }
    EXPECT_STREQ(copy.getMessage(), longMessage);
    EXPECT_STREQ(copy.getFile(), longFile);
    EXPECT_EQ(copy.getLine(), 17U);
    EXPECT_EQ(copy.getKind(), gvoutofmemory);
    EXPECT_EQ(copy.getCode(), 4);
}

TEST(Exception, isCaughtByItsOwnNameOnly) {
    std::string caughtAs;
    try {
        throw GVException("the message", "the/file", 9, gvinvalidstate, 0);
    } catch (const std::exception&) {
        caughtAs = "std::exception";
    } catch (const GVException& exception) {
        caughtAs = exception.getMessage();
    }
    EXPECT_EQ(caughtAs, "the message");
}

TEST(Exception, isCaughtByItsRoot) {
    EXPECT_THROW(throw GVException("the message", "the/file", 9, gvinvalidstate, 0), GVObject);
}

TEST(Exception, isThrownWithOnePairOfTextsAndReleasesThemAfterTheLastHandler) {
    const HookLedger ledger;
    std::exception_ptr kept;
    try {
        throw longException();
    } catch (const GVException& exception) {
        EXPECT_STREQ(exception.getMessage(), longMessage);
        EXPECT_EQ(ledger.allocationCount(), 2U);
        kept = std::current_exception();
    }
    EXPECT_EQ(ledger.liveBlocks().size(), 2U);
    EXPECT_THROW(std::rethrow_exception(kept), GVException);
    kept = nullptr;
    EXPECT_EQ(ledger.releaseCount(), 2U);
    EXPECT_EQ(ledger.allocationCount(), 2U);
}

TEST(Exception, givesWayToBadAllocWhenItsMessageCannotBeHad) {
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_THROW(throw longException(), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(Exception, givesWayToBadAllocWhenItsFileNameCannotBeHad) {
    HookLedger ledger;
    ledger.refuseOnce(1);
    EXPECT_THROW(throw longException(), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(Exception, needsNoMemoryForShortTexts) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    EXPECT_THROW(throw GVException("short", "file", 9, gvoutofmemory, 0), GVException);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(Exception, isMadeAndDeletedThroughTheHooks) {
    const HookLedger ledger;
    const GVObject* const exception = new GVException(longMessage, longFile, 17, gvinvalidstate, 0);
    EXPECT_EQ(ledger.requests().at(0), sizeof(GVException) + detail::rawBlockHeaderBytes);
    void* const start = ledger.liveBlocks().at(0).start;

    delete exception;

    ASSERT_EQ(ledger.releaseCount(), 3U);
    EXPECT_EQ(ledger.releases().back(), start);
}

TEST(ExceptionMessage, isMadeAndDeletedThroughTheHooks) {
    const HookLedger ledger;
    const GVObject* const texts = new GVExceptionMessage(longMessage, longFile);
    EXPECT_EQ(ledger.requests().at(0), sizeof(GVExceptionMessage) + detail::rawBlockHeaderBytes);
    void* const start = ledger.liveBlocks().at(0).start;

    delete texts;

    ASSERT_EQ(ledger.releaseCount(), 3U);
    EXPECT_EQ(ledger.releases().back(), start);
}

} // namespace Gilvane
