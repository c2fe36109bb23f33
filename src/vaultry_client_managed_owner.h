// Whose a staging directory is, and what is done in it.
//
// Beside what is staged lies the owner file: what is done, of which document or generation, by which process of
// which machine, and since when; a restore adds what it is about to exchange. It is written before anything is
// staged, and locked with flock for as long as its operation lives, so that whoever finds the directory can tell
// work in progress from what a kill left. A child that a killed process had forked keeps the lock like that of the
// store: until it ends, the operation counts as alive. A copy for a client outlives its operation, and so its lock.
//
// What the file says is believed only of a regular file of the staging area's owner, with the mode 0600 and one link,
// and never in a directory that was a generation: a generation on its way out may hold any name.

#pragma once

#include "Platform/ItemId.h"
#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"

#include <vaultry/error.h>
#include <vaultry/file_status.h>

#include <climits>

inline constexpr char kOwnerFileName[] = ".vaultry_owner";

enum class Work { Copy, Move, Remove, CopyOut, Restore };

// An item as it was when it was noted. The number of an inode that has gone is given to another, born later.
struct ItemMark {
    ItemId id{};
    int64_t born = 0, bornNanoseconds = 0; // zero where the volume does not tell
    uint64_t size = 0;
    int64_t modified = 0, modifiedNanoseconds = 0;

    static ItemMark Of(const TQFileStatus &status);
    // Since the machine was started anew the volume's device may have another number.
    bool IsOf(const TQFileStatus &status, bool deviceCounts) const;
    // The same of a folder, whose birth changes where an overlay copies it up.
    bool IsFolder(const TQFileStatus &status, bool deviceCounts) const;
    // A file that has not been written to since.
    bool IsUnchanged(const TQFileStatus &status) const;
};

// What a restore is about to exchange. Paths are absolute.
struct PlannedExchange {
    ItemMark document;     // that is replaced
    ItemMark copy;         // in staging, if it can be renamed from there,
    ItemMark placeholder;  // else the item beside the document that is filled with it
    ItemMark folder;       // that all of them are in
    PathBuffer waiting{};  // where the copy waits, and after the exchange the old document
    PathBuffer aside{};    // where the document waits if the volume can't exchange; else empty
    PathBuffer restored{}; // where the copy goes
};

struct OwnerNote {
    Work work = Work::Copy;
    char document[PATH_MAX] = ""; // or the generation that leaves
    static constexpr uint32_t kUnknownMode = UINT32_MAX;
    uint32_t topMode = kUnknownMode; // a move: what the document's top item had
    uint32_t topFlags = 0;
    ItemId top{};
    ItemMark folder; // and the folder that it was taken from
    char machine[80] = "";
    char boot[80] = "";
    int64_t process = 0;
    int64_t since = 0; // seconds since 1970, by this machine's clock
    bool hasExchange = false;
    PlannedExchange exchange{};

    // Made here, now.
    static OwnerNote Of(Work work, const char *document);
    bool IsOfThisMachine() const;
    bool IsOfThisStart() const;
};

// Makes the owner file in `directory`, which is `path`, and locks it; says which item it is. An empty descriptor on
// failure.
UniqueFd _MakeOwnerFile(int directory, const char *path, const OwnerNote &note, ItemId *id, TQError **error);

// Adds what is about to be exchanged. The caller brings it to disk.
bool _NoteExchange(int ownerFile, const char *path, const PlannedExchange &exchange, TQError **error);

// Gives the lock back, so that a child that was forked meanwhile keeps nothing of it.
void _ReleaseOwnerFile(UniqueFd &ownerFile);

enum class OwnerLife {
    None,     // there is no owner file
    Doubtful, // there is one that is not to be believed, or can't be read; or whose owner may live elsewhere
    Alive,
    Dead,
};

// What the owner file in `directory` says. `areaOwner` is whom the staging area belongs to. `note` is filled for Alive
// and Dead, and for Doubtful if `readable` is set; `written` is when it was, by the volume's clock.
struct FoundOwner {
    OwnerLife life = OwnerLife::None;
    bool readable = false;
    bool isBlank = false; // nothing is in it: a power cut took what was not flushed
    OwnerNote note{};
    struct timespec written {};
};
void _LookForOwner(int directory, uint32_t areaOwner, FoundOwner *found);
