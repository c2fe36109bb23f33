// Copying a generation out: the copy gets back the rights that archiving recorded, and none of the store's attributes.
//
// Uneven on purpose: only write bits and the two recorded flags come back, and an item without a record
// gets owner write.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sys/stat.h>

namespace {

// A copy never gets these, so they need not be removed from it again.
bool IsStoreAttribute(const char *name)
{
    return std::any_of(std::begin(kStoreAttributes), std::end(kStoreAttributes),
                       [name](const char *own) { return strcmp(name, own) == 0; });
}

struct RestoredRights {
    mode_t mode;
    uint32_t flags;
};

// What the copy is to have, from what the generation's item has and its byte.
bool ReadRestoredRights(const DuplixFinished &item, RestoredRights *rights)
{
    uint8_t saved = 0;
    const ssize_t length = platform::GetAttributeOfFd(item.source, kSavedPermissionsAttribute, &saved, sizeof saved);
    const mode_t mode = item.mode;
    const uint32_t flags = item.status.flags & ~uint32_t{kTQFlagImmutable};
    if (length == 1) {
        // Without its access list, only the owner gets write access back: the list may have denied it to the others.
        const mode_t write = SavedWriteBits(saved) & (item.isListLost ? S_IWUSR : kWriteBits);
        *rights = {mode | write, flags | SavedFlags(saved)};
        return true;
    }
    *rights = {mode | 0200, flags};
    if (length == 0) errno = EINVAL; // nothing failed, but the error needs a reason
    return length < 0 && errno == ENODATA;
}

bool Unarchive(const DuplixFinished &item, const char *path, TQError **error)
{
    RestoredRights rights;
    if (!ReadRestoredRights(item, &rights)) {
        Failure(error).Errno("Failed to retrieve original perms from xattr on item \"%s\"", path);
        if (item.modeIsDue) (void)fchmod(item.copy, item.mode); // it stays, as protected as the generation's
        return false;
    }

    // An immutable item refuses chmod, and a directory without owner write could not even be removed if this goes
    // wrong.
    uint32_t flags = item.status.flags;
    if ((flags & kTQFlagImmutable) != 0) {
        flags &= ~uint32_t{kTQFlagImmutable};
        if (platform::SetFlagsOfFd(item.copy, flags) != 0)
            return Failure(error).Errno("Failed to temporarily unset UF_IMMUTABLE for \"%s\"", path);
    }
    mode_t mode = item.status.mode & 07777;
    if (!item.modeIsDue && (mode & 0200) == 0) {
        mode |= 0200;
        if (fchmod(item.copy, mode) != 0)
            return Failure(error).Errno("Failed to temporarily make \"%s\" writable", path);
    }
    // A call that would change nothing is left out.
    if ((item.modeIsDue || rights.mode != mode) && fchmod(item.copy, rights.mode) != 0)
        return Failure(error).Errno("chmod(%s, %04o) failed", path, rights.mode);
    if (rights.flags != flags && platform::SetFlagsOfFd(item.copy, rights.flags) != 0 && errno != ENOTSUP)
        return Failure(error).Errno("chflags(%s) failed", path);
    return true;
}

// An item with these flags can get neither its final mode nor a new name.
void TakeBlockingFlags(int pinned, const TQFileStatus &status, const char *path)
{
    char text[256];
    if ((status.flags & kBlockingFlags) != 0 &&
        platform::SetFlagsOfPinned(pinned, status, status.flags & ~kBlockingFlags) != 0 && errno != ENOTSUP)
        Log(kLogError).Line("chflags on path \"%s\" returned error %d (%s)\n", path, errno,
                            strerror_r(errno, text, sizeof text));
}

// The caller may still want to move the copy, and applies its final mode itself.
void LeaveWritable(int pinned, mode_t mode, const char *path)
{
    char text[256];
    if (S_ISDIR(mode) && (mode & kWriteBits) != kWriteBits &&
        platform::SetModeOfPinned(pinned, (mode | kWriteBits) & 07777) != 0)
        Log(kLogError).Line("chmod on path \"%s\" returned error %d (%s)\n", path, errno,
                            strerror_r(errno, text, sizeof text));
}

// One item of a tree, with the folders on the way to it.
struct Selection {
    const char *only;
    TQError **error;

    bool Has(const char *path) const
    {
        const size_t length = strlen(path), wanted = strlen(only);
        if (strncmp(path, only, std::min(length, wanted)) != 0) return false;
        return length == wanted || (length < wanted ? only[length] : path[wanted]) == '/';
    }
};

int CopySelected(int what, int stage, DuplixState *state, const char *source, const char *destination, void *context)
{
    const auto &selection = *static_cast<const Selection *>(context);
    const bool begins = stage == duplix_stage::Start && (what == duplix_what::File || what == duplix_what::Directory);
    if (begins && !selection.Has(source)) return duplix_answer::Skip;
    return _DuplixUnarchiveCallback(what, stage, state, source, destination, selection.error);
}

} // namespace

bool TQCopyOutGeneration(const char *path, const char *destination, uint16_t *mode, uint32_t *flags, TQError **error)
{
    return _CopyOutGeneration(Item::AtPath(path), destination, mode, flags, /*made=*/nullptr, /*flushEach=*/false,
                              /*leaveWritable=*/true, /*only=*/nullptr, error);
}

bool _CopyOutGeneration(const Item &stored, const char *destination, uint16_t *mode, uint32_t *flags,
                        platform::DuplixMade *made, bool flushEach, bool leaveWritable, const char *only,
                        TQError **error)
{
    if (error) *error = nullptr;
    if (mode) *mode = 0;
    if (flags) *flags = 0;
    const char *const path = stored.path;
    if (!path || !destination || !mode || !flags)
        return Failure(error).Refused(kTQStatusBadPath, "no path was supplied");
    platform::DuplixMade own;
    if (!made) made = &own;
    const platform::DuplixOptions options{.made = made, .root = &stored, .flushEach = flushEach, .leavesMode = true};
    Selection selection{only, error};
    const int result = only ? platform::duplix(path, destination, CopySelected, &selection, options)
                            : platform::duplix(path, destination, _DuplixUnarchiveCallback, error, options);
    if (result != 0) return false;

    // The status is of what was made, whatever has its name by now. Of a link that somebody put into the store, it is
    // the link's own.
    TQFileStatus status;
    const UniqueFd copy = platform::PinItem(Item::AtPath(destination), made->item);
    if (!copy || platform::GetStatusOfFd(copy.get(), &status) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", destination);
    *mode = static_cast<uint16_t>(status.mode);
    *flags = status.flags;
    TakeBlockingFlags(copy.get(), status, destination);
    if (leaveWritable) LeaveWritable(copy.get(), status.mode, destination);
    return true;
}

int _DuplixUnarchiveCallback(int what, int stage, DuplixState *state, const char *source, const char *destination,
                             void *errorOut)
{
    auto **error = static_cast<TQError **>(errorOut);
    if (what == duplix_what::Walk || stage == duplix_stage::Error)
        return QuitOnCopyError(error, what, stage, source, destination);
    if (IsSidecarStart(what, stage, source)) return duplix_answer::Skip;
    if (state->attribute && IsStoreAttribute(state->attribute)) return duplix_answer::Skip;
    if (!IsItemFinished(what, stage)) return duplix_answer::Continue;
    // A link comes out as it is, wherever it leads.
    if (!state->finished) return duplix_answer::Continue;

    (void)_TransferBirthTimeTo(state->destination, source, *state->source);
    return Unarchive(*state->finished, destination, error) ? duplix_answer::Continue : duplix_answer::Quit;
}
