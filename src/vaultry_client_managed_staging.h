// One operation's own directory in the staging area.

#pragma once

#include "vaultry_client_managed_owner.h"

// The item in the making, in it. Where several are on their way out, those after the first are named by numbers of the
// same length, of which there are two thousand million.
inline constexpr char kStagedName[] = "staged";
bool IsStagedName(const char *name);

// It is made with its owner file, which stays locked as long as the object lives. At the end of its scope it is removed
// with all that is in it, unless it is kept.
class StagingDirectory {
public:
    StagingDirectory() = default;
    ~StagingDirectory();
    StagingDirectory(const StagingDirectory &) = delete;
    StagingDirectory &operator=(const StagingDirectory &) = delete;

    // `root` is borrowed. The caller holds the store's lock, shared or alone.
    bool Make(const char *root, const OwnerNote &note, TQError **error);

    // Flushes the owner file and the directories that lead to it. Without it on disk, nobody could give back a document
    // that is moved here.
    bool FlushNote(TQError **error) const;

    // Notes, on disk, what is about to be exchanged for what lies here.
    bool NoteExchange(const PlannedExchange &exchange, TQError **error);

    // Notes that what was staged is elsewhere by now, and need not be looked for.
    void Taken() { isTaken_ = true; }

    // Leaves the directory and what is in it, to a client or to a repair.
    void Keep();

    // When the owner file was written, by the volume's clock; zero if that can't be told.
    struct timespec written() const;

    // A descriptor on its volume that was opened before anything was written here.
    int openedFirst() const { return owner_.get(); }

    // Where the next item on its way out goes, for an operation that has several.
    const char *NextPlace();

    // Where the item in the making goes, or the last one on its way out.
    const char *staged() const { return staged_.c_str(); }

private:
    bool IsAtItsPath() const;
    const char *NamePlace(unsigned number);
    void Remove();
    bool RemoveWhatIsUsual();

    const char *root_ = nullptr; // null when there is nothing to remove
    PathBuffer unique_;
    PathBuffer staged_;
    UniqueFd directory_;
    UniqueFd owner_;
    bool isTaken_ = false;
    unsigned places_ = 0; // that NextPlace has given
    off_t ownerEnd_ = 0;  // where the next note goes
    ItemId ownerId_;      // tells the directory from any other
};
