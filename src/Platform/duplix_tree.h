// The destination side of a tree copy: where the next item is made, by descriptor and by path.
//
// It goes down and up in step with the walk over the source. Each item is made new, in the directory that was made
// before it; what already has the name stays as it is. Only the root can be made of an empty item that stands there.

#pragma once

#include "Platform/DirectoryStack.h"
#include "Platform/Item.h"
#include "Platform/Volume.h"
#include "Platform/duplix.h"

#include <climits>
#include <unistd.h>

namespace platform {

class DestinationTree {
public:
    // Opens the directory that is to hold `path`; `into` is borrowed, and as in DuplixOptions. False with errno.
    bool Open(const char *path, const TQFileStatus *into, VolumeMemory &volumes);

    // Whether the destination's volume honours a flush.
    bool honoursFlush() const { return honoursFlush_; }

    // Whether the destination would lie outside the directory that `tree` describes. False with EINVAL, or with errno
    // if it can't be told.
    bool IsOutside(const TQFileStatus &tree) const;

    // Names the copy of `name`, whose path below the root is `below`; a null name is the root. False with ENAMETOOLONG;
    // the item's path is then that of the root.
    bool NameItem(const char *name, const char *below);

    // The item named last, in the directory reached.
    const Item &item() const { return item_; }
    bool isRoot() const { return isRoot_; }

    // Makes the item named last a file, open for reading and writing. Empty with errno.
    //
    // Files that a process makes with one mode in directories that are alike are alike too: owner, group, mode and
    // flags come from there. On a volume that keeps its word, only the first is looked at if `mayAssume` says that this
    // will do; `made` is then the first one's status, without an inode.
    UniqueFd MakeFile(mode_t mode, bool mayAssume, TQFileStatus *made);
    // False with errno.
    bool MakeLink(const char *target);
    // Makes the item named last a directory and goes down into it. The root at once loses the default list and the
    // flags that the directory above hands down, so that they reach nothing below. False with errno.
    bool EnterNewDirectory();
    // What was made, or begun in the item that stood there.
    const DuplixMade &made() const { return made_; }
    // Whether `directory` is the root that was made: a copy met in its own source.
    bool IsRootMade(const TQFileStatus &directory) const;

    // Opens the directory above again, and names the one reached as an item of it. False with ESTALE or errno.
    bool PrepareToLeave(const char *name, const char *below);
    int directory() const { return directories_.Top(); }
    // As it was when it was made.
    const TQFileStatus &directoryStatus() const { return directories_.StatusOfTop(); }
    void Leave() { directories_.Pop(); }

    // Directories entered and not left, the one that holds the root included.
    size_t depth() const { return directories_.size(); }

private:
    bool isIntoRoot() const { return isRoot_ && into_; }
    bool HasSibling(mode_t mode) const;
    UniqueFd OpenRootFile(TQFileStatus *made) const;
    UniqueFd OpenNewDirectory() const;
    bool IsNew(int fd, const TQFileStatus &status) const;
    UniqueFd OpenRootDirectory() const;

    DirectoryStack directories_;
    const TQFileStatus *into_ = nullptr;
    uint64_t device_ = 0; // of the directory that holds the root
    bool honoursFlush_ = false;
    const uid_t maker_ = geteuid(); // who owns what is made
    struct Sibling {
        TQFileStatus status{}; // as it was when it was new; inode 0 if there is none
        mode_t mode = 0;       // with which it was made
        TQFileStatus folder{}; // in which it was made
    } sibling_;                // a file that was made before, and looked at
    Item item_{};
    bool isRoot_ = false;
    DuplixMade made_; // its item is the root's
    bool rootMade_ = false;
    TQFileStatus root_{};
    const char *rootName_ = nullptr;
    size_t rootLength_ = 0;
    char path_[PATH_MAX];
};

} // namespace platform
