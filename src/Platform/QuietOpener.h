// Opens items for reading without changing their access times. The kernel allows this to an item's owner and to root.
// Without it, a second copy of a tree would carry the time at which the first was made.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

#include <cstdint>
#include <optional>

namespace platform {

class QuietOpener {
public:
    // Opens as openat does. `owner` is the item's owner as far as is known.
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
    std::optional<uint32_t> refused_; // the owner whose items were refused last
};

} // namespace platform
