// The room that trees take on their volume, whatever they share.
//
// A file with several names takes its room once. So does data that files share as clones, where the volume tells; it
// does not tell who shares it, so such data counts as not freed even if all that share it were in one tree.

#pragma once

#include "failure.h"
#include "shared_data.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>

class Room {
public:
    struct Tree {
        uint64_t size = 0;  // of its files
        uint64_t frees = 0; // if it alone goes
    };

    // Measures one more tree without changing access times. What can't be read of it is one of the problems.
    Tree Add(const std::string &path, Problems &problems);

    // What all of them take.
    uint64_t Taken() { return own_ + shared_.Bytes(); }
    // Whether their volume tells what clones share.
    bool knowsClones() const { return knowsClones_; }

private:
    // A file with several names, not all of which were met.
    struct Linked {
        uint64_t own;       // bytes that no other file shares
        uint64_t namesLeft; // in all trees
    };
    using FileId = std::pair<dev_t, ino_t>;
    struct Met {
        uint64_t own, names;
    };

    void Include(int directory, const char *name, const std::string &path, Problems &problems);
    uint64_t OwnBytes(int directory, const char *name, const struct stat &status, const std::string &path,
                      Problems &problems);

    Tree tree_;                       // that is being added
    std::map<FileId, Met> inTree_;    // its files with several names
    std::map<FileId, Linked> linked_; // those of all trees
    uint64_t own_ = 0;
    SharedData shared_;
    bool knowsClones_ = true;
};
