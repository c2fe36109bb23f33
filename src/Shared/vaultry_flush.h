// Success is durable: what an operation did is on disk before it returns true.
//
// A whole volume is flushed only where that is known to reach all that lies on it (VolumeHonoursFlush). Elsewhere, each
// item is flushed through the descriptor that wrote it, and an item that can't be opened can't be flushed.
//
// The functions return false with "Failed to flush …" from errno. A failed flush is final; the caller undoes what it
// still can.

#pragma once

#include "Platform/UniqueFd.h"

#include <vaultry/error.h>

#include <cstdint>

// The content and attributes of one item, or the entries of a directory. A link is flushed itself, not its target.
bool _FlushItem(const char *path, TQError **error);

// The entry of an item in the directory that holds it, wherever the links in its path lead. The second is for an item
// that was moved from `path` to `now`, whose old entry has to be gone on disk too. The old folder may be gone itself.
bool _FlushEntry(const char *path, TQError **error);
bool _FlushFormerEntry(const char *path, const char *now, TQError **error);

// Flushes a whole tree: content, attributes and entries. That is one call for its volume however many items it has, or,
// while others have much to write, one for each item of a small tree. Where a flush of the volume does not reach all
// that, only the top item is flushed; whoever wrote its contents has flushed them. Where that can't be told, it fails.
//
//     const auto flush = TreeFlush::At(path);   // before the first byte is written
//     ...
//     if (!flush.Flush(tree, mode, error)) return false;
//
// Since it is opened first, the flush of the volume reports every write that fails meanwhile, even one that the kernel
// has tried already.
class TreeFlush {
public:
    TreeFlush() = default;

    // For a tree that will lie at `path`.
    static TreeFlush At(const char *path);
    // The same, by a descriptor on that volume that the caller keeps open.
    static TreeFlush By(int onVolume);

    // `mode` is the item's. An item that is not a directory is flushed alone.
    bool Flush(const char *path, uint32_t mode, TQError **error) const;

private:
    int volume() const { return own_ ? own_.get() : lent_; }

    UniqueFd own_;
    int lent_ = -1;
};
