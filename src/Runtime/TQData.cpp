#include "Runtime/Allocator.h"
#include "Runtime/ByteHash.h"
#include "Runtime/Data.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kDescribedBytes = 32;

bool _EqualData(const Object *a, const Object *b, const Comparison *)
{
    const auto *first = static_cast<const TQData *>(a);
    const auto *second = static_cast<const TQData *>(b);
    return first->length == second->length &&
           (first->length == 0 || std::memcmp(first->bytes, second->bytes, first->length) == 0);
}

uintptr_t _HashData(const Object *object, size_t budget)
{
    const auto *data = static_cast<const TQData *>(object);
    const size_t end = std::min(budget, data->length) * 8;
    if (data->length <= 2 * end) return HashBytes(data->bytes, data->length);
    const char *const bytes = static_cast<const char *>(data->bytes);
    return HashInteger(HashBytes(bytes, end) * 3 + HashBytes(bytes + data->length - end, end)) + data->length;
}

void _DescribeData(const Object *object, Description &description)
{
    const auto *data = static_cast<const TQData *>(object);
    description.AppendFormat("<%zu bytes", data->length);
    const auto *bytes = static_cast<const unsigned char *>(data->bytes);
    const size_t shown = std::min(data->length, kDescribedBytes);
    for (size_t i = 0; i < shown; ++i) description.AppendFormat(i == 0 ? ": %02x" : "%02x", bytes[i]);
    description.Append(shown < data->length ? "…>" : ">");
}

constexpr Kind kDataKind = {kTypeData, "data", false, Destroy<TQData>, _EqualData, _HashData, _DescribeData};

} // namespace

TQData::TQData(size_t ofLength) noexcept : Object(&kDataKind), bytes(this + 1), length(ofLength), deallocator(nullptr)
{
}

TQData::TQData(void *taken, size_t ofLength, TQAllocator *bytesDeallocator) noexcept
    : Object(&kDataKind), bytes(taken), length(ofLength),
      deallocator(static_cast<TQAllocator *>(TQRetain(bytesDeallocator)))
{
}

TQData::~TQData()
{
    if (!deallocator) return;
    TQAllocatorDeallocate(deallocator, bytes);
    TQRelease(deallocator);
}

TQData *MakeData(size_t length)
{
    return MakeObject<TQData>(nullptr, length, length);
}

TQTypeID TQDataGetTypeID(void)
{
    return kTypeData;
}

TQData *TQDataCreate(const void *bytes, size_t length)
{
    if (!bytes && length > 0) return nullptr;
    TQData *data = MakeData(length);
    if (data && length > 0) std::memcpy(data->bytes, bytes, length);
    return data;
}

TQData *TQDataCreateNoCopy(TQAllocator *allocator, void *bytes, size_t length, TQAllocator *bytesDeallocator)
{
    if (!bytes && length > 0) return nullptr;
    return MakeObject<TQData>(As(allocator), 0, bytes, length,
                              bytesDeallocator ? bytesDeallocator : kTQAllocatorDefault);
}

const void *TQDataGetBytes(const TQData *data)
{
    const TQData *given = As(data);
    return given ? given->bytes : nullptr;
}

size_t TQDataGetLength(const TQData *data)
{
    const TQData *given = As(data);
    return given ? given->length : 0;
}
