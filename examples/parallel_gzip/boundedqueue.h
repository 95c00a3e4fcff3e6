/// @file
/// The queue through which threads hand work to each other, and the limit on the work under way.
#ifndef PARALLEL_GZIP_BOUNDEDQUEUE_H
#define PARALLEL_GZIP_BOUNDEDQUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace ParallelGzip {

/// First in, first out, with room for a fixed number of items.
///
/// It ends in one of two ways: closed, after which the items still inside are taken out one by one; or cancelled,
/// after which nothing goes in or comes out and nobody waits.
///
/// @par Invariants
///   items.size() <= capacity
/// @par Thread safety
///   All operations may run concurrently.
/// @par Ownership
///   Owns the items inside.
template <typename T>
class BoundedQueue {
  public:
    /// @param itemCount  items that fit, at least 1
    explicit BoundedQueue(std::size_t itemCount) : capacity(itemCount) {}

    /// Appends an item, waiting for room if need be.
    /// @returns false, with the item dropped, when the queue is cancelled
    bool push(T item) {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait(guard, [this] { return items.size() < capacity || cancelled; });
        if (cancelled) {
            return false;
        }
        items.push_back(std::move(item));
        changed.notify_all();
        return true;
    }

    /// Takes the oldest item, waiting for one if need be.
    /// @returns nothing when the queue is closed and empty, or cancelled
    std::optional<T> pop() {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait(guard, [this] { return !items.empty() || closed || cancelled; });
        if (items.empty() || cancelled) {
            return std::nullopt;
        }
        std::optional<T> item(std::move(items.front()));
        items.pop_front();
        changed.notify_all();
        return item;
    }

    /// Says that nothing more will be pushed.
    void close() {
        const std::lock_guard<std::mutex> guard(mutex);
        closed = true;
        changed.notify_all();
    }

    /// Sends everybody home, now.
    void cancel() {
        const std::lock_guard<std::mutex> guard(mutex);
        cancelled = true;
        changed.notify_all();
    }

  private:
    const std::size_t capacity; // items
    std::mutex mutex;           // guards everything below
    std::condition_variable changed;
    std::deque<T> items;
    bool closed = false;
    bool cancelled = false;
};

/// A fixed number of permits. Who wants to begin something takes one; who ends it gives it back.
///
/// @par Thread safety
///   All operations may run concurrently.
class Permits {
  public:
    explicit Permits(unsigned int count) : available(count) {}

    /// Takes a permit, waiting for one if need be.
    /// @returns false, without a permit, when cancelled
    bool acquire() {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait(guard, [this] { return available > 0 || cancelled; });
        if (cancelled) {
            return false;
        }
        --available;
        return true;
    }

    /// Gives a permit back.
    void release() {
        const std::lock_guard<std::mutex> guard(mutex);
        ++available;
        changed.notify_one();
    }

    /// Sends everybody home, now.
    void cancel() {
        const std::lock_guard<std::mutex> guard(mutex);
        cancelled = true;
        changed.notify_all();
    }

  private:
    std::mutex mutex; // guards everything below
    std::condition_variable changed;
    unsigned int available;
    bool cancelled = false;
};

} // namespace ParallelGzip

#endif
