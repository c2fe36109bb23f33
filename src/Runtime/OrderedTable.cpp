#include "Runtime/OrderedTable.h"

#include "Runtime/ByteHash.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

OrderedTable::~OrderedTable()
{
    for (const Entry &entry : entries_) {
        TQRelease(entry.key);
        TQRelease(entry.value);
    }
}

// The slot that holds the key, or the empty one where it would go. Gaps stay in their slots until the next
// rebuild, so a search never ends too early; at least half of the slots are empty, so it ends.
size_t OrderedTable::SlotOf(const TQValue *key, uintptr_t hash, const Comparison *outer) const
{
    const size_t mask = slots_.size() - 1;
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        if (slots_[slot] == kEmpty) return slot;
        const Entry &entry = entries_[slots_[slot]];
        if (entry.key && entry.hash == hash && EqualMembers(entry.key, key, outer)) return slot;
    }
}

const OrderedTable::Entry *OrderedTable::Find(const TQValue *key, const Comparison *outer) const
{
    if (count_ == 0 || !key) return nullptr;
    const size_t index = slots_[SlotOf(key, TQHash(key), outer)];
    return index == kEmpty ? nullptr : &entries_[index];
}

// Closes the gaps and makes room for `room` entries in all.
void OrderedTable::Rebuild(size_t room)
{
    if (room > SIZE_MAX / 4 / sizeof(Entry)) throw std::length_error("table");
    std::vector<size_t> slots(std::bit_ceil(std::max<size_t>(room * 2, 8)), size_t{kEmpty});
    entries_.reserve(room);
    // Nothing below this line can fail.
    std::erase_if(entries_, [](const Entry &entry) { return !entry.key; });
    slots_.swap(slots);
    const size_t mask = slots_.size() - 1;
    for (size_t index = 0; index < entries_.size(); ++index) {
        size_t slot = entries_[index].hash & mask;
        while (slots_[slot] != kEmpty) slot = (slot + 1) & mask;
        slots_[slot] = index;
    }
}

void OrderedTable::Reserve(size_t count)
{
    if (count > slots_.size() / 2 || count > entries_.capacity()) Rebuild(count);
}

void OrderedTable::Set(TQValue *key, TQValue *value)
{
    // The table grows, or keeps its size if closing the gaps makes enough room.
    if ((entries_.size() + 1) * 2 > slots_.size() || entries_.size() == entries_.capacity())
        Rebuild(std::max<size_t>(count_ + count_ / 2 + 1, 4));

    const uintptr_t hash = TQHash(key);
    const size_t slot = SlotOf(key, hash, nullptr);
    TQRetain(value);
    if (slots_[slot] != kEmpty) {
        TQRelease(std::exchange(entries_[slots_[slot]].value, value));
        return;
    }
    slots_[slot] = entries_.size();
    entries_.push_back({hash, TQRetain(key), value});
    ++count_;
}

bool OrderedTable::Remove(const TQValue *key)
{
    if (count_ == 0 || !key) return false;
    const size_t slot = SlotOf(key, TQHash(key), nullptr);
    if (slots_[slot] == kEmpty) return false;
    const Entry removed = std::exchange(entries_[slots_[slot]], Entry{0, nullptr, nullptr});
    --count_;
    TQRelease(removed.key);
    TQRelease(removed.value);
    return true;
}

bool OrderedTable::EqualTo(const OrderedTable &other, const Comparison *comparison) const
{
    return count_ == other.count_ && Every([&](const Entry &entry) {
               const Entry *twin = other.Find(entry.key, comparison);
               return twin && EqualMembers(entry.value, twin->value, comparison);
           });
}

uintptr_t OrderedTable::Hash(uintptr_t kind, size_t budget) const
{
    uintptr_t sum = HashInteger(kind + count_);
    if (count_ > budget) return sum; // an equal table may have others first
    size_t sharers = 0;
    Every([&](const Entry &entry) {
        sharers += size_t{TakesShare(entry.key)} + size_t{TakesShare(entry.value)};
        return true;
    });
    const size_t share = ShareOfBudget(budget, count_, sharers);
    Every([&](const Entry &entry) {
        sum += HashInteger(HashMember(entry.key, share) * 3 + HashMember(entry.value, share));
        return true;
    });
    return sum;
}
