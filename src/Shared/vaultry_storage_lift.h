// Lifting the protection of a generation's top item: for the span of one change, or so that it can be moved.

#pragma once

#include <vaultry/file_status.h>

// For the span of one change.
//
// Always: what was taken from the item is back when the object goes, unless the item itself has gone. What can't be put
// back is only logged: the change stands. A link that somebody put into the store is looked at itself.
class LiftedGeneration {
public:
    // `path` is borrowed.
    explicit LiftedGeneration(const char *path) : path_(path) {}
    ~LiftedGeneration();
    LiftedGeneration(const LiftedGeneration &) = delete;
    LiftedGeneration &operator=(const LiftedGeneration &) = delete;

    // The steps, in this order: an immutable item refuses chmod even to its owner. False with errno, for the caller to
    // report in its own words.
    bool Look();
    bool TakeImmutableFlag();
    bool AddOwnerWrite();

    // What it was before.
    const TQFileStatus &before() const { return before_; }

    // Says that the item has gone, or hands on that it has not.
    bool Gone(bool gone);

private:
    bool IsChanged() const;

    const char *path_;
    TQFileStatus before_{};
    bool flagTaken_ = false;
    bool modeChanged_ = false;
};

// Gives an item that may stand immutable or append-only, or a directory without owner write, what a rename to another
// parent needs; whoever moves it puts back what that took. `status` is the item's as it stands, and the second has it
// held by a descriptor that only points (PinItem). False with errno.
bool _MakeMovable(const char *path, const TQFileStatus &status);
bool _MakePinnedMovable(int fd, const TQFileStatus &status);
