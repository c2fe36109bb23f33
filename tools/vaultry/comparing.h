// What differs between two trees, item by item: all that a restore would bring back, and nothing else.
//
// Owner and group are brought back by those who may give items away, a group also by those who are in it; immutable and
// append-only flags and capabilities by those who may set them. For anybody else they do not count, since a generation
// that they keep has lost them. Files named "._..." are no part of a tree.

#pragma once

#include "compared_item.h"
#include "failure.h"

#include <functional>

// How an item differs. One of the first three, or any of the others together.
enum Changed : unsigned {
    kRemoved = 0x1, // only the first tree has it
    kAdded = 0x2,   // only the second
    kKind = 0x4,
    kContent = 0x8, // the bytes of a file, the target of a link
    kRights = 0x10,
    kOwner = 0x20, // or the group
    kAttributes = 0x40,
    kAccessList = 0x80,
    kFlags = 0x100,
    kTimes = 0x200, // of modification
};

struct Difference {
    const std::string &below; // the path below the tops, "" for these
    unsigned changes = 0;
    const ComparedItem *first = nullptr, *second = nullptr; // the one that is missing is null
    std::vector<std::string> attributes{};                  // the names of those that differ
};

// What is compared besides.
struct Extent {
    bool times = false;
    bool bigFiles = true; // whether the bytes of a big file are if its size and its time of modification are the same
};

struct Compared {
    Problems problems;   // what could not be compared
    bool isWhole = true; // whether the bytes of no file were passed over
};

// Calls `visit` with each item that differs, by name, a folder before its contents, until it says not to go on. What
// can't be compared is passed over.
Compared CompareTrees(const ComparedTree &first, const ComparedTree &second, const Extent &extent,
                      const std::function<bool(const Difference &)> &visit);
