/// @file
/// The queue through which threads hand work to each other.
#ifndef PARALLEL_GZIP_QUEUE_H
#define PARALLEL_GZIP_QUEUE_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace ParallelGzip {

/// First in, first out. It has no limit: items hold blocks of a pool, and there are only so many blocks.
///
/// @par Thread safety
///   All operations may run concurrently.
/// @par Ownership
///   Owns the items inside.
template <typename T>
class Queue {
  public:
    /// Appends an item.
    void push(T item) {
        const std::lock_guard<std::mutex> guard(mutex);
        items.push_back(std::move(item));
        changed.notify_one();
    }

    /// Takes the oldest item, waiting for one if need be.
    /// @returns nothing when the queue is closed and empty
    std::optional<T> pop() {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait(guard, [this] { return !items.empty() || closed; });
        if (items.empty()) {
            return std::nullopt;
        }
        std::optional<T> item(std::move(items.front()));
        items.pop_front();
        return item;
    }

    /// Says that nothing more will be pushed.
    void close() {
        const std::lock_guard<std::mutex> guard(mutex);
        closed = true;
        changed.notify_all();
    }

  private:
    std::mutex mutex; // guards everything below
    std::condition_variable changed;
    std::deque<T> items;
    bool closed = false;
};

} // namespace ParallelGzip

#endif
