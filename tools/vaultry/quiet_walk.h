// The items below a folder, read without changing access times if that is allowed: keeping a document is not using it.

#pragma once

#include <dirent.h>
#include <functional>
#include <string>

struct WalkedItem {
    const std::string &path;
    int directory; // the open directory that holds it
    const char *name;
    unsigned char kind; // as of an entry in a directory: DT_REG, DT_DIR, ...
};

// Calls `visit` with each item, a folder before its contents. Links are not followed. 0, or the first reason why
// something could not be read; the walk goes on after it.
int WalkBelow(const std::string &folder, const std::function<void(const WalkedItem &)> &visit);

// Opens an item for reading in that way, with more descriptors if they run out. A link is refused, and a FIFO is not
// waited for. -1 with errno.
int OpenQuietly(int directory, const char *name, int flags);

// The kind of an entry, also on a volume that does not give it with the name.
unsigned char KindOf(int directory, const dirent &entry);
