// A walk over a tree by directory descriptors, in the directory's own order.
//
// Nothing swapped under the walk leads it out of its tree: a directory is entered by descriptor without
// following links and must be the one whose status was reported (device and inode), and climbing back must
// arrive where it came from. A directory that was removed meanwhile ends like one that can't be read (Unreadable,
// ENOENT), at any depth. A few descriptors are open at a time whatever the depth, and entries are streamed, so memory
// does not grow with the size of a folder.
//
// Directories of another file system, and those on which something is mounted, are reported. They are entered only if
// the caller asks for it, or if the walk begins there. Each entry's status is one statx, of its name unless the caller
// asks for another way. Removing entries while the walk goes on is fine, and so is adding rights to a directory when it
// is reported: it is opened by the call of Next that follows.

#pragma once

#include "Platform/Item.h"

#include <vaultry/file_status.h>

#include <climits>
#include <memory>

class TreeWalk {
public:
    // A path may be one name longer than the kernel takes, since the walk goes by descriptor. A tree that was made
    // within the kernel's limit and then renamed, as a generation is, can still be read and removed whole.
    static constexpr size_t kPathLimit = PATH_MAX + NAME_MAX + 1;

    enum class Kind {
        Directory,     // before its contents
        DirectoryDone, // after its contents
        Unreadable,    // a directory that could not be read; comes in place of DirectoryDone
        File,          // regular
        Link,          // symbolic
        Other,         // FIFO, socket, device
        NoStatus,      // statx failed
        Error,         // the walk itself failed here (memory, a path beyond the limit, a swapped directory)
    };

    enum class Volumes { One, All };

    // How the walk looks at what is no directory. Both ways that are not the usual one rely on the kind that the
    // directory tells; where it tells none, and at the root, the walk looks as usual.
    enum class Look {
        Status, // at the name
        // At a regular file that it has opened for reading, or else at the name. What has taken a file's place since
        // the directory was read may be opened too, but nothing waits for it.
        Held,
        KindOnly, // not at all: `hasStatus` is false, and so is `isElsewhere`
    };

    struct Entry {
        Kind kind;
        // Valid until the next call of Next. Where a path would reach the limit (an Error with ENAMETOOLONG), `path`
        // is that of the directory. Where the walk lost the directory above (an Error, ESTALE), `directory` is -1.
        Item item;
        bool hasStatus;
        TQFileStatus status; // as read when the entry was met (a directory's: before its contents)
        int error;           // errno of Unreadable, NoStatus and Error, else 0
        int level;           // 0 for the root
        bool isElsewhere;    // something is mounted on it, or it is a directory of another file system; never the root
        // The item itself: the directory, in DirectoryDone of one that was entered; a file that the walk holds. -1 for
        // others.
        int fd;

        // How many bytes of item.path are the path of the directory that holds the entry; 0 for a root whose path is a
        // single relative name.
        size_t parentPathLength;
    };

    TreeWalk();
    ~TreeWalk();

    // False, with errno, if the walk can't begin: an empty path (ENOENT), a path over 4,095 bytes
    // (ENAMETOOLONG), no memory. A missing root is no failure here; it is reported as NoStatus. errno is
    // untouched on success. An open walk can be opened again, and then begins anew.
    bool Open(const char *rootPath, Volumes volumes = Volumes::One, Look look = Look::Status);

    // The same from a name in an open directory; the path is for messages. The directory and the name are borrowed as
    // long as the walk goes on.
    bool Open(const Item &root, Volumes volumes = Volumes::One, Look look = Look::Status);

    // The next entry, or null at the end. Leaves errno alone, but sets it to the entry's error when it reports
    // Unreadable, NoStatus or Error.
    const Entry *Next();

    // Leaves out the contents of the Directory that Next has just reported, and its DirectoryDone.
    void SkipContents();

    // Does the same, and also leaves out the rest of the directory that holds the entry: its DirectoryDone comes next.
    void SkipRest();

    // Opens the Directory that Next has just reported; otherwise the next call of Next would. The walk owns the
    // descriptor. -1 with errno: ESTALE if something else stands there.
    int OpenDirectory();

private:
    struct State;
    std::unique_ptr<State> state_;
};
