// The destination side of a tree copy: where the next item is made, by descriptor and by path.
//
// It goes down and up in step with the walk over the source. What it makes it makes new, in the directory
// that it made before; whatever has the name already stays as it is.

#pragma once

#include "Platform/DirectoryStack.h"
#include "Platform/Item.h"

#include <climits>

namespace platform {

class DestinationTree {
public:
    // Opens the directory that is to hold `path`. False with errno.
    bool Open(const char *path);

    // Whether the destination would lie inside the directory that `tree` describes.
    bool IsInside(const TQFileStatus &tree) const;

    // Names what becomes of `name`, whose path below the root is `below`; a null name is the root. False with
    // ENAMETOOLONG, and the item's path is then that of the root.
    bool NameItem(const char *name, const char *below);

    // The item named last, in the directory reached.
    const Item &item() const { return item_; }
    bool isRoot() const { return isRoot_; }

    // Makes the item named last and goes down into it. What the directory above hands down, a default list or flags,
    // is taken from the root at once, so that it reaches nothing below. False with errno.
    bool EnterNewDirectory();
    // Whether it was at least made.
    bool isMade() const { return isMade_; }
    // Whether `directory` is the root that was made: a copy met in its own source.
    bool IsRootMade(const TQFileStatus &directory) const;

    // Opens the directory above again, and names the one reached as an item of it. False with ESTALE or errno.
    bool PrepareToLeave(const char *name, const char *below);
    int directory() const { return directories_.Top(); }
    void Leave() { directories_.Pop(); }

    // Directories entered and not left, the one that holds the root included.
    size_t depth() const { return directories_.size(); }

private:
    DirectoryStack directories_;
    Item item_{};
    bool isRoot_ = false;
    bool isMade_ = false;
    bool rootMade_ = false;
    TQFileStatus root_{};
    const char *rootName_ = nullptr;
    size_t rootLength_ = 0;
    char path_[PATH_MAX];
};

} // namespace platform
