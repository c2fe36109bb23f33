// How the floors above point at something on disk: a name in an open directory.
//
// A path is walked anew by every call that takes it, and any of its directories may have been
// swapped meanwhile. Work inside a tree therefore goes by descriptor; the path is for messages.

#pragma once

#include <fcntl.h>

struct Item {
    int directory;    // AT_FDCWD, or an open directory
    const char *name; // relative to it
    const char *path; // what messages call the item

    // The item at a path that the caller trusts.
    static Item AtPath(const char *path) { return {AT_FDCWD, path, path}; }
};

// Whether a call acts on a final symbolic link or on what it points to.
enum class Links { Follow, NoFollow };
