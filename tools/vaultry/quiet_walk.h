// The items below a folder, read without leaving a time of access behind where that is allowed: to keep a document is
// not to use it.

#pragma once

#include <functional>
#include <string>

struct WalkedItem {
    const std::string &path;
    int directory; // that holds it, open
    const char *name;
    unsigned char kind; // as of an entry in a directory: DT_REG, DT_DIR, ...
};

// Calls `visit` with each, a folder before what is in it. Links are not followed. 0, or the first reason why something
// could not be read; it goes on behind that.
int WalkBelow(const std::string &folder, const std::function<void(const WalkedItem &)> &visit);
