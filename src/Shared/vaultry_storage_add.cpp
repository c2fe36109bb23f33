// Placing a tree where it becomes a generation: by copying, archiving each item as it is finished, or by one rename,
// archiving afterwards.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/Mounts.h"
#include "Platform/TreeWalk.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage_share.h"

#include <vaultry/path.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

// A child of the thread's current progress, if there is one. False if the source can't be measured.
bool MakeProgress(const char *source, Ref<TQProgress> *progress, TQError **error)
{
    TQProgress *current = TQProgressGetCurrent();
    if (!current) return true;
    Ref<TQError> why;
    const int64_t size = TQComputeTreeSize(source, why.out());
    if (size < 0) {
        if (error) *error = why.Detach();
        return false;
    }
    *progress = Ref<TQProgress>::Adopt(TQProgressCreateChild(current, size));
    if (!*progress) return Failure(error).Status(kTQStatusFailed, "malloc failed"); // the copy could not be cancelled
    const auto url = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(source, /*isDirectory=*/false));
    TQProgressSetUserInfo(progress->get(), kTQProgressFileOperationKindKey, kTQProgressFileOperationKindCopying);
    TQProgressSetUserInfo(progress->get(), kTQProgressFileURLKey, url.get());
    TQProgressSetCancellable(progress->get(), true);
    TQProgressSetKind(progress->get(), kTQProgressKindFile);
    return true;
}

// A tree that has grown since it was measured, or whose volume does not know sizes, has more bytes than the total.
// A file that was compared, and then copied after all, is counted once.
void ReportCompleted(TQProgress *progress, uint64_t bytes)
{
    if (!progress) return;
    const auto total = TQProgressGetTotalUnits(progress);
    const auto completed = static_cast<int64_t>(std::min(bytes, static_cast<uint64_t>(total)));
    if (completed > TQProgressGetCompletedUnits(progress)) TQProgressSetCompletedUnits(progress, completed);
}

// What a copied item that comes from another store's generation had before it was archived there; none if its record
// can't be believed. An item with a write bit was changed since. A record never gives write access to a class that may
// not read, nor a flag that the adding process could not set: the copy-out would fail. `mode` is that of the copy. That
// may have lost the access list.
std::optional<uint8_t> BroughtRecord(int item, const TQFileStatus &source, mode_t mode, TQAddContext &context)
{
    uint8_t record[2];
    const ssize_t length = platform::GetAttributeOfFd(item, kSavedPermissionsAttribute, record, sizeof record);
    if (length != 1 || (record[0] & ~kSavedBits) != 0 || (source.mode & kWriteBits) != 0) return std::nullopt;
    if (!context.mayBlock) context.mayBlock = platform::MaySetBlockingFlags();
    uint8_t readable = *context.mayBlock ? kSavedImmutable | kSavedAppend : 0;
    if ((mode & S_IRUSR) != 0) readable |= kSavedOwnerWrite;
    if ((mode & S_IRGRP) != 0) readable |= kSavedGroupWrite;
    if ((mode & S_IROTH) != 0) readable |= kSavedOtherWrite;
    return record[0] & readable;
}

int FinishShared(const DuplixState &state, TQAddContext &context)
{
    context.bytesCompleted += state.source->size;
    ReportCompleted(context.progress, context.bytesCompleted);
    return duplix_answer::Continue;
}

int QuitOnCancel(TQError **error)
{
    if (error) TQRelease(std::exchange(*error, nullptr)); // a cancel outranks whatever went wrong before
    errno = ECANCELED;
    Failure(error).Errno("operation was cancelled by the user");
    return duplix_answer::Quit;
}

// Shares the file with the earlier generation, if that has the same.
int ShareWithBase(const DuplixOpened &file, void *addContext)
{
    auto *context = static_cast<TQAddContext *>(addContext);
    const auto goOn = [context](uint64_t bytes) {
        ReportCompleted(context->progress, context->bytesCompleted + bytes);
        return !context->progress || !TQProgressIsCancelled(context->progress);
    };
    const uint8_t own = SavedPermissionsOf(file.status.mode, file.status.flags);
    const uint8_t record = BroughtRecord(file.source, file.status, file.status.mode, *context).value_or(own);
    switch (context->base->Share(file, record, std::ref(goOn))) {
    case BaseFiles::Outcome::Shared:
        return duplix_answer::Skip;
    case BaseFiles::Outcome::Stopped:
        return QuitOnCancel(context->error);
    case BaseFiles::Outcome::NotShared:
        break;
    }
    return duplix_answer::Continue;
}

bool CopyAsGeneration(const char *source, const char *destination, bool makeReadable, bool archive,
                      const AddManner &manner, AddedTree *added, TQError **error)
{
    Ref<TQProgress> progress;
    if (!MakeProgress(source, &progress, error)) return false;

    // If the walk could not even begin, nothing was counted; the copy decides what is wrong.
    if (error) *error = nullptr;
    TQAddContext context{makeReadable, archive, 0, progress.get(), error};
    context.source = manner.keepLinks ? source : nullptr;
    context.base = manner.base;
    // Archiving gives each item its last mode.
    const platform::DuplixOptions options{.flushEach = true,
                                          .leavesMode = archive,
                                          .file = manner.leavesFileOpen ? &added->file : nullptr,
                                          .substitute = manner.base ? ShareWithBase : nullptr};
    const bool isCopied = platform::duplix(source, destination, _DuplixAddCallback, &context, options) == 0;
    added->brought = context.brought;
    added->bytes = context.bytesCompleted;
    return isCopied;
}

// The rights of the source, which a move changes while it lasts and then puts back.
struct MovedItem {
    TQFileStatus before{};
    bool changed = false;

    bool MakeMovable(const char *source, TQError **error)
    {
        if (geteuid() == 0) return true; // modes do not stop root
        const Item item = Item::AtPath(source);
        if (platform::GetStatus(item, Links::Follow, &before) != 0 ||
            platform::GetStatus(item, Links::NoFollow, &before) != 0)
            return Failure(error).Errno("stat(\"%s\") failed", source);
        // A link moves whatever its target's rights are, and archiving then refuses it.
        if (S_ISLNK(before.mode)) return true;
        if ((before.flags & kBlockingFlags) != 0) {
            if (platform::SetFlags(item, Links::NoFollow, before.flags & ~kBlockingFlags) != 0)
                return Failure(error).Errno("Failed to make staged item (\"%s\") writable before rename", source);
            changed = true;
        }
        if ((before.mode & 0200) == 0) {
            if (platform::SetMode(item, Links::NoFollow, (before.mode | 0200) & 07777) != 0) {
                Failure(error).Errno("Failed to make staged item (\"%s\") writable before rename", source);
                PutBack(source);
                return false;
            }
            changed = true;
        }
        return true;
    }

    bool RestoreMode(const char *path) const
    {
        return !changed || platform::SetMode(Item::AtPath(path), Links::NoFollow, before.mode & 07777) == 0;
    }

    bool RestoreFlags(const char *path) const
    {
        return !changed || before.flags == 0 ||
               platform::SetFlags(Item::AtPath(path), Links::NoFollow, before.flags) == 0 || errno == ENOTSUP;
    }

    // For a source that stays, or is given back.
    void PutBack(const char *source) const
    {
        const ErrnoKeeper keeper;
        if (!RestoreMode(source)) Failure(nullptr).Errno("Failed to put the mode of \"%s\" back", source);
        if (!RestoreFlags(source)) Failure(nullptr).Errno("Failed to put the flags of \"%s\" back", source);
    }
};

// A mount inside a tree would be moved with it, but is not a part of it.
bool HoldsNoMount(const char *source, TQError **error)
{
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(source), Links::NoFollow, &status) != 0)
        return errno == ENOENT || errno == ENOTDIR || // the rename reports it
               Failure(error).Errno("stat(\"%s\") failed", source);
    if (!S_ISDIR(status.mode)) return true; // the kernel refuses to rename a mount point
    bool isMountedOn = false;
    if (platform::HasMountInside(source, &isMountedOn) != 0)
        return Failure(error).Errno("Failed to look for mounts in \"%s\"", source);
    if (!isMountedOn) return true;
    errno = EBUSY;
    return Failure(error).Errno("Failed to move \"%s\", in which something is mounted", source);
}

// The document is given back before anything is removed: it may be the only copy.
bool FailedAfterMove(const MovedItem &moved, const char *source, const char *destination)
{
    MovedDocument notArchived;
    notArchived.since = {std::numeric_limits<time_t>::max(), 0};
    if (_GiveDocumentBack(Item::AtPath(destination), Item::AtPath(source), notArchived)) moved.PutBack(source);
    return false;
}

// Some volumes rename, and lose the answer. Nobody else puts anything in staging, so what is there is the document.
bool CameAllTheSame(const char *source, const char *destination)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    return platform::GetStatus(Item::AtPath(destination), Links::NoFollow, &status) == 0 &&
           platform::GetStatus(Item::AtPath(source), Links::NoFollow, &status) != 0 && errno == ENOENT;
}

bool MoveAsGeneration(const char *source, const char *destination, bool makeReadable, bool archive,
                      const AddManner &manner, AddedTree *added, TQError **error)
{
    MovedItem moved;
    if (!HoldsNoMount(source, error) || !moved.MakeMovable(source, error)) return false;

    if (rename(source, destination) != 0 && !CameAllTheSame(source, destination)) {
        Failure(error).Errno("rename(\"%s\", \"%s\") failed", source, destination);
        // There is nothing at the destination, and RestoreMode reports that. The source still gets back what it had.
        if (!moved.RestoreMode(destination))
            Failure(nullptr).Errno("failed to make directory (\"%s\") non-writable after moving", destination);
        moved.PutBack(source);
        return false;
    }
    if (!moved.RestoreMode(destination)) {
        Failure(error).Errno("failed to make directory (\"%s\") non-writable after moving", destination);
        return FailedAfterMove(moved, source, destination);
    }
    if (!moved.RestoreFlags(destination)) {
        Failure(error).Errno("Failed to set flags on item at path \"%s\"", destination);
        return FailedAfterMove(moved, source, destination);
    }
    return !archive || _ArchiveMovedTree(destination, makeReadable, manner.keepLinks, &added->bytes, error);
}

// Of a link, that of its target. What the copy service has just set need not be read again.
bool GetCopiedStatus(const DuplixState &state, TQFileStatus *status)
{
    if (!state.finished) return platform::GetStatus(state.destination, Links::Follow, status) == 0;
    *status = state.finished->status;
    return true;
}

// A link is archived itself, not its target.
bool ArchiveCopied(const DuplixState &state, TQAddContext &context, TQError **error)
{
    const Item &item = state.destination;
    const bool makeReadable = context.makeReadable;
    if (!state.finished)
        return _ArchiveItemAt({.item = item, .before = *state.source, .makeReadable = makeReadable}, *state.source,
                              error);
    const DuplixFinished &finished = *state.finished;
    TQFileStatus before = finished.status;
    before.mode = (before.mode & S_IFMT) | finished.mode;
    const ArchivedItem archived{.item = item,
                                .before = before,
                                .makeReadable = makeReadable,
                                .record = context.bringsRecord
                                              ? BroughtRecord(finished.source, *state.source, finished.mode, context)
                                              : std::nullopt,
                                .modeNow = finished.status.mode};
    return _ArchiveOpenItem(archived, finished.copy, error);
}

void NoteBrought(const char *attribute, BroughtMetadata &brought)
{
    brought.info |= strcmp(attribute, kInfoAttribute) == 0;
    brought.displayName |= strcmp(attribute, kDisplayNameAttribute) == 0;
    brought.options |= strcmp(attribute, kOptionsAttribute) == 0;
}

} // namespace

bool TQAddPathAsGeneration(const char *source, const char *destination, bool copy, bool makeReadable, bool archive,
                           TQError **error)
{
    if (!source || !destination) return Failure(error).Refused(kTQStatusBadPath, "no path was supplied");
    AddedTree added;
    return copy ? CopyAsGeneration(source, destination, makeReadable, archive, {}, &added, error)
                : MoveAsGeneration(source, destination, makeReadable, archive, {}, &added, error);
}

bool _AddPathAsGeneration(const char *source, const char *destination, const AddManner &manner, AddedTree *added,
                          TQError **error)
{
    *added = {};
    const auto place = manner.copy ? CopyAsGeneration : MoveAsGeneration;
    return place(source, destination, /*makeReadable=*/false, /*archive=*/true, manner, added, error);
}

int _DuplixAddCallback(int what, int stage, DuplixState *state, const char *source, const char *destination,
                       void *addContext)
{
    auto *context = static_cast<TQAddContext *>(addContext);
    if (context->progress && TQProgressIsCancelled(context->progress)) return QuitOnCancel(context->error);
    if (what == duplix_what::Data && stage == duplix_stage::Progress)
        ReportCompleted(context->progress, context->bytesCompleted + state->bytesCopied);

    if (what == duplix_what::Walk || stage == duplix_stage::Error)
        return QuitOnCopyError(context->error, what, stage, source, destination);
    if (IsSidecarStart(what, stage, source)) return duplix_answer::Skip;
    if (state->attribute) NoteBrought(state->attribute, context->brought);
    if (context->archive && state->attribute && strcmp(state->attribute, kSavedPermissionsAttribute) == 0) {
        context->bringsRecord = true;
        return duplix_answer::Skip;
    }
    if (!IsItemFinished(what, stage)) return duplix_answer::Continue;
    if (!state->finished && S_ISREG(state->source->mode)) return FinishShared(*state, *context);
    if (S_ISLNK(state->source->mode) && context->source && strcmp(source, context->source) != 0)
        return duplix_answer::Continue; // a link that is kept is as it should be

    TQFileStatus status;
    if (!GetCopiedStatus(*state, &status)) {
        Failure(context->error).Errno("Failed to stat dest path \"%s\"", destination);
        return duplix_answer::Quit;
    }
    (void)_TransferBirthTimeTo(state->destination, source, *state->source);

    if (context->archive && !ArchiveCopied(*state, *context, context->error)) return duplix_answer::Quit;
    context->bringsRecord = false;
    if (S_ISDIR(status.mode)) return duplix_answer::Continue;

    // Data that could be shared was cloned when it was copied, so there is nobody to be told.
    context->bytesCompleted += state->finished ? state->bytesCopied : status.size;
    ReportCompleted(context->progress, context->bytesCompleted);
    return duplix_answer::Continue;
}

bool IsSidecarStart(int what, int stage, const char *source)
{
    return what == duplix_what::File && stage == duplix_stage::Start && IsSidecarName(source);
}

bool IsItemFinished(int what, int stage)
{
    return stage == duplix_stage::Finish && (what == duplix_what::File || what == duplix_what::DirectoryDone);
}

int QuitOnCopyError(TQError **error, int what, int stage, const char *source, const char *destination)
{
    TQError **target = error && !*error ? error : nullptr; // the first error wins
    Failure(target).Errno("duplix callback got an error what=%d stage=%d src=%s dst=%s", what, stage, source,
                          destination);
    return duplix_answer::Quit;
}

int64_t TQComputeTreeSize(const char *path, TQError **error)
{
    TreeWalk walk;
    const char *root = path ? path : "";
    if (!walk.Open(root, TreeWalk::Volumes::All)) {
        Failure(error).Errno("fts_open(\"%s\") failed", root);
        return 0;
    }
    int64_t total = 0;
    while (const TreeWalk::Entry *entry = walk.Next()) {
        switch (entry->kind) {
        case Kind::File:
            if (!IsSidecarName(entry->item.name)) total += static_cast<int64_t>(entry->status.size);
            break;
        case Kind::Unreadable:
        case Kind::NoStatus:
        case Kind::Error:
            errno = entry->error;
            Failure(error).Errno("fts_read() failed for path '%s'\n", entry->item.path);
            return -1;
        default:
            break;
        }
    }
    return total;
}
