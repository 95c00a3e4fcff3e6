/// @file
/// The hash table, as plainly as possible: an array is a std::vector, a value is a number.
#ifndef GILVANE_PROOF_REFERENCE_TABLE_H
#define GILVANE_PROOF_REFERENCE_TABLE_H

#include "allocation.h"
#include "notdriven.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Gilvane::reference {

enum State : unsigned int { empty = 0, occupied = 1, deleted = 2 };

/// Fields that were never set hold nothing.
struct Slot {
    unsigned int state = empty;
    std::optional<unsigned int> key = {};
    std::optional<unsigned int> hash = {};
    std::optional<int> value = {}; // a number, or the Id of a block
};

inline unsigned int identity(unsigned int key) { return key; }

class Table {
  public:
    using HashFunction = unsigned int (*)(unsigned int);
    static constexpr unsigned int smallSize = 8;
    static constexpr const char* file = "libsrc/datastructures/gvhashtable";

    HashFunction hashOf;
    What arrayKind; // arrayOfPool or arrayOfTable
    unsigned int used = 0;
    unsigned int fill = 0;
    unsigned int size = smallSize;
    RawBlock array;          // none while the size is 8
    std::vector<Slot> small; // what a table of 8 slots lives in, one slot for the end included
    std::vector<Slot> large; // the slots of `array`

    explicit Table(HashFunction function = identity, What kind = What::arrayOfTable)
        : hashOf(function), arrayKind(kind), small(smallSize + 1) {}
    /// Stores the other's pairs in the order of its slots. A refused growth loses the array grown to before.
    Table(const Table& other) : Table(other.hashOf, other.arrayKind) {
        try {
            for (const Slot& slot : other.slots()) {
                if (slot.state == occupied) {
                    insert(*slot.key, *slot.value);
                }
            }
        } catch (...) {
            lose(arrayKind == What::arrayOfPool ? Loss::arrayOfFailedPoolCopy : Loss::arrayOfFailedTableCopy,
                 array.leave());
            throw;
        }
    }
    Table& operator=(const Table&) = delete;
    ~Table() = default;

    std::vector<Slot>& slots() { return size == smallSize ? small : large; }
    const std::vector<Slot>& slots() const { return size == smallSize ? small : large; }
    unsigned int getUsedCount() const { return used; }

    /// The slot where the key is, or where it would be stored.
    unsigned int lookup(unsigned int key, unsigned int hash) const {
        const std::vector<Slot>& all = slots();
        const unsigned int home = hash % size;
        std::optional<unsigned int> free;
        if (all[home].state == empty) {
            return home;
        }
        if (all[home].state == deleted) {
            free = home;
        } else if (*all[home].hash == hash && *all[home].key == key) {
            return home;
        }
        std::uint32_t perturb = hash;
        std::uint32_t i = 5 * home + 1 + perturb;
        // Seven shifts use the hash up; from then on `size` steps visit every slot.
        for (unsigned int step = 0; step < size + 8; ++step) {
            const Slot& slot = all[i % size];
            if (slot.state != occupied) {
                return free ? *free : i % size;
            }
            if (*slot.key == key) {
                return i % size;
            }
            perturb >>= 5;
            i = 5 * i + 1 + perturb;
        }
        throw NotDriven{"the search does not end"};
    }

    /// The slot of a key that is there.
    std::optional<unsigned int> find(unsigned int key) const {
        const unsigned int index = lookup(key, hashOf(key));
        return slots()[index].state == occupied ? std::optional<unsigned int>(index) : std::nullopt;
    }

    /// Stores without growing.
    int insert_helper(unsigned int key, int value) {
        const unsigned int hash = hashOf(key);
        Slot& slot = slots()[lookup(key, hash)];
        if (slot.state == occupied) {
            slot.key = key;
            slot.value = value;
            return 2;
        }
        fill += slot.state == empty ? 1 : 0;
        used += 1;
        slot = {occupied, key, hash, value};
        return 2;
    }

    /// Stored first; a growth that is refused afterwards leaves it stored.
    int insert(unsigned int key, int value) {
        insert_helper(key, value);
        if (fill * 3 >= size * 2 && resize(used < 30000 ? used * 4 : used * 2) <= 1) {
            throwException(20, "Error occured while resizing table.", file);
        }
        return 2;
    }

    /// @returns 2 when done, 0 when there was nothing to do
    int resize(unsigned int minUsed) {
        unsigned int newSize = smallSize;
        while (newSize != 0 && newSize <= minUsed) {
            newSize *= 2;
        }
        if (newSize == 0 || (newSize == smallSize && size == smallSize && fill == used)) {
            return 0;
        }
        if (newSize > limits.slots) {
            throw NotDriven{"a table larger than it is to be"};
        }
        // To the embedded slots by way of a copy, even of a heap array.
        RawBlock asked = requestArray(newSize > smallSize ? newSize + 1 : size + 1);
        const std::vector<Slot> old = slots();
        std::swap(array, asked);
        if (newSize > smallSize) {
            large.assign(newSize + 1, Slot());
        } else {
            asked = std::move(array);
            emptySmall();
        }
        size = newSize;
        used = 0;
        fill = 0;
        for (const Slot& slot : old) {
            if (slot.state == occupied) {
                insert_helper(*slot.key, *slot.value);
            }
        }
        return 2;
    }

    /// The value of a key, which is added with 0 when it is not found.
    int& operator[](unsigned int key) {
        if (!find(key)) {
            insert(key, 0);
        }
        return *slots()[*find(key)].value;
    }

    bool remove(unsigned int key) {
        const std::optional<unsigned int> index = find(key);
        if (!index) {
            return false;
        }
        slots()[*index].state = deleted;
        used -= 1;
        return true;
    }

    void clear() {
        array = RawBlock();
        emptySmall();
        for (unsigned int index = 0; index < smallSize; ++index) {
            small[index].value = 0;
        }
        used = 0;
        fill = 0;
        size = smallSize;
    }

    std::vector<unsigned int> keys() const {
        std::vector<unsigned int> result;
        for (const Slot& slot : slots()) {
            if (slot.state == occupied) {
                result.push_back(*slot.key);
            }
        }
        return result;
    }

    bool operator==(const Table& other) const {
        return used == other.used && std::all_of(slots().begin(), slots().end(), [&other](const Slot& slot) {
                   const auto found = slot.state == occupied ? other.find(*slot.key) : std::nullopt;
                   return slot.state != occupied || (found && other.slots()[*found].value == slot.value);
               });
    }

    /// @param text  of a value
    template <typename Text>
    std::string dump(Text text) const {
        std::string result = "<GVHashTable>";
        for (const Slot& slot : slots()) {
            if (slot.state == occupied) {
                result += "\n\t<GVHashTableEntry>\n\t\t<K>" + std::to_string(*slot.key) + "</K>\n\t\t<V>" +
                          text(*slot.value) + "</V>\n\t</GVHashTableEntry>\n";
            }
        }
        return result + "</GVHashTable>";
    }

  private:
    RawBlock requestArray(unsigned int entries) const {
        const Id id = meter->request(arrayKind, entries);
        if (id == 0) {
            throwException(5, "Unable to allocate space for new table.", file);
        }
        return RawBlock(id);
    }

    /// Embedded slots keep what they held, but for the state.
    void emptySmall() {
        large.clear();
        for (unsigned int index = 0; index < smallSize; ++index) {
            small[index].state = empty;
        }
    }
};

} // namespace Gilvane::reference

#endif
