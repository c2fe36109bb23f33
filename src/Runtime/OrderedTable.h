// A hash table that keeps the order of insertion: what dictionaries and sets are made of.
//
// Entries stand in one vector in their order; slots, a power of two of them, hold where each one is. Removing an
// entry leaves a gap (a null key) that goes when the table is next rebuilt.
//
// Always: every key and value is retained; a change happens wholly or, if memory runs out, not at all; what a change
// drops is released last, when the table is consistent again, since a release may call anybody's code.

#pragma once

#include "Runtime/Object.h"

#include <vector>

class OrderedTable {
public:
    struct Entry {
        uintptr_t hash;
        TQValue *key;   // null: removed
        TQValue *value; // null in a set
    };

    OrderedTable() = default;
    OrderedTable(const OrderedTable &) = delete;
    OrderedTable &operator=(const OrderedTable &) = delete;
    ~OrderedTable();

    size_t count() const { return count_; }
    size_t bytes() const { return entries_.capacity() * sizeof(Entry) + slots_.capacity() * sizeof(size_t); }
    const Entry *Find(const TQValue *key, const Comparison *outer = nullptr) const;

    void Reserve(size_t count);             // room for so many in all. May throw bad_alloc
    void Set(TQValue *key, TQValue *value); // adds, or replaces the value; may throw bad_alloc
    bool Remove(const TQValue *key);

    // Calls `use` with each entry in order while it returns true. Returns whether it always did.
    template <class Use> bool Every(Use use) const
    {
        for (const Entry &entry : entries_)
            if (entry.key && !use(entry)) return false;
        return true;
    }

    bool EqualTo(const OrderedTable &other, const Comparison *comparison) const;
    uintptr_t Hash(uintptr_t kind, size_t budget) const; // the same in any order

private:
    static constexpr size_t kEmpty = SIZE_MAX;

    size_t SlotOf(const TQValue *key, uintptr_t hash, const Comparison *outer) const;
    void Rebuild(size_t room);

    std::vector<Entry> entries_;
    std::vector<size_t> slots_; // index into entries_, or kEmpty
    size_t count_ = 0;
};
