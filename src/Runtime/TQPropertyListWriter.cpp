// Writing property lists.
//
// The first pass numbers the objects, the top one 0, and encodes the scalars. Two scalars are the same exactly when
// their encodings are: 1, 1.0 and true are different, and so are 0.0 and -0.0. The second pass knows how many objects
// there are, and so how large an object number is. It writes everything into memory of the exact size.

#include "Runtime/ByteHash.h"
#include "Runtime/Collections.h"
#include "Runtime/Data.h"
#include "Runtime/Date.h"
#include "Runtime/Error.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Number.h"
#include "Runtime/PropertyList.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"
#include "Runtime/UTF8.h"

#include <vaultry/plist.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <unordered_set>
#include <vector>

using namespace plist;

namespace {

// Appends big-endian integers and bytes to anything that can append a byte.
template <class Sink> void _Append(Sink &sink, uint64_t value, size_t size)
{
    while (size-- > 0) sink.push_back(static_cast<uint8_t>(value >> (8 * size)));
}

template <class Sink> void _AppendInteger(Sink &sink, uint64_t value)
{
    const size_t size = SizeOf(value);
    sink.push_back(static_cast<uint8_t>(kInteger | std::countr_zero(size)));
    _Append(sink, value, size);
}

template <class Sink> void _AppendMarker(Sink &sink, Marker kind, size_t count)
{
    if (count < kCountFollows) return sink.push_back(static_cast<uint8_t>(kind | count));
    sink.push_back(static_cast<uint8_t>(kind | kCountFollows));
    _AppendInteger(sink, count);
}

size_t _MarkerSize(size_t count)
{
    return count < kCountFollows ? 1 : 2 + SizeOf(count);
}

// Memory of a known size that is filled from its start.
struct Output {
    uint8_t *at;

    void push_back(uint8_t byte) { *at++ = byte; }
    void append(const uint8_t *bytes, size_t length)
    {
        std::memcpy(at, bytes, length);
        at += length;
    }
};

class Writer {
public:
    // False if the value can't be in a property list; TakeReason() then says why.
    bool Number(const TQValue *top) { return Visit(top, 1) != kRefused; }
    TQData *Write() const;

    TQError *TakeReason() { return reason_.Detach(); }

private:
    static constexpr size_t kRefused = SIZE_MAX;
    static constexpr size_t kMaximumMembers = size_t{1} << 22;

    struct Item {
        Marker kind;    // kArray, kDictionary, or anything else for a scalar
        size_t start;   // of its bytes in scalars_, or of its members in members_
        size_t count;   // of bytes or members
        uintptr_t hash; // of a scalar's bytes
    };

    // Hashes and compares scalars by their bytes, for a set that holds only their numbers.
    struct BytesOf {
        const Writer *writer;
        size_t operator()(size_t number) const { return writer->items_[number].hash; }
        bool operator()(size_t a, size_t b) const
        {
            const Item &first = writer->items_[a];
            const Item &second = writer->items_[b];
            return first.count == second.count &&
                   std::memcmp(&writer->scalars_[first.start], &writer->scalars_[second.start], first.count) == 0;
        }
    };

    size_t Visit(const TQValue *value, size_t depth);
    size_t VisitContainer(const Object *container, size_t depth);
    bool VisitMembers(const TQArray *array, size_t first, size_t depth);
    bool VisitMembers(const TQDictionary *dictionary, size_t first, size_t depth);
    bool Encode(const Object *scalar);
    void EncodeNumber(const TQNumber *number);
    void EncodeString(const TQString *string);
    size_t Refuse(const char *format, ...) __attribute__((format(printf, 2, 3)));

    size_t NumberSize() const { return SizeOf(items_.size() - 1); }

    std::vector<Item> items_;
    std::vector<size_t> members_; // numbers of objects, each container's together
    std::vector<uint8_t> scalars_;
    std::unordered_set<size_t, BytesOf, BytesOf> distinct_{0, BytesOf{this}, BytesOf{this}};
    std::vector<const Object *> open_; // the containers around the present one
    Ref<TQError> reason_;
};

size_t Writer::Refuse(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const auto text = Ref<TQString>::Adopt(TQStringCreateWithFormatAndArguments(format, arguments));
    va_end(arguments);
    reason_ = Ref<TQError>::Adopt(MakeGeneralError(text.get()));
    return kRefused;
}

// --- first pass

size_t Writer::Visit(const TQValue *value, size_t depth)
{
    if (!value) return Refuse("null can't be in a property list");
    const Object *object = AsObject(value);
    if (IsKind(object, kTypeArray) || IsKind(object, kTypeDictionary)) return VisitContainer(object, depth);

    const size_t start = scalars_.size();
    if (!Encode(object)) return Refuse("a value of the kind %s can't be in a property list", object->kind->name);
    const size_t count = scalars_.size() - start;
    const size_t number = items_.size();
    items_.push_back({kFalse, start, count, HashBytes(&scalars_[start], count)});
    const auto [known, isNew] = distinct_.insert(number);
    if (isNew) return number;
    items_.pop_back();
    scalars_.resize(start);
    return *known;
}

size_t Writer::VisitContainer(const Object *container, size_t depth)
{
    if (depth > kMaximumDepth) {
        const bool inItself = std::find(open_.begin(), open_.end(), container) != open_.end();
        if (inItself) return Refuse("a container that holds itself can't be in a property list");
        return Refuse("containers nested more than %zu deep can't be in a property list", kMaximumDepth);
    }
    const bool isArray = container->kind->type == kTypeArray;
    const size_t count = isArray ? static_cast<const TQArray *>(container)->values.size()
                                 : 2 * static_cast<const TQDictionary *>(container)->table.count();
    const size_t number = items_.size();
    const size_t first = members_.size();
    // A shared container is written once for each reference, so the output could grow without end.
    if (count > kMaximumMembers - first || number > kMaximumMembers)
        return Refuse("more than %zu values can't be in a property list", kMaximumMembers);
    items_.push_back({isArray ? kArray : kDictionary, first, count, 0});
    members_.resize(first + count);
    open_.push_back(container);
    const bool visited = isArray ? VisitMembers(static_cast<const TQArray *>(container), first, depth + 1)
                                 : VisitMembers(static_cast<const TQDictionary *>(container), first, depth + 1);
    open_.pop_back();
    return visited ? number : kRefused;
}

bool Writer::VisitMembers(const TQArray *array, size_t first, size_t depth)
{
    for (const TQValue *value : array->values) {
        const size_t number = Visit(value, depth);
        if (number == kRefused) return false;
        members_[first++] = number;
    }
    return true;
}

// Numbers all keys, then all values, as other writers do.
bool Writer::VisitMembers(const TQDictionary *dictionary, size_t first, size_t depth)
{
    const auto visit = [&](const TQValue *member) {
        const size_t number = Visit(member, depth);
        members_[first++] = number;
        return number != kRefused;
    };
    return dictionary->table.Every([&](const OrderedTable::Entry &entry) {
        if (IsKind(entry.key, kTypeString)) return visit(entry.key);
        return Refuse("a key of the kind %s can't be in a property list", AsObject(entry.key)->kind->name) != kRefused;
    }) && dictionary->table.Every([&](const OrderedTable::Entry &entry) { return visit(entry.value); });
}

bool Writer::Encode(const Object *scalar)
{
    switch (scalar->kind->type) {
    case kTypeBoolean:
        scalars_.push_back(static_cast<const TQBoolean *>(scalar)->value ? kTrue : kFalse);
        return true;
    case kTypeNumber:
        EncodeNumber(static_cast<const TQNumber *>(scalar));
        return true;
    case kTypeString:
        EncodeString(static_cast<const TQString *>(scalar));
        return true;
    case kTypeDate:
        scalars_.push_back(kDate);
        _Append(scalars_, std::bit_cast<uint64_t>(static_cast<const TQDate *>(scalar)->since2001), 8);
        return true;
    case kTypeData: {
        const auto *data = static_cast<const TQData *>(scalar);
        const auto *bytes = static_cast<const uint8_t *>(data->bytes);
        _AppendMarker(scalars_, kData, data->length);
        scalars_.insert(scalars_.end(), bytes, bytes + data->length);
        return true;
    }
    default:
        return false;
    }
}

void Writer::EncodeNumber(const TQNumber *number)
{
    if (number->numberKind == kTQNumberDouble) {
        scalars_.push_back(kReal | 3);
        return _Append(scalars_, std::bit_cast<uint64_t>(number->real), 8);
    }
    if (number->numberKind == kTQNumberInt64 && number->int64 >= 0) return _AppendInteger(scalars_, number->uint64);
    // Eight bytes are signed; a number that is too large for them takes sixteen.
    const bool isLarge = number->numberKind == kTQNumberUInt64;
    scalars_.push_back(static_cast<uint8_t>(kInteger | (isLarge ? 4 : 3)));
    if (isLarge) _Append(scalars_, 0, 8);
    _Append(scalars_, number->uint64, 8);
}

void Writer::EncodeString(const TQString *string)
{
    _AppendMarker(scalars_, string->isASCII() ? kASCII : kUTF16, string->units);
    if (string->isASCII()) {
        scalars_.insert(scalars_.end(), string->bytes, string->bytes + string->length);
        return;
    }
    const char *const end = string->bytes + string->length;
    for (const char *at = string->bytes; at < end;) {
        const char32_t character = NextCharacter(at);
        if (character < 0x10000) {
            _Append(scalars_, character, 2);
            continue;
        }
        _Append(scalars_, 0xd800 + ((character - 0x10000) >> 10), 2);
        _Append(scalars_, 0xdc00 + (character & 0x3ff), 2);
    }
}

// --- second pass

TQData *Writer::Write() const
{
    const size_t numberSize = NumberSize();
    size_t tableOffset = kHeaderSize + scalars_.size() + members_.size() * numberSize;
    for (const Item &item : items_) {
        if (item.kind == kArray) tableOffset += _MarkerSize(item.count);
        if (item.kind == kDictionary) tableOffset += _MarkerSize(item.count / 2);
    }
    const size_t offsetSize = SizeOf(tableOffset);
    auto data = Ref<TQData>::Adopt(MakeData(tableOffset + items_.size() * offsetSize + kTrailerSize));
    if (!data) throw std::bad_alloc();

    auto *const start = static_cast<uint8_t *>(data.get()->bytes);
    Output objects{start};
    Output table{start + tableOffset};
    objects.append(reinterpret_cast<const uint8_t *>(kHeader), kHeaderSize);
    for (const Item &item : items_) {
        _Append(table, static_cast<uint64_t>(objects.at - start), offsetSize);
        if (item.kind == kArray || item.kind == kDictionary) {
            _AppendMarker(objects, item.kind, item.kind == kArray ? item.count : item.count / 2);
            for (size_t i = 0; i < item.count; ++i) _Append(objects, members_[item.start + i], numberSize);
        } else {
            objects.append(&scalars_[item.start], item.count);
        }
    }
    _Append(table, 0, kTrailerUnused);
    _Append(table, offsetSize, 1);
    _Append(table, numberSize, 1);
    _Append(table, items_.size(), 8);
    _Append(table, 0, 8);
    _Append(table, tableOffset, 8);
    return data.Detach();
}

} // namespace

TQData *TQPropertyListCreateData(TQValue *value, TQError **error)
{
    Ref<TQError> reason;
    TQData *data = NoThrow<TQData *>(nullptr, [&]() -> TQData * {
        Writer writer;
        if (writer.Number(value)) return writer.Write();
        reason = Ref<TQError>::Adopt(writer.TakeReason());
        return nullptr;
    });
    if (!data && error) *error = reason ? reason.Detach() : NoMemoryError();
    return data;
}
