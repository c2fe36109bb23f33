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

namespace platform {

class DestinationTree {
public:
    // Opens the directory that is to hold `path`; `into` is borrowed, and as in DuplixOptions. False with errno.
    bool Open(const char *path, const TQFileStatus *into);

    // Whether the destination's volume honours a flush.
    bool HonoursFlush(VolumeMemory &volumes) const { return volumes.HonoursFlush(directories_.Top(), device_); }

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
    UniqueFd MakeFile(mode_t mode, TQFileStatus *made);
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
    void Leave() { directories_.Pop(); }

    // Directories entered and not left, the one that holds the root included.
    size_t depth() const { return directories_.size(); }

private:
    bool isIntoRoot() const { return isRoot_ && into_; }
    UniqueFd OpenRootFile(TQFileStatus *made) const;
    UniqueFd OpenNewDirectory() const;
    bool IsNew(int fd, const TQFileStatus &status) const;
    UniqueFd OpenRootDirectory() const;

    DirectoryStack directories_;
    const TQFileStatus *into_ = nullptr;
    uint64_t device_ = 0; // of the directory that holds the root
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
