// Opens items for reading without changing their access times. The kernel allows this to an item's owner and to root.
// Without it, a second copy of a tree would carry the time at which the first was made.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

#include <vaultry/file_status.h>

#include <cstdint>
#include <optional>

namespace platform {

class QuietOpener {
public:
    // Opens as openat does. `owner` is the item's owner as far as is known.
    UniqueFd Open(const Item &item, int flags, uint32_t owner);

    // The same for an item of a directory that nobody has looked at yet; its status is that of what was opened. What is
    // mounted there is not opened. The item before it mostly had the same owner. Where that proves wrong, it costs a
    // call.
    UniqueFd OpenAndLook(const Item &item, int flags, TQFileStatus *status);

private:
    std::optional<uint32_t> refused_; // the owner whose items were refused last
    std::optional<uint32_t> last_;    // the owner of what OpenAndLook opened last
};

} // namespace platform
