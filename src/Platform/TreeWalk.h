// A walk over a tree by directory descriptors, in the directory's own order.
//
// Nothing swapped under the walk leads it out of its tree: a directory is entered by descriptor without
// following links and must be the one whose status was reported (device and inode), and climbing back must
// arrive where it came from. A few descriptors are open at a time whatever the depth, and
// entries are streamed, so memory does not grow with the size of a folder.
//
// Directories of another file system are reported and not entered. Each entry's status is one statx.
// Removing entries, and adding rights to a directory when it is reported, while the walk goes on is fine.

#pragma once

#include "Platform/Item.h"

#include <vaultry/file_status.h>

#include <memory>

class TreeWalk {
public:
    enum class Kind {
        Directory,     // before its contents
        DirectoryDone, // after its contents
        Unreadable,    // a directory that could not be read; comes in place of DirectoryDone
        File,          // regular
        Link,          // symbolic
        Other,         // FIFO, socket, device
        NoStatus,      // statx failed
        Error,         // the walk itself failed here (memory, a path over 4,095 bytes, a swapped directory)
    };

    struct Entry {
        Kind kind;
        Item item;            // valid until the next call of Next
        bool hasStatus;
        TQFileStatus status;  // as read when the entry was met (a directory's: before its contents)
        int error;            // errno of Unreadable, NoStatus and Error, else 0
        int level;            // 0 for the root

        // The directory that holds the entry: its path's length within item.path and its status as
        // read when it was met. For the root the directory above it, looked at when the walk began.
        size_t parentPathLength;
        const TQFileStatus *parentStatus; // null if it could not be read
    };

    TreeWalk();
    ~TreeWalk();

    // False, with errno, if the walk can't begin: an empty path (ENOENT), no memory. A missing root is
    // no failure here; it is reported as NoStatus. errno is untouched on success.
    bool Open(const char *rootPath);

    // The next entry, or null at the end. Leaves errno alone, but sets it to the entry's error when it reports
    // Unreadable, NoStatus or Error.
    const Entry *Next();

private:
    struct State;
    std::unique_ptr<State> state_;
};
