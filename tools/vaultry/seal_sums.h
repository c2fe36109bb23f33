// What a generation held when it was sealed, in little room: enough to tell later whether anything differs, and which
// items do.
//
// An item has a hash of its path, and one of all that it is. The sum of the latter tells whether anything differs. To
// tell what, each item also counts in one cell of each of three rows, times a factor that depends on its path. One that
// has changed leaves its difference in three cells, times its own three factors: two cells that agree on it name it,
// and fit no other item. Then it is taken out of the cells, and others may show. So the room for a seal depends on how
// many changed items it can name, and not on how many items there are; and as sums have no order, nothing is sorted.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The eight bytes of a number, the lowest first on every machine.
void AppendNumber(std::string &bytes, uint64_t number);

struct SealedItem {
    uint64_t path;      // a hash
    uint64_t low, high; // a hash of the item and its path
};

// In full, 1,032 bytes; the comment on Changes says what that is enough for.
class Seal {
public:
    void Add(const SealedItem &item);
    uint64_t count() const { return count_; } // of items

    // Merges cells, for less room. False if there are none left to merge.
    bool Shrink();

    // As it is kept; the length tells how many cells there are. None for bytes that are no seal.
    std::string Bytes() const;
    static std::optional<Seal> FromBytes(std::string_view bytes);

    // Whether both are of the same items, whatever their room.
    bool Matches(const Seal &other) const;

    // What is not as it was sealed, by the hash of its path. In full room, ten items that have changed are told apart
    // however many there are besides, and nearly always twenty; up to sixty are if there are no others. Without room,
    // none are.
    struct Changes {
        std::vector<uint64_t> changed, added;
        std::vector<uint64_t> perhaps; // all that may have changed besides
        bool isAnyMissing = false;     // there are more, and none of these items
        bool isAnyUntold = false;      // there are some, and no room to tell which
    };
    // For one that the items don't match.
    Changes CompareWith(const std::vector<SealedItem> &items) const;

private:
    class Sorting;
    static constexpr size_t kRows = 3, kWidest = 42, kNarrowest = 14;

    // Where an item counts in a row, and how often.
    struct Place {
        uint64_t *cell;
        uint64_t factor;
    };
    std::array<Place, kRows> PlacesOf(uint64_t path);
    void Count(uint64_t path, uint64_t value);

    uint64_t low_ = 0, high_ = 0, count_ = 0;
    size_t width_ = kWidest; // of a row
    std::array<std::array<uint64_t, kWidest>, kRows> rows_{};
};
