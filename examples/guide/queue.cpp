// Sends objects in blocks through a queue of another library: a token goes in, and is a lease again at the other end.
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <blockingconcurrentqueue.h>

#include <atomic>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Gilvane::GVObjectLease;
using Gilvane::GVSharedPool;
using Gilvane::GVSharedTokenLease;
using Gilvane::GVTokenCache;

namespace {

constexpr unsigned int numberOfBlocks = 16;
constexpr unsigned int numberOfProducers = 2;
constexpr unsigned int numberOfConsumers = 3;
constexpr unsigned int numberOfMessages = 5000; // of each producer

std::atomic<int> messagesAlive = 0;

// [types]
// Has a constructor and a destructor, and memory of its own: bytes alone would not do.
struct Message {
    Message(unsigned int givenNumber, std::string givenText) : number(givenNumber), text(std::move(givenText)) {
        ++messagesAlive;
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { --messagesAlive; }

    unsigned int number;
    std::string text;
};

// An empty token ends the consumer that takes it.
using TokenQueue = moodycamel::BlockingConcurrentQueue<std::optional<unsigned int>>;
// [types]

// [send]
// Gives the message away, or throws std::bad_alloc and loses nothing.
void send(TokenQueue& queue, GVSharedPool& pool, GVObjectLease<Message> message) {
    const unsigned int token = message.release();                               // the message stays alive in its block
    if (!queue.enqueue(token)) {                                                // the queue found no memory
        const GVObjectLease<Message> back(pool, token, Gilvane::gvadoptedloan); // ends here, and the message with it
        throw std::bad_alloc();
    }
}
// [send]

} // namespace

int main() {
    // [pool]
    GVSharedPool pool(numberOfBlocks, sizeof(Message));
    TokenQueue queue;
    // [pool]
    std::atomic<unsigned long> sum = 0;

    std::vector<std::thread> producers;
    for (unsigned int producer = 0; producer < numberOfProducers; ++producer) {
        producers.emplace_back([&] {
            // [producer]
            GVTokenCache cache(pool, 4);
            for (unsigned int number = 1; number <= numberOfMessages; ++number) {
                // Waits while all blocks are on their way, and constructs the message in the block that comes.
                auto message = GVObjectLease<Message>::wait(cache, number, "message " + std::to_string(number));
                if (!message) {
                    break; // the pool was closed
                }
                send(queue, pool, std::move(message));
            }
            // [producer]
        }); // the cache gives back what it holds
    }

    std::vector<std::thread> consumers;
    for (unsigned int consumer = 0; consumer < numberOfConsumers; ++consumer) {
        consumers.emplace_back([&] {
            // [consumer]
            for (;;) {
                std::optional<unsigned int> token;
                queue.wait_dequeue(token);
                if (!token.has_value()) {
                    break;
                }
                // The token is a lease again. The message is destroyed and its block returned at the end of the scope.
                const GVObjectLease<Message> message(pool, *token, Gilvane::gvadoptedloan);
                sum += message->number;
            }
            // [consumer]
        });
    }

    for (std::thread& producer : producers) {
        producer.join();
    }
    // [end]
    {
        // When this thread has all blocks, no message is on its way any more, and no mark can overtake one.
        std::vector<GVSharedTokenLease> allBlocks;
        while (allBlocks.size() < numberOfBlocks) {
            allBlocks.push_back(GVSharedTokenLease::wait(pool));
        }
        for (unsigned int consumer = 0; consumer < numberOfConsumers; ++consumer) {
            if (!queue.enqueue(std::nullopt)) {
                throw std::bad_alloc();
            }
        }
    }
    // [end]
    for (std::thread& consumer : consumers) {
        consumer.join();
    }
    std::cout << "sum: " << sum << ", messages alive: " << messagesAlive
              << ", blocks lent: " << pool.getStatistics().theLentCount << "\n";

    // [left]
    // Two messages that nobody takes any more.
    for (unsigned int number = 0; number < 2; ++number) {
        send(queue, pool, GVObjectLease<Message>(pool, number, "too late"));
    }
    std::cout << "left in the queue: " << messagesAlive << "\n";
    // Before the pool goes: as leases they end.
    for (std::optional<unsigned int> token; queue.try_dequeue(token);) {
        const GVObjectLease<Message> message(pool, *token, Gilvane::gvadoptedloan);
    }
    std::cout << "messages alive: " << messagesAlive << ", blocks lent: " << pool.getStatistics().theLentCount << "\n";
    // [left]
    return messagesAlive == 0 ? 0 : 1;
}
