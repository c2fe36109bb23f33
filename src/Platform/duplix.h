// The file-copy service: whole trees with a callback for each item, and one open file into another.
//
// What is copied: data (cloned, else copied in the kernel, else read and written; holes stay holes; a source marked
// compressed is copied byte by byte), `user.` attributes, access-control lists (those that the destination's directory
// would hand down are taken away), owner, group, security.capability as root, mode with its set-id bits, times in
// nanoseconds, flags. Each in the order in which nothing undoes another, and a directory's after its contents. Hard
// links become files of their own. Volumes mounted inside the source are copied with it.
//
// What may be refused without a failure: owner and group together (EPERM; EINVAL, where a user namespace has no number
// for the owner), and then the group alone, whatever the reason (the set-id bits are dropped); flags (EPERM costs the
// copy immutable and append-only, ENOTSUP compressed; if the rest is refused too, it gets none), lists on a volume
// without them (the mode then grants nobody more than the list did), the capability (EPERM, ENOTSUP). An attribute that
// can't be set is a failure, ENOTSUP too.
//
// Items are made with owner-only rights and O_EXCL; nothing that holds anything is written over, and nothing is
// followed (see `into` for what is filled). A directory that is swapped when it was just made is refused with ESTALE
// where it can be told: it is not empty, or is somebody else's on a volume that keeps owners. The source is
// opened without following links, and what was swapped since its status was read is refused with ESTALE. Links are
// copied as links. FIFOs, sockets and devices are refused with ENOTSUP, never opened. A file is read to where its end
// is found, whatever its size was said to be: some volumes do not know it. Reading files and directories leaves no
// time of access behind where that is allowed, which is to an item's owner and to root; reading a link leaves one.
//
// The callback sees, for each file, link or refused item: (File, Start), then (Data, Progress) at least every
// 4 MiB while data goes over, and once for a file that was cloned, then (File, Finish), all attributes done. For each
// directory: (Directory, Start), (Directory, Finish) when it is made, its contents, (DirectoryDone, Start),
// (DirectoryDone, Finish) when all is done. For each `user.` attribute of either: (Attribute, Start). Skip counts at a
// Start, and is Continue everywhere else: the item, the directory with its contents, or the attribute, is not made; at
// (DirectoryDone, Start) the directory is left as it was made, with owner-only rights and no attributes.
//
// Whatever fails is reported as (what, Error) with errno set, and has no Finish; but for an item that could not be
// brought to disk or closed, which has its Error behind its Finish. what is Walk for a directory that can't be read, an
// item that has no status, and a copy that can't begin; Attribute for one attribute or list. Continue after an
// Attribute error goes on with the same item, after another with the next, and what was made so far stays. Nothing goes
// on, whatever the answer, from a copy that could not begin or that was moved away while it was made.

#pragma once

#include "Platform/Item.h"

#include <vaultry/file_status.h>

#include <cstdint>

namespace duplix_what {
enum : int { Walk = 0, File = 1, Directory = 2, DirectoryDone = 3, Data = 4, Attribute = 5 };
}
namespace duplix_stage {
enum : int { Start = 1, Finish = 2, Error = 3, Progress = 4 };
}
namespace duplix_answer {
enum : int { Continue = 0, Skip = 1, Quit = 2 };
}

// A file or directory that is finished, still open.
struct DuplixFinished {
    int source; // for reading
    int copy;   // a file for writing, a directory for reading
    // The copy's. Device, inode, kind, owner, group, mode and flags are what it has now; size, blocks, link count and
    // times are those of the empty item that was made.
    const TQFileStatus &status;
};

// What the service tells its callback about the item at hand.
struct DuplixState {
    uint64_t bytesCopied = 0;                 // of the current file
    const TQFileStatus *source = nullptr;     // the source item's status; null if it has none
    Item destination{};                       // by descriptor; in every call
    const char *attribute = nullptr;          // in (Attribute, Start), without "user."
    const DuplixFinished *finished = nullptr; // in (File, Finish) and (DirectoryDone, Finish); null for a link
};

using DuplixCallback = int (*)(int what, int stage, DuplixState *state, const char *source, const char *destination,
                               void *context);

namespace platform {

struct DuplixMade {
    bool something = false;
    TQFileStatus item{}; // as it was when it was new; inode 0 if it could not be looked at
};

struct DuplixOptions {
    // Gets what there is at the destination that was made here, or begun in the item of `into`.
    DuplixMade *made = nullptr;

    // Each item is brought to disk through the descriptor that wrote it, where nothing else tells for certain that the
    // destination's volume has kept it (VolumeHonoursFlush). Elsewhere the copy flushes nothing.
    bool flushEach = false;

    // What the root is made of: the empty item of this status, a regular file or a directory as the source is one, that
    // stands at the destination. ESTALE if another is found there, EEXIST if it is not empty, EISDIR or ENOTDIR if it
    // is of the other kind. If null, nothing may be at the destination.
    const TQFileStatus *into = nullptr;
};

// 0 if the end was reached; -1 with errno when the callback quit (ECANCELED if it left none) or, with no callback, at
// the first error. EINVAL if the destination lies inside the source. Both paths, and those of every item, have at most
// 4,095 bytes. Nothing is removed on failure. errno is untouched on success.
int duplix(const char *source, const char *destination, DuplixCallback callback, void *context,
           const DuplixOptions &options = {});

// The same of one open regular file's data, attributes, lists, owner, mode, times and flags. What the destination
// holds goes first; attributes that only it has stay. Moves the position of `source`. A failure leaves part of a copy.
int fduplix(int source, int destination);

} // namespace platform
