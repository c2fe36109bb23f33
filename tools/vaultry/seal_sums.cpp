// See seal_sums.h. All sums are modulo 2^64.

#include "seal_sums.h"

#include <algorithm>
#include <map>
#include <utility>

// The factors are 1, p and p², where p is the hash of the path, made odd so that it can be divided by.
std::array<Seal::Place, Seal::kRows> Seal::PlacesOf(uint64_t path)
{
    const uint64_t odd = path | 1;
    std::array<Place, kRows> places{};
    uint64_t factor = 1;
    for (size_t row = 0; row < kRows; ++row, factor *= odd) {
        const uint64_t bits = path >> (21 * row) & 0x1fffff;
        places[row] = {&rows_[row][bits % width_], factor};
    }
    return places;
}

void Seal::Count(uint64_t path, uint64_t value)
{
    if (width_ == 0) return;
    for (const Place &place : PlacesOf(path)) *place.cell += value * place.factor;
}

void Seal::Add(const SealedItem &item)
{
    low_ += item.low;
    high_ += item.high;
    ++count_;
    Count(item.path, item.low);
}

// What is counted stays in its place modulo the new width, since that divides the old one.
bool Seal::Shrink()
{
    if (width_ == 0) return false;
    const size_t width = width_ == kNarrowest ? 0 : kNarrowest;
    for (auto &row : rows_)
        for (size_t i = width; i < width_; ++i) {
            const uint64_t counted = std::exchange(row[i], 0);
            if (width > 0) row[i % width] += counted;
        }
    width_ = width;
    return true;
}

void AppendNumber(std::string &bytes, uint64_t number)
{
    for (int shift = 0; shift < 64; shift += 8) bytes += static_cast<char>(number >> shift & 0xff);
}

static uint64_t _Take(std::string_view &bytes)
{
    uint64_t number = 0;
    for (int i = 7; i >= 0; --i) number = number << 8 | static_cast<unsigned char>(bytes[static_cast<size_t>(i)]);
    bytes.remove_prefix(8);
    return number;
}

std::string Seal::Bytes() const
{
    std::string bytes;
    for (const uint64_t number : {low_, high_, count_}) AppendNumber(bytes, number);
    for (const auto &row : rows_)
        for (size_t i = 0; i < width_; ++i) AppendNumber(bytes, row[i]);
    return bytes;
}

std::optional<Seal> Seal::FromBytes(std::string_view bytes)
{
    for (const size_t width : {kWidest, kNarrowest, size_t{0}}) {
        if (bytes.size() != (3 + kRows * width) * sizeof(uint64_t)) continue;
        Seal seal;
        seal.width_ = width;
        for (uint64_t *number : {&seal.low_, &seal.high_, &seal.count_}) *number = _Take(bytes);
        for (auto &row : seal.rows_)
            for (size_t i = 0; i < width; ++i) row[i] = _Take(bytes);
        return seal;
    }
    return std::nullopt;
}

bool Seal::Matches(const Seal &other) const
{
    return low_ == other.low_ && high_ == other.high_ && count_ == other.count_;
}

// Newton's method: each step doubles the bits that are right, of which the odd number itself has three.
static uint64_t _InverseOf(uint64_t odd)
{
    uint64_t inverse = odd;
    for (int i = 0; i < 5; ++i) inverse *= 2 - odd * inverse;
    return inverse;
}

// Tells of a seal's differences which items have them, and takes those out, until nothing more can be told.
class Seal::Sorting {
public:
    Sorting(const Seal &differences, const std::vector<SealedItem> &items) : differences_(differences), suspects_(items)
    {
        while (Pass(&Sorting::AgreedOn)) {
        }
        // The cell of an item that is missing, or has another name, leads to one that has not changed. Then not all
        // comes out.
        Sorting bolder = *this;
        while (bolder.PassOfTheLonely() || bolder.Pass(&Sorting::AgreedOn)) {
        }
        if (bolder.AllCameOut()) *this = std::move(bolder);
    }

    Changes Result()
    {
        for (const SealedItem &item : suspects_) changes_.perhaps.push_back(item.path);
        changes_.isAnyMissing = suspects_.empty() && !AllCameOut();
        return std::move(changes_);
    }

private:
    using Telling = std::optional<uint64_t> (Sorting::*)(uint64_t path);

    // What the cells of an item say that it differs by.
    std::array<uint64_t, kRows> SaidOf(uint64_t path)
    {
        std::array<uint64_t, kRows> said{};
        const auto places = differences_.PlacesOf(path);
        std::transform(places.begin(), places.end(), said.begin(),
                       [](const Place &place) { return *place.cell * _InverseOf(place.factor); });
        return said;
    }

    // What two cells say; 0 if one says that the item does not differ.
    std::optional<uint64_t> AgreedOn(uint64_t path)
    {
        const auto said = SaidOf(path);
        if (std::find(said.begin(), said.end(), 0) != said.end()) return 0;
        if (said[0] == said[1] || said[0] == said[2]) return said[0];
        return said[1] == said[2] ? std::optional(said[1]) : std::nullopt;
    }

    // What a cell says that no other suspect counts in.
    std::optional<uint64_t> ToldAlone(uint64_t path)
    {
        const auto places = differences_.PlacesOf(path);
        for (size_t row = 0; row < kRows; ++row)
            if (users_[places[row].cell] == 1) return SaidOf(path)[row];
        return std::nullopt;
    }

    bool PassOfTheLonely()
    {
        users_.clear();
        for (const SealedItem &item : suspects_)
            for (const Place &place : differences_.PlacesOf(item.path)) ++users_[place.cell];
        return Pass(&Sorting::ToldAlone);
    }

    bool Pass(Telling tell)
    {
        std::vector<SealedItem> left;
        for (const SealedItem &item : suspects_) {
            const std::optional<uint64_t> difference = (this->*tell)(item.path);
            if (!difference) left.push_back(item);
            if (!difference || *difference == 0) continue;
            differences_.Count(item.path, 0 - *difference);
            (*difference == item.low ? changes_.added : changes_.changed).push_back(item.path);
        }
        const bool isAnyTold = left.size() < suspects_.size();
        suspects_ = std::move(left);
        return isAnyTold;
    }

    bool AllCameOut() const { return differences_.rows_ == Seal().rows_; }

    Seal differences_;
    std::vector<SealedItem> suspects_;
    std::map<const uint64_t *, size_t> users_; // how many suspects count in a cell
    Changes changes_;
};

Seal::Changes Seal::CompareWith(const std::vector<SealedItem> &items) const
{
    Changes changes;
    if (items.size() == 1 && count_ == 1) {
        changes.changed.push_back(items[0].path);
    } else if (width_ == 0) {
        changes.isAnyUntold = true;
    } else {
        Seal differences;
        for (const SealedItem &item : items) differences.Add(item);
        while (differences.width_ > width_) differences.Shrink();
        for (size_t row = 0; row < kRows; ++row)
            for (size_t i = 0; i < width_; ++i) differences.rows_[row][i] -= rows_[row][i];
        changes = Sorting(differences, items).Result();
    }
    changes.isAnyMissing |= items.size() < count_;
    return changes;
}
