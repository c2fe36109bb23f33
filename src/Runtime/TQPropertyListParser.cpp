// Reading property lists, whoever wrote them.
//
// The work that a file can cause is bounded. Every object is read once, and objects may not overlap, so together they
// hold no more than the file does. A container that several others refer to is one value for all of them. If containers
// are to be mutable, each of the others gets a copy of its own, and the file's size bounds what the copies take. The
// greatest depth bounds the stack.

#include "Runtime/Collections.h"
#include "Runtime/Data.h"
#include "Runtime/Date.h"
#include "Runtime/Error.h"
#include "Runtime/NoThrow.h"
#include "Runtime/PropertyList.h"
#include "Runtime/PropertyListCopy.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"
#include "Runtime/UTF8.h"

#include <vaultry/number.h>
#include <vaultry/plist.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

using namespace plist;

namespace {

// The memory that copies of shared containers may take: a fixed amount, since some writers share all equal containers,
// and more for each byte of the file.
constexpr size_t kBytesOfCopies = size_t{4} << 20;
constexpr size_t kBytesOfCopiesPerByte = 32;
constexpr size_t kTooManyBytes = SIZE_MAX / 4; // sums stop here

class Parser {
public:
    Parser(const void *bytes, size_t length, bool mutableContainers)
        : bytes_(static_cast<const uint8_t *>(bytes)), length_(length), mutable_(mutableContainers)
    {
    }

    // Null if the bytes are refused; TakeReason() then says why.
    TQValue *Parse();

    TQError *TakeReason() { return reason_.Detach(); }

private:
    enum class State : uint8_t { kUnread, kOpen, kRead };

    struct Slot {
        Ref<TQValue> value;
        size_t bytes = 0; // that a copy would take: its containers', each as often as it is met
        uint16_t height = 0;
        State state = State::kUnread;
        bool inUse = false; // by a container
    };

    // The object being read: where it begins, and what comes next.
    struct Cursor {
        size_t start;
        size_t at;
    };

    // What a function that fails returns, whether it gives a flag or a pointer.
    struct Refused {
        operator bool() const { return false; }
        operator Slot *() const { return nullptr; }
        operator Ref<TQValue>() const { return nullptr; }
    };

    bool ReadTrailer();
    Slot *Read(uint64_t number, size_t from, size_t depth);
    bool ReadContents(Slot &slot, Cursor cursor, size_t depth);
    bool ReadInteger(Slot &slot, Cursor cursor, unsigned sizeBits);
    bool ReadReal(Slot &slot, Cursor cursor, unsigned sizeBits);
    bool ReadData(Slot &slot, Cursor cursor, size_t count);
    bool ReadASCII(Slot &slot, Cursor cursor, size_t count);
    bool ReadUTF16(Slot &slot, Cursor cursor, size_t count);
    bool ReadArray(Slot &slot, Cursor cursor, size_t count, size_t depth);
    bool ReadDictionary(Slot &slot, Cursor cursor, size_t count, size_t depth);

    bool ReadCount(Cursor &cursor, uint8_t marker, size_t &count);
    bool Claim(const Cursor &cursor, size_t count, size_t size);
    Slot *ReadMember(Slot &container, const Cursor &cursor, size_t index, size_t depth);
    Ref<TQValue> Use(Slot &member, size_t from);
    Refused Refuse(size_t offset, const char *format, ...) __attribute__((format(printf, 3, 4)));

    uint64_t Integer(size_t offset, size_t size) const
    {
        uint64_t value = 0;
        for (size_t i = 0; i < size; ++i) value = value << 8 | bytes_[offset + i];
        return value;
    }

    const uint8_t *bytes_;
    size_t length_;
    bool mutable_;
    size_t offsetSize_ = 0;
    size_t numberSize_ = 0;
    size_t objectsEnd_ = 0; // where the offset table begins
    size_t top_ = 0;
    size_t claimed_ = 0; // bytes of the objects read so far
    size_t copied_ = 0;  // bytes that copies take so far
    std::vector<Slot> slots_;
    Ref<TQError> reason_;
};

Parser::Refused Parser::Refuse(size_t offset, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const auto what = Ref<TQString>::Adopt(TQStringCreateWithFormatAndArguments(format, arguments));
    va_end(arguments);
    const char *words = what ? what.get()->bytes : "damage";
    const auto text =
        Ref<TQString>::Adopt(TQStringCreateWithFormat("invalid property list: %s at offset %zu", words, offset));
    reason_ = Ref<TQError>::Adopt(MakeGeneralError(text.get()));
    return {};
}

TQValue *Parser::Parse()
{
    if (!ReadTrailer()) return nullptr;
    Slot *top = Read(top_, length_ - kTrailerSize, 1);
    return top ? top->value.Detach() : nullptr;
}

bool Parser::ReadTrailer()
{
    if (length_ < kHeaderSize + kTrailerSize) return Refuse(length_, "too few bytes");
    if (std::memcmp(bytes_, kHeader, kHeaderSize) != 0) return Refuse(0, "not a binary property list of version 1.0");

    const size_t trailer = length_ - kTrailerSize;
    const size_t fields = trailer + kTrailerUnused;
    offsetSize_ = bytes_[fields];
    numberSize_ = bytes_[fields + 1];
    const uint64_t count = Integer(fields + 2, 8);
    const uint64_t top = Integer(fields + 10, 8);
    const uint64_t table = Integer(fields + 18, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8) return Refuse(fields, "offsets of %zu bytes", offsetSize_);
    if (numberSize_ < 1 || numberSize_ > 8) return Refuse(fields + 1, "object numbers of %zu bytes", numberSize_);
    if (table <= kHeaderSize || table > trailer) return Refuse(fields + 18, "an offset table outside the file");
    // The table ends exactly where the trailer begins, so nothing can be cut off or put in between.
    const uint64_t tableSize = trailer - table;
    if (count == 0 || tableSize / offsetSize_ != count || tableSize % offsetSize_ != 0)
        return Refuse(fields + 2, "a count of objects that does not fit the offset table");
    if (top >= count) return Refuse(fields + 10, "a top object that does not exist");
    top_ = top;
    objectsEnd_ = table;
    slots_ = std::vector<Slot>(count);
    return true;
}

// The object `number`, which is referred to at the offset `from`; null if it can't be read.
Parser::Slot *Parser::Read(uint64_t number, size_t from, size_t depth)
{
    if (number >= slots_.size()) return Refuse(from, "a reference to an object that does not exist");
    Slot &slot = slots_[number];
    if (slot.state == State::kOpen) return Refuse(from, "a container that holds itself");
    if (slot.state == State::kRead) return &slot;

    const size_t entry = objectsEnd_ + number * offsetSize_;
    const uint64_t offset = Integer(entry, offsetSize_);
    if (offset < kHeaderSize || offset >= objectsEnd_) return Refuse(entry, "an object outside the file");
    slot.state = State::kOpen;
    if (!ReadContents(slot, {offset, offset}, depth)) return nullptr;
    slot.state = State::kRead;
    return &slot;
}

bool Parser::ReadContents(Slot &slot, Cursor cursor, size_t depth)
{
    const uint8_t marker = bytes_[cursor.at++];
    size_t count = 0;
    switch (marker & kKindMask) {
    case 0:
        if (marker != kTrue && marker != kFalse) break;
        slot.value = Ref<TQValue>::Retain(TQBooleanGet(marker == kTrue));
        return Claim(cursor, 0, 1);
    case kInteger:
        return ReadInteger(slot, cursor, marker & kCountMask);
    case kReal:
        return ReadReal(slot, cursor, marker & kCountMask);
    case kDate &kKindMask:
        if (marker != kDate) break;
        if (!Claim(cursor, 1, 8)) return false;
        slot.value = Made<TQValue>(MakeDateSince2001(std::bit_cast<double>(Integer(cursor.at, 8))));
        return true;
    case kData:
        return ReadCount(cursor, marker, count) && ReadData(slot, cursor, count);
    case kASCII:
        return ReadCount(cursor, marker, count) && ReadASCII(slot, cursor, count);
    case kUTF16:
        return ReadCount(cursor, marker, count) && ReadUTF16(slot, cursor, count);
    case kArray:
        return ReadCount(cursor, marker, count) && ReadArray(slot, cursor, count, depth);
    case kDictionary:
        return ReadCount(cursor, marker, count) && ReadDictionary(slot, cursor, count, depth);
    default:
        break;
    }
    return Refuse(cursor.start, "an object of the unknown kind 0x%02x", marker);
}

// --- sizes

// The count in a marker or, where it is too large for one, in the integer behind it.
bool Parser::ReadCount(Cursor &cursor, uint8_t marker, size_t &count)
{
    count = marker & kCountMask;
    if (count != kCountFollows) return true;
    if (cursor.at >= objectsEnd_) return Refuse(cursor.start, "a count that is cut off");
    const uint8_t integer = bytes_[cursor.at++];
    const size_t size = size_t{1} << (integer & 3);
    if ((integer & ~3U) != kInteger) return Refuse(cursor.at - 1, "a count that is no integer");
    if (size > objectsEnd_ - cursor.at) return Refuse(cursor.start, "a count that is cut off");
    count = Integer(cursor.at, size);
    cursor.at += size;
    return true;
}

// Whether `count` pieces of `size` bytes are there, and are not part of an object that was read before, as far as the
// sum of all sizes tells. Nothing is allocated for an object before this call.
bool Parser::Claim(const Cursor &cursor, size_t count, size_t size)
{
    if (count > (objectsEnd_ - cursor.at) / size) return Refuse(cursor.start, "an object that is cut off");
    claimed_ += cursor.at - cursor.start + count * size;
    if (claimed_ > objectsEnd_ - kHeaderSize) return Refuse(cursor.start, "objects that overlap");
    return true;
}

// --- scalars

bool Parser::ReadInteger(Slot &slot, Cursor cursor, unsigned sizeBits)
{
    if (sizeBits > 4) return Refuse(cursor.start, "an integer of an unknown size");
    const size_t size = size_t{1} << sizeBits;
    if (!Claim(cursor, 1, size)) return false;
    const uint64_t value = Integer(cursor.at + (size > 8 ? 8 : 0), std::min<size_t>(size, 8));
    if (size == 16) {
        const uint64_t high = Integer(cursor.at, 8);
        const bool isNegative = high == UINT64_MAX && value > INT64_MAX;
        if (high != 0 && !isNegative) return Refuse(cursor.start, "an integer of more than 64 bits");
        if (!isNegative) {
            slot.value = Made<TQValue>(TQNumberCreateUInt64(value));
            return true;
        }
    }
    // Eight bytes are signed, fewer are not.
    slot.value = Made<TQValue>(TQNumberCreateInt64(static_cast<int64_t>(value)));
    return true;
}

bool Parser::ReadReal(Slot &slot, Cursor cursor, unsigned sizeBits)
{
    if (sizeBits != 2 && sizeBits != 3) return Refuse(cursor.start, "a real number of an unknown size");
    const size_t size = size_t{1} << sizeBits;
    if (!Claim(cursor, 1, size)) return false;
    const uint64_t bits = Integer(cursor.at, size);
    const double real = size == 8 ? std::bit_cast<double>(bits)
                                  : static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits)));
    slot.value = Made<TQValue>(TQNumberCreateDouble(real));
    return true;
}

bool Parser::ReadData(Slot &slot, Cursor cursor, size_t count)
{
    if (!Claim(cursor, count, 1)) return false;
    slot.value = Made<TQValue>(TQDataCreate(bytes_ + cursor.at, count));
    return true;
}

bool Parser::ReadASCII(Slot &slot, Cursor cursor, size_t count)
{
    if (!Claim(cursor, count, 1)) return false;
    const uint8_t *const bytes = bytes_ + cursor.at;
    const uint8_t *const wrong = std::find_if(bytes, bytes + count, [](uint8_t byte) { return byte >= 0x80; });
    if (wrong != bytes + count) return Refuse(static_cast<size_t>(wrong - bytes_), "a byte that is not ASCII");
    slot.value = Made<TQValue>(TQStringCreateWithBytes(bytes, count));
    return true;
}

bool Parser::ReadUTF16(Slot &slot, Cursor cursor, size_t count)
{
    if (!Claim(cursor, count, 2)) return false;
    const auto unit = [&](size_t index) { return static_cast<char32_t>(Integer(cursor.at + 2 * index, 2)); };
    std::string text;
    text.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        char32_t character = unit(i);
        if ((character & 0xfc00) == 0xd800 && i + 1 < count && (unit(i + 1) & 0xfc00) == 0xdc00)
            character = 0x10000 + ((character & 0x3ff) << 10 | (unit(++i) & 0x3ff));
        if (!AppendUTF8(text, character)) return Refuse(cursor.at + 2 * i, "half a surrogate pair");
    }
    slot.value = Made<TQValue>(MakeString(text));
    return true;
}

// --- containers

// Reads the member whose number is at `index`, and checks the limits of the container.
Parser::Slot *Parser::ReadMember(Slot &container, const Cursor &cursor, size_t index, size_t depth)
{
    const size_t from = cursor.at + index * numberSize_;
    Slot *member = Read(Integer(from, numberSize_), from, depth + 1);
    if (!member) return nullptr;
    // A member that was read already, closer to the top, may reach too deep from here.
    container.height = std::max(container.height, static_cast<uint16_t>(member->height + 1));
    if (container.height > kMaximumDepth) return Refuse(from, "containers nested more than %zu deep", kMaximumDepth);
    container.bytes = std::min(container.bytes + member->bytes, kTooManyBytes);
    return member;
}

// The value for one more reference, which stands at the offset `from`. A mutable container is never in two places.
Ref<TQValue> Parser::Use(Slot &member, size_t from)
{
    const bool again = std::exchange(member.inUse, true);
    if (!again || !mutable_) return member.value;
    copied_ = std::min(copied_ + member.bytes, kTooManyBytes);
    if (copied_ > kBytesOfCopies + length_ * kBytesOfCopiesPerByte)
        return Refuse(from, "shared containers that would take more memory than the file justifies");
    return CopyMutable(member.value.get());
}

bool Parser::ReadArray(Slot &slot, Cursor cursor, size_t count, size_t depth)
{
    if (depth > kMaximumDepth) return Refuse(cursor.start, "containers nested more than %zu deep", kMaximumDepth);
    if (!Claim(cursor, count, numberSize_)) return false;
    slot.height = 1;
    auto array = Made(TQArrayCreateMutable());
    array.get()->values.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        Slot *member = ReadMember(slot, cursor, i, depth);
        if (!member) return false;
        Ref<TQValue> value = Use(*member, cursor.at + i * numberSize_);
        if (!value) return false;
        array.get()->values.push_back(value.Detach());
    }
    slot.bytes += sizeof(TQArray) + count * sizeof(TQValue *);
    array.get()->isMutable = mutable_;
    slot.value = Ref<TQValue>::Adopt(array.Detach());
    return true;
}

bool Parser::ReadDictionary(Slot &slot, Cursor cursor, size_t count, size_t depth)
{
    if (depth > kMaximumDepth) return Refuse(cursor.start, "containers nested more than %zu deep", kMaximumDepth);
    if (!Claim(cursor, count, 2 * numberSize_)) return false;
    slot.height = 1;
    auto dictionary = Made(TQDictionaryCreateMutable());
    OrderedTable &table = dictionary.get()->table;
    table.Reserve(count);
    for (size_t i = 0; i < count; ++i) {
        Slot *key = ReadMember(slot, cursor, i, depth);
        if (!key) return false;
        const size_t keyOffset = cursor.at + i * numberSize_;
        if (!IsKind(key->value.get(), kTypeString)) return Refuse(keyOffset, "a key that is not a string");
        if (table.Find(key->value.get())) return Refuse(keyOffset, "a key for the second time");
        Slot *value = ReadMember(slot, cursor, count + i, depth);
        if (!value) return false;
        const Ref<TQValue> used = Use(*value, cursor.at + (count + i) * numberSize_);
        if (!used) return false;
        table.Set(key->value.get(), used.get());
    }
    slot.bytes += sizeof(TQDictionary) + table.bytes();
    dictionary.get()->isMutable = mutable_;
    slot.value = Ref<TQValue>::Adopt(dictionary.Detach());
    return true;
}

} // namespace

TQValue *TQPropertyListCreateWithData(const TQData *data, bool mutableContainers, TQError **error)
{
    Ref<TQError> reason;
    TQValue *value = NoThrow<TQValue *>(nullptr, [&]() -> TQValue * {
        Parser parser(TQDataGetBytes(data), TQDataGetLength(data), mutableContainers);
        TQValue *top = parser.Parse();
        reason = Ref<TQError>::Adopt(parser.TakeReason());
        return top;
    });
    if (!value && error) *error = reason ? reason.Detach() : NoMemoryError();
    return value;
}
