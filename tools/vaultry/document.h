// The document that the user names, and what its tree holds.

#pragma once

#include "quiet_walk.h"

#include <vaultry/error.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

struct Document {
    std::string path; // absolute, free of links
    bool wasLink;     // the user named a link to it
};

// The document that `given` names. Throws if there is none.
Document ResolveDocument(const std::string &given);

// The absolute path that the document has, or would have if it existed, free of links. Throws if nothing can tell it.
std::string DocumentPath(const std::string &given);

// The same, for looking up generations. If the document can't be reached any more, the path as it was given.
std::string DocumentPathIfKnown(const std::string &given);

// Says so where `given` is a link, which leads to `document`.
void TellOfLink(const std::string &given, const std::string &document);

// Whether the library passes the item over, as it does with files that are named "._...".
bool IsSidecar(const std::string &path);
bool IsSidecar(const WalkedItem &item);

// How many such files a tree holds.
uint64_t CountSidecars(const std::string &path);

// Explains `error`, with which the store refused the document: it names the item that can't be kept, or what has no
// space. A line of its own, or nothing.
std::string ExplainRefusal(const TQError *error, const std::string &store, const std::string &document,
                           bool keepsLinks);

// Stands for the whole tree as it is now: if two are equal, the tree has not changed in between. It covers names,
// inodes, sizes and times of every item, but not contents, since writing them changes the times. Where a volume keeps
// whole seconds, it is taken when the second of the last change is over, so that every later one shows. Throws if part
// can't be read.
struct Fingerprint {
    dev_t device = 0; // of the top item
    ino_t inode = 0;
    uint64_t items = 0;
    uint64_t sidecars = 0; // of them: files that are named "._..."
    uint64_t sum = 0;
    time_t wholeSecond = 0; // of the last change, where the volume keeps no fractions
    friend bool operator==(const Fingerprint &, const Fingerprint &) = default;
};
Fingerprint FingerprintOf(const std::string &path);
