// The items below a folder, read without changing access times if that is allowed: keeping a document is not using it.

#pragma once

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
