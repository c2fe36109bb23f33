// Who owns a staging directory, and what is done in it.
//
// The owner file lies beside what is staged. It says what is done, to which document or generation, by which process of
// which machine, and since when; a restore adds what it is about to exchange. It is written before anything is staged,
// and locked with flock for as long as its operation lives, so that whoever finds the directory can tell work in
// progress from what a kill left. A child that a killed process had forked keeps this lock as it keeps the store's:
// until it ends or runs another program, the operation counts as alive. A copy for a client outlives its operation, and
// so its lock.
//
// The file is believed only if it is a regular file of the staging area's owner, with the mode 0600 and one link. It is
// never believed in a directory that was a generation: a generation on its way out may hold any name.

#pragma once

#include "Platform/ItemId.h"
#include "Platform/UniqueFd.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/error.h>
#include <vaultry/file_status.h>

#include <climits>

inline constexpr char kOwnerFileName[] = ".vaultry_owner";

enum class Work { Copy, Move, Remove, CopyOut, Restore };
const char *WordOf(Work work); // as it stands in the file

// An item as it was when it was noted. The inode number of an item that has gone may be given to another, which is born
// later.
struct ItemMark {
    ItemId id{};
    int64_t born = 0, bornNanoseconds = 0; // zero where the volume does not tell
    uint64_t size = 0;
    int64_t modified = 0, modifiedNanoseconds = 0;

    static ItemMark Of(const TQFileStatus &status);
    // The device does not count after a restart of the machine, since the volume may have another number then.
    bool IsOf(const TQFileStatus &status, bool deviceCounts) const;
    // The same for a folder. Its birth does not count, since that changes when an overlay copies it up.
    bool IsFolder(const TQFileStatus &status, bool deviceCounts) const;
    // Whether a file has not been written to since; true for any other item.
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
    char document[PATH_MAX] = ""; // or the generation that is removed or copied out
    static constexpr uint32_t kUnknownMode = UINT32_MAX;
    uint32_t topMode = kUnknownMode; // a move: what the document's top item had
    uint32_t topFlags = 0;
    BroughtOptions topOptions{};
    BroughtInfo topInfo{};
    BroughtName topName{};
    ItemId top{};
    ItemMark folder; // and the folder that it was taken from
    char machine[80] = "";
    char boot[80] = "";
    char host[80] = ""; // the machine's name, for people; empty if an earlier version made the note
    int64_t process = 0;
    int64_t since = 0; // seconds since 1970, by this machine's clock
    bool hasExchange = false;
    PlannedExchange exchange{};

    // A note of this process, as of now.
    static OwnerNote Of(Work work, const char *document);
    bool IsOfThisMachine() const;
    bool IsOfThisStart() const;
};

// Makes the owner file at `place`, whose path is that of its directory, and locks it. The staging area belongs to
// `areaOwner`. `id` tells which item the file is. An empty descriptor on failure.
UniqueFd _MakeOwnerFile(const Item &place, uint32_t areaOwner, const OwnerNote &note, ItemId *id, off_t *end,
                        TQError **error);

// Adds what is about to be exchanged. The caller flushes it.
bool _NoteExchange(int ownerFile, const char *path, const PlannedExchange &exchange, off_t *end, TQError **error);

// Gives the lock back, so that a child that was forked meanwhile keeps nothing of it.
void _ReleaseOwnerFile(UniqueFd &ownerFile);

enum class OwnerLife {
    None,     // there is no owner file
    Doubtful, // there is one that is not to be believed, or can't be read; or whose owner may live elsewhere
    Alive,
    Dead,
};

// What the owner file in `directory` says. The staging area belongs to `areaOwner`. `note` counts only if `readable` is
// set. `written` is when the file was last written, by the volume's clock.
struct FoundOwner {
    OwnerLife life = OwnerLife::None;
    bool readable = false;
    bool isBlank = false; // nothing is in it: a power cut took what was not flushed
    OwnerNote note{};
    struct timespec written {};
};
void _LookForOwner(int directory, uint32_t areaOwner, FoundOwner *found);
