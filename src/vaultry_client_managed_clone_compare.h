// Holds a copied generation against the one that it was made from: every item, and all that is known of it.

#pragma once

#include "Platform/Comparison.h"
#include "Platform/ItemId.h"
#include "Platform/QuietOpener.h"
#include "Platform/TreeWalk.h"

#include <string>
#include <unordered_map>

struct ItemIdHash {
    size_t operator()(const ItemId &id) const { return std::hash<uint64_t>()(id.inode ^ id.device << 48); }
};

// In what an item differs from its copy: a word for a sentence, null if in nothing.
struct Difference {
    const char *what = nullptr;
    bool isOfContent = false; // the copy would come back as another document, or not at all
};

class ItemComparison {
public:
    using GoOn = platform::Comparison::GoOn;

    // Compares what a walk reports, a folder when its contents are done, with the item at `copy`. The bytes of the copy
    // are read from its volume, as far as that lets go of what it holds in memory; so it has to be flushed before.
    Difference Compare(const TreeWalk::Entry &entry, const std::string &copy, const GoOn &goOn);

    uint64_t bytes() const { return bytes_; } // found equal, those of a shared file once

private:
    bool IsKnown(const TQFileStatus &file, const TQFileStatus &copy);
    Difference CompareOpened(const platform::ComparedFile &item, const platform::ComparedFile &copy, const GoOn &goOn);

    platform::Comparison comparison_;
    platform::QuietOpener opener_;
    // A file with several names, of which some are left to be met.
    struct SharedFile {
        ItemId same; // the copy that it was found to be the same as, if it was
        uint64_t namesLeft;
    };
    std::unordered_map<ItemId, SharedFile, ItemIdHash> shared_;
    uint64_t bytes_ = 0;
};
