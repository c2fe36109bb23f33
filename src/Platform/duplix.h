// The file-copy service: whole trees with a callback for each item, and one open file into another.
//
// What is copied: data (cloned, else copied in the kernel, else read and written; holes stay holes; a source marked
// compressed is copied byte by byte), `user.` attributes, access-control lists (those that the destination's
// directory would hand down are taken away), owner, group, security.capability as root, mode with
// its set-id bits, times in nanoseconds, flags. Each in the order in which nothing undoes another; a directory
// gets all but its attributes after its contents. EPERM and ENOTSUP are ignored for owner and
// flags; where the owner could not be given, the set-id bits are dropped.
//
// Items are made with owner-only rights and O_EXCL; nothing that exists is written over or followed.
// Links are copied as links. FIFOs, sockets and devices are refused with ENOTSUP, never opened.
//
// The callback sees, for each file, link or refused item: (File, Start), then (Data, Progress) at least every
// 4 MiB while data goes over, then (File, Finish), all attributes done. For each directory: (Directory, Start),
// (Directory, Finish) when it is made, its contents, (DirectoryDone, Start), (DirectoryDone, Finish) when all is
// done. Whatever fails is reported as (what, Error) with errno set, with Walk for what for a directory that can't be
// read and an item that has no status. Skip is heeded at a start. Continue after an error goes on with the next item.

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

// What the service tells its callback about the item at hand.
struct DuplixState {
    uint64_t bytesCopied = 0;             // of the current file
    const TQFileStatus *source = nullptr; // the source item's status; null if it has none
    Item destination{};                   // by descriptor; in every call
    int destinationFd = -1;               // the finished item, open (a file for writing, a directory for reading),
                                          // in (File, Finish) and (DirectoryDone, Finish); -1 for a link
};

using DuplixCallback = int (*)(int what, int stage, DuplixState *state, const char *source, const char *destination,
                               void *context);

namespace platform {

// 0 if everything was copied; -1 with errno when the callback quit or, with no callback, at the first error.
// Nothing is removed on failure.
int duplix(const char *source, const char *destination, DuplixCallback callback, void *context);

// The same of one open regular file's data, attributes, lists, owner, mode, times and flags.
int fduplix(int source, int destination);

} // namespace platform
