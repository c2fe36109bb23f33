// The folder of a document, held open, so that it does not matter what its path leads to later.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

// The folder that holds the item at a path, and the item in it. Links on the way are followed, as the path's owner
// would.
class OpenedFolder {
public:
    explicit OpenedFolder(const char *path);
    explicit operator bool() const { return static_cast<bool>(fd_); } // if not, errno says why
    int fd() const { return fd_.get(); }
    Item item() const { return {fd_.get(), name_, path_}; }

private:
    const char *path_;
    const char *name_;
    UniqueFd fd_;
};
