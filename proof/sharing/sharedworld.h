/// @file
/// What the library's copy has in the place of atomic words, locks and sleep: each asks the explorer before it does
/// something that other threads can see.
#ifndef GILVANE_PROOF_SHARING_SHAREDWORLD_H
#define GILVANE_PROOF_SHARING_SHAREDWORLD_H

#include <atomic>
#include <cstdint>

namespace Gilvane::Sharing {

/// Something that threads share, by a number. It is the same one in every schedule: the thread that makes it, and how
/// many that thread has made before.
class Shared {
  public:
    Shared() noexcept;
    unsigned int number() const noexcept { return theNumber; }

  private:
    unsigned int theNumber;
};

/// An atomic word. Whatever order the library asks for, each access happens at one moment for all threads.
class Word {
  public:
    // NOLINTNEXTLINE(google-explicit-constructor): as std::atomic
    Word(std::uint32_t value) noexcept;
    Word(const Word&) = delete;
    Word& operator=(const Word&) = delete;

    std::uint32_t load(std::memory_order) const noexcept;
    void store(std::uint32_t value, std::memory_order) noexcept;
    bool compare_exchange_strong(std::uint32_t& expected, std::uint32_t desired, std::memory_order) noexcept;
    /// Releases nothing and holds nothing: sleeps if the word has that value, until somebody wakes the thread.
    /// @param mark     by which it is woken
    /// @param isTimed  whether it may also wake up by itself
    void sleepAt(std::uint32_t value, std::uint32_t mark, bool isTimed) noexcept;
    /// Wakes the threads that sleep at the word and have one of those marks.
    void wake(std::uint32_t marks) const noexcept;

  private:
    std::uint32_t theValue;
    Shared theIdentity;
};

/// A lock; the explorer lets a thread go on only when it is free.
class Lock {
  public:
    void lock() noexcept;
    void unlock() noexcept;

  private:
    Shared theIdentity;
};

/// One of so many ways to go on, all of which are tried.
unsigned int choose(unsigned int options) noexcept;

} // namespace Gilvane::Sharing

#endif
