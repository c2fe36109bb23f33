// Requests of clients: structs that later versions may make longer.

#pragma once

#include "Shared/vaultry_internal_failure.h"

#include <algorithm>
#include <cstring>

inline constexpr size_t kLargestRequest = 4096; // beyond it, the size was never set

// Takes what a client asks for. A request of an earlier version is shorter, but has at least `firstSize` bytes; what it
// lacks counts as zero. A longer one was made for a later version. If the rest of it is zero, it asks for nothing
// more.
template <class Request>
bool _TakeRequest(const Request *given, size_t firstSize, uint64_t knownFlags, Request *taken, TQError **error)
{
    if (!given || given->size < firstSize || given->size > kLargestRequest)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied request was invalid");
    const auto *const bytes = reinterpret_cast<const unsigned char *>(given);
    // A size that ends inside a field has only a part of it.
    const size_t known = std::min(given->size - given->size % alignof(Request), sizeof *taken);
    *taken = {};
    memcpy(static_cast<void *>(taken), bytes, known);
    const bool asksForMore = std::any_of(bytes + known, bytes + given->size, [](auto byte) { return byte != 0; });
    if ((taken->flags & ~knownFlags) == 0 && !asksForMore) return true;
    return Failure(error).Refused(kTQStatusNotSupported,
                                  "The supplied request asks for what this version does not know");
}
