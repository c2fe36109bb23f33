// Opens items for reading without leaving a time of access behind, where the kernel allows it: to an item's owner and
// to root. Otherwise a second copy of a tree would carry the time at which the first was made.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

#include <cstdint>
#include <optional>

namespace platform {

class QuietOpener {
public:
    // As openat does it; `owner` is whose the item seems to be.
    UniqueFd Open(const Item &item, int flags, uint32_t owner)
    {
        if (refused_ != owner) {
            UniqueFd fd(openat(item.directory, item.name, flags | O_NOATIME));
            if (fd || errno != EPERM) return fd;
            refused_ = owner;
        }
        return UniqueFd(openat(item.directory, item.name, flags));
    }

private:
    std::optional<uint32_t> refused_; // whose items were last refused
};

} // namespace platform
