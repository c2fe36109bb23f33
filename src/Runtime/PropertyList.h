// The binary property-list format, version 1.0, shared by its reader and its writer.
//
//   "bplist00"       8 bytes
//   objects          each a marker byte (kind in the high half, size or count in the low one) and its contents;
//                    a container's contents are the numbers of its members in the offset table
//   offset table     where each object begins, from the start of the file
//   trailer          32 bytes: 6 unused, the size of an offset, the size of an object number, and, of 8 bytes
//                    each, the count of objects, the number of the top one and where the offset table begins
//
// All integers are big-endian. A count of 15 or more stands in an integer object behind the marker.

#pragma once

#include <cstddef>
#include <cstdint>

namespace plist {

inline constexpr char kHeader[] = "bplist00";
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kTrailerSize = 32;
inline constexpr size_t kTrailerUnused = 6;

// How deep containers may nest; each level takes stack.
inline constexpr size_t kMaximumDepth = 512;

enum Marker : uint8_t {
    kFalse = 0x08,
    kTrue = 0x09,
    kInteger = 0x10, // low half: log2 of the size in bytes
    kReal = 0x20,    // the same
    kDate = 0x33,
    kData = 0x40,
    kASCII = 0x50,
    kUTF16 = 0x60,
    kArray = 0xa0,
    kDictionary = 0xd0,

    kKindMask = 0xf0,
    kCountMask = 0x0f,
    kCountFollows = 0x0f,
};

// The bytes of the smallest unsigned integer that holds `value`: 1, 2, 4 or 8.
constexpr size_t SizeOf(uint64_t value)
{
    return value <= UINT8_MAX ? 1 : value <= UINT16_MAX ? 2 : value <= UINT32_MAX ? 4 : 8;
}

} // namespace plist
