// The file-copy service: whole trees with a callback for each item, and one open file into another.
//
// It copies data (cloned, else copied in the kernel, else read and written; holes stay holes; a source marked
// compressed is copied byte by byte), `user.` attributes, access-control lists (those that the destination's directory
// would hand down are taken away), owner, group, security.capability as root, mode with its set-id bits, times in
// nanoseconds, and flags. It does so in an order in which no step undoes another, and finishes a directory after its
// contents. Hard links become files of their own. Volumes mounted inside the source are copied with it.
//
// Some refusals are not failures. Owner and group together may be refused (EPERM, or EINVAL where a user namespace has
// no number for the owner), and then the group alone, for the same reasons; a copy that does not get both loses its
// set-id bits. If flags are refused, EPERM costs the copy immutable and append-only, and ENOTSUP compressed; if the
// rest is refused too, it gets none. On a volume without access lists, the mode grants nobody more than the list did.
// The capability may be refused (EPERM, ENOTSUP). An attribute that can't be set is a failure, even with ENOTSUP.
//
// Every item is made new, files with O_EXCL. Directories, and a root that is a file, have owner-only rights at first.
// Nothing that has content is overwritten, and no link is followed; `into` is the only item that is filled. A directory
// that was swapped right after it was made is refused with ESTALE where that can be told: it is not empty, or belongs
// to somebody else on a volume that keeps owners.
//
// The source is opened without following links, and what has taken an item's place since its status was read is never
// copied. A file is held open from then on. A directory, and a file that can't be held, or is the root, is refused with
// ESTALE if it was swapped. Links are copied as links. FIFOs, sockets and devices are refused with ENOTSUP, and not
// opened, unless one takes the place of a file while its directory is read. A file is read until its end is found,
// whatever its reported size: some volumes do not know it. Reading a file or directory does not change its access time
// where the kernel allows that, to the item's owner and to root. Reading a link does.
//
// The callback sees, for each file, link or refused item: (File, Start), then (Data, Progress) at least every 4 MiB
// while data is copied, and once for a file that was cloned, then (File, Finish), when all attributes are done. For
// each directory: (Directory, Start), (Directory, Finish) when it is made, its contents, (DirectoryDone, Start),
// (DirectoryDone, Finish) when all is done. For each `user.` attribute of either: (Attribute, Start). Skip counts at a
// Start, and means Continue everywhere else. The item, the directory with its contents, or the attribute is then not
// made. At (DirectoryDone, Start), the directory is left as it was made, with owner-only rights and no attributes.
//
// A failure is reported as (what, Error) with errno set, and the item has no Finish. Only an item that could not be
// flushed or closed has its Error after its Finish. `what` is Walk for a directory that can't be read, an item that has
// no status, and a copy that can't begin; it is Attribute for one attribute or list. After an Attribute error, Continue
// goes on with the same item. After any other, it goes on with the next, and what was made so far stays. A copy that
// can't begin, or that was moved away while it was made, ends whatever the answer is.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

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
    // The copy's status. Device, kind, owner, group, mode and flags are what it has now; size, blocks, link count and
    // times are those of the empty item that was made, and so is the inode, which is 0 if nobody looked at the item.
    const TQFileStatus &status;
    mode_t mode;     // what the copy is to have
    bool modeIsDue;  // whether the client has to set it; until then the status has what is assumed or known of it
    bool isListLost; // the volume could not hold the access list, and the mode grants nobody more than that did
};

// What the service tells its callback about the item at hand.
struct DuplixState {
    uint64_t bytesCopied = 0;                 // of the current file
    const TQFileStatus *source = nullptr;     // the source item's status; null if it has none
    Item destination{};                       // by descriptor; in every call
    const char *attribute = nullptr;          // in (Attribute, Start), without "user."
    const DuplixFinished *finished = nullptr; // in (File, Finish) and (DirectoryDone, Finish); null for a link, and
                                              // for what the client has made
};

using DuplixCallback = int (*)(int what, int stage, DuplixState *state, const char *source, const char *destination,
                               void *context);

// A file that is about to be copied.
struct DuplixOpened {
    int source; // for reading
    const TQFileStatus &status;
    const char *below;       // its path below the root of the source, without a slash at its beginning
    const Item &destination; // where nothing is yet
};

// Skip means that the client has made the whole item at the destination. Of such a file, (File, Finish) has no
// `finished`.
using DuplixSubstitute = int (*)(const DuplixOpened &file, void *context);

namespace platform {

struct DuplixMade {
    bool something = false;
    TQFileStatus item{}; // as it was when it was new; inode 0 if it could not be looked at
};

struct DuplixOptions {
    // Receives what the copy made at the destination, or began in the item of `into`.
    DuplixMade *made = nullptr;

    // Unless null, the root of the source, by descriptor. The path of the source then only names it.
    const Item *root = nullptr;

    // Whether each item is flushed through the descriptor that wrote it. That is done only on a destination volume
    // where nothing else proves that it has kept the item (VolumeHonoursFlush); elsewhere the copy flushes nothing.
    bool flushEach = false;

    // Whether the callback gives each file and directory its mode at its Finish (modeIsDue), so that a client that
    // changes it anyway changes it once. An item that is to be immutable or append-only already has its mode then.
    bool leavesMode = false;

    // The status of an empty item at the destination, which becomes the root; it is a regular file or a directory, as
    // the source is. ESTALE if another item is found there, EEXIST if it is not empty, EISDIR or ENOTDIR if it is of
    // the other kind. If null, nothing may be at the destination.
    const TQFileStatus *into = nullptr;

    // Unless null, gets a root that is a file, still open for writing. Whoever closes it looks at the result.
    UniqueFd *file = nullptr;

    // Unless null, asked before a file below the root is copied that can't be cloned.
    DuplixSubstitute substitute = nullptr;
};

// 0 if the end was reached; -1 with errno when the callback quit (ECANCELED if it set none) or, with no callback, at
// the first error. EINVAL if the destination lies inside the source. Both paths, and those of every item, have at most
// 4,095 bytes. Nothing is removed on failure. errno is untouched on success.
int duplix(const char *source, const char *destination, DuplixCallback callback, void *context,
           const DuplixOptions &options = {});

// The same for one open regular file: its data, attributes, lists, owner, mode, times and flags. The destination is
// emptied first, but attributes that only it has stay. Moves the position of `source`. A failure leaves part of a copy.
int fduplix(int source, int destination);

} // namespace platform
