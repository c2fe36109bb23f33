// Checks the staging area: what dead operations left there, and the documents among that.
//
// The owner file tells living operations from dead ones. A copy that a client has asked for outlives its operation, and
// a directory without an owner file may be anybody's. Their age decides: one is old if nothing in it has changed for an
// hour, by the volume's own clock.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/ActingAs.h"
#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Platform/TreeWalk.h"
#include "Platform/UniqueNames.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_storage.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t kLitterAge = 3600; // seconds

// What all of staging has in common.
struct Area {
    int directory;
    bool mayMakeFiles;
    uid_t owner; // of the area, and so of every owner file
};

// One operation's directory, open.
struct Unique {
    Item item; // in the staging area
    TQFileStatus status;
    int fd;
    const Area &area;
    Item staged; // what it holds
    FoundOwner owner{};
};

bool IsUnique(const char *name)
{
    constexpr size_t length = sizeof kUniqueTemplate - 1;
    return strlen(name) == length && strspn(name, platform::kUniqueAlphabet) == length;
}

// The owner file, the item in the making, and a copy that was to take the place of a hard link.
bool IsOurs(const char *name, bool isRemoval)
{
    constexpr size_t length = sizeof kStagedName - 1;
    if (strcmp(name, kOwnerFileName) == 0 || strcmp(name, kStagedName) == 0) return true;
    if (isRemoval && IsStagedName(name)) return true;
    if (strncmp(name, kStagedName, length) != 0) return false;
    return LengthOfLinkedName(name) == length;
}

enum class Contents { Ours, Foreign, Unknown };

Contents ContentsOf(const Unique &unique)
{
    Names names({unique.fd, ".", unique.item.path});
    const bool isRemoval = unique.owner.readable && unique.owner.note.work == Work::Remove;
    while (const char *name = names.Next())
        if (!IsOurs(name, isRemoval)) return Contents::Foreign;
    return names.error() == 0 ? Contents::Ours : Contents::Unknown;
}

// A file without a name tells the time on the volume, and leaves nothing behind. Where the volume has no such files, a
// repair makes one with a name; a mere check goes by the host's clock.
int64_t VolumeTime(const Area &area)
{
    const ErrnoKeeper keeper;
    UniqueFd file(openat(area.directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!file && area.mayMakeFiles) {
        char name[sizeof kUniqueTemplate];
        memcpy(name, kUniqueTemplate, sizeof name);
        file.Reset(platform::MakeUniqueFileAt(area.directory, name, 0));
        if (file) (void)unlinkat(area.directory, name, 0);
    }
    TQFileStatus status;
    return file && platform::GetStatusOfFd(file.get(), &status) == 0 ? int64_t{status.changeTime.tv_sec}
                                                                     : time(nullptr);
}

// Whether nothing in the whole tree has changed for an hour.
bool IsOld(const Unique &unique)
{
    TreeWalk walk;
    if (!walk.Open(unique.item)) return false;
    const int64_t hourAgo = VolumeTime(unique.area) - kLitterAge;
    while (const TreeWalk::Entry *entry = walk.Next()) {
        const bool isKnown = entry->hasStatus || entry->error == ENOENT;
        if (!isKnown || (entry->hasStatus && entry->status.changeTime.tv_sec > hourAgo)) return false;
    }
    return true;
}

// Root removes as the directory's maker, and so nothing that the maker could not remove.
bool RemoveUnique(const Unique &unique)
{
    const platform::ActingAs maker(unique.status.owner);
    if (!maker) return false;
    const TreeRemoval how{.keepsShared = true, .last = kOwnerFileName, .expected = &unique.status};
    return _RemoveTreeAt(unique.item, how, nullptr);
}

void CheckLitter(const Unique &unique, bool isDead, Findings &findings)
{
    if (isDead || IsOld(unique))
        findings.AddMendable(unique.item.path, "staging-litter",
                             "An interrupted operation left this in staging; it may go.",
                             [&] { return RemoveUnique(unique); });
    else
        findings.Add(unique.item.path, "staging-recent",
                     "Something was staged here less than an hour ago: a copy in use, or one that was interrupted.");
}

// Whether to give a document back to a folder. A note that root made in somebody else's store would lead root through
// any link of theirs, so the folder has to be the one that the document was taken from. Others go where their rights
// let them. An earlier version noted no folder.
bool MayGoTo(const OpenedFolder &folder, const Unique &unique)
{
    const OwnerNote &note = unique.owner.note;
    TQFileStatus status;
    if (unique.status.owner == unique.area.owner || unique.status.owner != 0) return true;
    return unique.owner.life != OwnerLife::None && platform::GetStatusOfFd(folder.fd(), &status) == 0 &&
           note.folder.IsFolder(status, note.IsOfThisStart());
}

// Gives the document back, with the rights that it had. Once that is on disk, the directory that held it is removed
// with its note, unless there is more in it.
bool GiveBack(const Unique &unique, uint32_t mode, const char *home, const MovedDocument &document)
{
    {
        const platform::ActingAs maker(unique.status.owner);
        const OpenedFolder folder(home);
        const auto flush = TreeFlush::By(unique.fd);
        if (!maker || !folder || !MayGoTo(folder, unique) ||
            !_GiveDocumentBack(unique.staged, folder.item(), document) || !flush.Flush(home, mode, nullptr) ||
            !_FlushEntry(home, nullptr))
            return false;
    }
    if (ContentsOf(unique) == Contents::Ours) (void)RemoveUnique(unique);
    return true;
}

// Whether there is a note of where a moved document belongs.
enum class Note { Absent, Path, Malformed, Unreadable };

Note GetNoteOfEarlierVersion(const Unique &unique, char (&home)[PATH_MAX])
{
    const ssize_t length = platform::GetAttributeOfFd(unique.fd, kMovedFromAttribute, home, sizeof home - 1);
    if (length < 0) return errno == ENODATA ? Note::Absent : errno == ERANGE ? Note::Malformed : Note::Unreadable;
    home[length] = '\0';
    return home[0] == '/' && strlen(home) == static_cast<size_t>(length) ? Note::Path : Note::Malformed;
}

// Gets the note from the owner file, or that of an earlier version. `document` gets what it tells besides the path.
Note GetNote(const Unique &unique, char (&home)[PATH_MAX], MovedDocument *document)
{
    const FoundOwner &owner = unique.owner;
    if (owner.life == OwnerLife::None) return GetNoteOfEarlierVersion(unique, home);
    // The note of a move is on disk before its document is moved.
    if (!owner.readable) return owner.isBlank && owner.life == OwnerLife::Dead ? Note::Absent : Note::Malformed;
    if (owner.note.work != Work::Move) return Note::Absent;
    memcpy(home, owner.note.document, sizeof home);
    *document = {owner.note.topMode != OwnerNote::kUnknownMode,
                 owner.note.top,
                 owner.note.topMode,
                 owner.note.topFlags,
                 owner.note.topOptions,
                 owner.note.topInfo,
                 owner.note.topName,
                 owner.written};
    return home[0] == '/' ? Note::Path : Note::Malformed;
}

void CheckDocument(const Unique &unique, uint32_t mode, const char *home, const MovedDocument &document,
                   Findings &findings)
{
    const FoundOwner &owner = unique.owner;
    if (owner.life == OwnerLife::Doubtful && owner.note.IsOfThisMachine())
        findings.Add(
            unique.staged.path, "document-in-staging",
            "A move into the store was begun before this machine was started anew, or on another one of its name: "
            "this is the document. Whether the move goes on can't be told on this volume; a person has to move it "
            "back.",
            /*mended=*/false, home);
    else if (owner.life != OwnerLife::None && !(owner.life == OwnerLife::Dead && owner.note.IsOfThisMachine()))
        findings.Add(unique.staged.path, "document-in-staging",
                     "A move into the store was interrupted: this is the document, and may be its only copy. It was "
                     "moved on another machine, and a repair there gives it back.",
                     /*mended=*/false, home);
    else
        findings.AddMendable(
            unique.staged.path, "document-in-staging",
            "A move into the store was interrupted: this is the document, and may be its only copy.",
            [&] { return GiveBack(unique, mode, home, document); }, home);
}

// A directory is bare for an instant when its operation begins, under the store's lock, and when it ends, without it.
// Otherwise only a kill leaves one bare.
bool IsBare(const Unique &unique)
{
    TQFileStatus note;
    const Item ownerFile{unique.fd, kOwnerFileName, unique.item.path};
    if (platform::GetStatus(unique.staged, Links::NoFollow, &note) == 0 || errno != ENOENT) return false;
    if (platform::GetStatus(ownerFile, Links::NoFollow, &note) == 0) return S_ISREG(note.mode) && note.size == 0;
    return errno == ENOENT && _FillingOf(unique.item, unique.status) == Filling::Empty;
}

// A move that was cut short before it took its document may have made that writable, and only its note tells. False if
// the note is still needed.
bool CheckDocumentAtHome(const Unique &unique, Findings &findings)
{
    const OwnerNote &note = unique.owner.note;
    const OpenedFolder folder(note.document);
    TQFileStatus status;
    const bool isThere = folder && platform::GetStatus(folder.item(), Links::NoFollow, &status) == 0 &&
                         ItemId::Of(status) == note.top && note.IsOfThisStart();
    const uint32_t flags = isThere ? status.flags | (note.topFlags & kBlockingFlags) : 0;
    const bool isLifted = isThere && (flags != status.flags || (status.mode & 07777) != note.topMode) &&
                          (status.mode & 07777) == (note.topMode | 0200);
    if (!isLifted) return true;
    const bool mended = findings.AddMendable(
        note.document, "document-lifted",
        "A move into the store was interrupted before it began: the document can be written to, and could not before.",
        [&] {
            const platform::ActingAs maker(unique.status.owner);
            const UniqueFd pinned = maker ? platform::PinItem(folder.item(), status) : UniqueFd();
            return pinned && platform::SetModeOfPinned(pinned.get(), static_cast<mode_t>(note.topMode)) == 0 &&
                   platform::SetFlagsOfPinned(pinned.get(), status, flags) == 0;
        });
    return mended || !findings.repair();
}

// What a restore put beside its document is settled before its note is removed.
void CheckLeftovers(const Unique &unique, Findings &findings)
{
    const FoundOwner &owner = unique.owner;
    // If a power cut took the note's bytes, it also ended a client that had a copy.
    const bool isOver = owner.readable ? owner.note.work != Work::CopyOut : owner.isBlank;
    const bool isDead = owner.life == OwnerLife::Dead && isOver;
    const bool isOfMove = owner.note.work == Work::Move && owner.note.topMode != OwnerNote::kUnknownMode;
    if (isDead && isOfMove && !CheckDocumentAtHome(unique, findings)) return;
    // Age says nothing about what stands beside a document.
    const bool isNoted = owner.life != OwnerLife::None && owner.readable && owner.note.hasExchange;
    if (isNoted) {
        findings.SetNote(unique.item.path);
        const bool isSettled = _CheckExchange(unique.item.path, owner, unique.status, findings);
        findings.SetNote(nullptr);
        if (!isSettled) return;
    }
    CheckLitter(unique, isDead || (findings.repair() && IsBare(unique)), findings);
}

// An item that can't be read may be somebody's only copy, so only what is certainly absent counts as absent.
void CheckUnique(Unique &unique, Findings &findings)
{
    // A repair acts with the rights of the directory's owner, which must not serve what others could write into it.
    if ((unique.status.mode & (S_IWGRP | S_IWOTH)) != 0) return findings.AddForeign(unique.item.path);

    // This was a generation, which on a full disk could leave the root in no other way. Nothing that lies in it is
    // believed.
    const bool wasGeneration = platform::GetAttributeOfFd(unique.fd, kSavedPermissionsAttribute, nullptr, 0) >= 0;
    if (wasGeneration) return CheckLitter(unique, /*isDead=*/false, findings);
    if (errno != ENODATA && errno != ENOTSUP) return findings.AddUnreadable(unique.item.path);

    _LookForOwner(unique.fd, unique.area.owner, &unique.owner);
    if (unique.owner.life == OwnerLife::Alive) return findings.AddLiving(unique.owner.note);
    const ScopeExit forget([&] { findings.SetHost(nullptr); });
    if (unique.owner.readable && !unique.owner.note.IsOfThisMachine()) findings.SetHost(unique.owner.note.host);

    TQFileStatus status;
    const bool holdsItem = platform::GetStatus(unique.staged, Links::NoFollow, &status) == 0;
    if (!holdsItem && errno != ENOENT) return findings.AddUnreadable(unique.item.path);

    char home[PATH_MAX] = "";
    MovedDocument document;
    const Note note = holdsItem ? GetNote(unique, home, &document) : Note::Absent;
    const Contents contents = ContentsOf(unique);
    if (note == Note::Path)
        CheckDocument(unique, status.mode, home, document, findings);
    else if (note == Note::Malformed)
        findings.Add(unique.staged.path, "note-malformed",
                     "This may be a document, maybe its only copy, and the note of where it belongs is damaged.");
    else if (note == Note::Unreadable || contents == Contents::Unknown)
        findings.AddUnreadable(unique.item.path);
    else if (contents == Contents::Foreign)
        findings.AddForeign(unique.item.path);
    else
        CheckLeftovers(unique, findings);
}

void CheckEntry(int directory, const char *name, const char *path, const Area &area, Findings &findings)
{
    const Item item{directory, name, path};
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) findings.AddUnreadable(path); // otherwise its operation has ended
        return;
    }
    if (!S_ISDIR(status.mode) || !IsUnique(name)) return findings.AddForeign(path);
    const UniqueFd fd(openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus opened;
    PathBuffer staged;
    if (!fd || platform::GetStatusOfFd(fd.get(), &opened) != 0 || ItemId::Of(opened) != ItemId::Of(status) ||
        !staged.Format("%s/%s", path, kStagedName))
        return findings.AddUnreadable(path);
    Unique unique{item, opened, fd.get(), area, {fd.get(), kStagedName, staged.c_str()}};
    if (IsBare(unique)) {
        constexpr struct timespec kInstant = {0, 20000000};
        (void)nanosleep(&kInstant, nullptr);
        if (platform::GetStatus(item, Links::NoFollow, &status) != 0 && errno == ENOENT) return;
    }
    CheckUnique(unique, findings);
}

} // namespace

void _CheckStagingArea(const Item &area, Findings &findings)
{
    Names names(area);
    TQFileStatus status;
    if (names.error() != 0 || platform::GetStatusOfFd(names.directory(), &status) != 0)
        return findings.AddUnreadable(area.path);
    const Area common{names.directory(), findings.repair(), status.owner};
    while (const char *name = names.Next()) {
        PathBuffer path;
        if (path.Format("%s/%s", area.path, name)) CheckEntry(names.directory(), name, path.c_str(), common, findings);
    }
    if (names.error() != 0) findings.AddUnreadable(area.path);
}
