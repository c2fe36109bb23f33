// Identifies an item, whatever its name is by now.

#pragma once

#include <vaultry/file_status.h>

struct ItemId {
    uint64_t device = 0;
    uint64_t inode = 0;

    static ItemId Of(const TQFileStatus &status) { return {status.device, status.inode}; }
    bool operator==(const ItemId &other) const = default;
};
