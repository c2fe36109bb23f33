// Requests of clients: structs that later versions may make longer.

#pragma once

#include "Shared/vaultry_internal_failure.h"

#include <algorithm>

// Whether this version knows all that a request asks for. A longer one was made for a later version. If the rest of it
// is zero, it asks for nothing more.
template <class Request> bool _RequireKnown(const Request *request, uint64_t knownFlags, TQError **error)
{
    if (!request || request->size < sizeof *request)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied request was invalid");
    const auto *const bytes = reinterpret_cast<const unsigned char *>(request);
    const bool asksForMore =
        std::any_of(bytes + sizeof *request, bytes + request->size, [](auto byte) { return byte; });
    if ((request->flags & ~knownFlags) == 0 && !asksForMore) return true;
    return Failure(error).Refused(kTQStatusNotSupported,
                                  "The supplied request asks for what this version does not know");
}
