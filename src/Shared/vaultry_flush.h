// Success is durable: what an operation did is on disk before it returns true.
//
// A whole volume is flushed only where that is known to reach all that lies on it (VolumeHonoursFlush). Elsewhere
// whoever writes an item brings it to disk through the descriptor that wrote it; an item that can't be opened can't be
// flushed.
//
// False with "Failed to flush …" from errno. A failed flush is final; the caller undoes what it still can.

#pragma once

#include "Platform/UniqueFd.h"

#include <vaultry/error.h>

#include <cstdint>

// The content and attributes of one item, or the entries of a directory. A link is flushed itself, not its target.
bool _FlushItem(const char *path, TQError **error);

// The entry of an item in the directory that holds it, wherever the links in its path lead; or, of one that was moved
// to `now`, that it is there no more. That folder may have gone.
bool _FlushEntry(const char *path, TQError **error);
bool _FlushFormerEntry(const char *path, const char *now, TQError **error);

// A whole tree, with one call for its volume however many items it has: content, attributes and entries. Where a flush
// of the volume does not stand for that, only the top item, whose contents their writers have flushed. Where that can't
// be told it fails.
//
//     const auto flush = TreeFlush::At(path);   // before the first byte is written
//     ...
//     if (!flush.Flush(tree, mode, error)) return false;
//
// Opened first, it hears of every write that fails in the meantime, also of one that the kernel has tried already.
class TreeFlush {
public:
    TreeFlush() = default;

    // For a tree that will lie at `path`.
    static TreeFlush At(const char *path);
    // The same by something on that volume, which its caller keeps open.
    static TreeFlush By(int onVolume);

    // `mode` is the item's: one that is no directory is flushed alone.
    bool Flush(const char *path, uint32_t mode, TQError **error) const;

private:
    int volume() const { return own_ ? own_.get() : lent_; }

    UniqueFd own_;
    int lent_ = -1;
};
