// Lifts the protection of a generation's top item, for the span of one change or so that it can be moved.

#pragma once

#include <vaultry/file_status.h>

// For the span of one change.
//
// Always: when the object is destroyed, what it changed is put back, unless the item itself has gone. A failure to put
// it back is only logged: the caller's change stands. Of a link that somebody put into the store, the link itself is
// looked at.
class LiftedGeneration {
public:
    // `path` is borrowed.
    explicit LiftedGeneration(const char *path) : path_(path) {}
    // The same for an item that was just looked at.
    LiftedGeneration(const char *path, const TQFileStatus &before) : path_(path), before_(before), isLookedAt_(true) {}
    ~LiftedGeneration();
    LiftedGeneration(const LiftedGeneration &) = delete;
    LiftedGeneration &operator=(const LiftedGeneration &) = delete;

    // The steps, in this order: an immutable item refuses chmod even to its owner. False with errno, for the caller to
    // report in its own words.
    bool Look();
    bool TakeImmutableFlag();
    bool AddOwnerWrite();

    // The item's status before.
    const TQFileStatus &before() const { return before_; }

    // Notes that the item has gone, if `gone`. Returns `gone`.
    bool Gone(bool gone);

private:
    bool IsChanged() const;

    const char *path_;
    TQFileStatus before_{};
    bool isLookedAt_ = false;
    bool flagTaken_ = false;
    bool modeChanged_ = false;
};

// Prepares an item for a rename to another parent: takes its immutable and append-only flags, and gives a directory
// owner write. Whoever moves it puts both back. `status` is the item's current status. The second takes a descriptor
// that only points to the item (PinItem). False with errno.
bool _MakeMovable(const char *path, const TQFileStatus &status);
bool _MakePinnedMovable(int fd, const TQFileStatus &status);
