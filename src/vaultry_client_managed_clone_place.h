// Where a clone of a store is made, and where it is to be.
//
// It is made beside its place, or in an empty directory that is there already, which may be the top of a volume and
// then can't be renamed.
//
// Much of the work goes by path. So it is done where nobody else can change what the path leads to: in a folder in
// which no other user can rename it, and in a directory that no other user can change.

#pragma once

#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"

#include <vaultry/error.h>
#include <vaultry/file_status.h>

#include <set>
#include <string>

// Unless the clone has been put there, nothing is left of it at the end of the scope.
class ClonePlace {
public:
    ClonePlace() = default;
    ~ClonePlace();
    ClonePlace(const ClonePlace &) = delete;
    ClonePlace &operator=(const ClonePlace &) = delete;

    // Finds a directory for the clone of `store`, or makes one beside `target`.
    bool Begin(const char *store, const char *target, TQError **error);
    // Tells what the clone has in its directory. In one that was there already, nothing else is removed in the end.
    void Note(const std::string &name) { names_.insert(name); }
    // Whether nobody else has put something there.
    bool RequireNothingElse(TQError **error) const;
    // Gives the clone its name.
    bool PutThere(TQError **error);

    const char *c_str() const { return place_.c_str(); }
    int directory() const { return directory_.get(); }
    const TQFileStatus &before() const { return before_; } // of the directory, empty

private:
    bool RequireUndisturbedFolder(TQError **error) const;
    bool MayFill(const char *store, const TQFileStatus &given, TQError **error) const;
    bool Take(const char *store, const TQFileStatus &given, TQError **error);
    bool MakeBeside(TQError **error);

    PathBuffer target_;
    PathBuffer beside_; // the directory beside it: the clone's, or for root one that holds it
    PathBuffer place_;  // where the clone is made, and in the end the same as `target_`
    bool isGiven_ = false;
    bool mustGo_ = false;
    TQFileStatus before_{};
    std::set<std::string> names_;
    UniqueFd directory_;
};
