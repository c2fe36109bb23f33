// Checks what a restore left beside its document. Device, inode and birth tell which item is the document and which is
// the copy, wherever the restore was cut short. An item that is neither, or was written to since, is reported and left
// to a person. So is everything of a restore that may still live.

#include "vaultry_client_managed_check.h"

#include "Platform/ActingAs.h"
#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/Times.h"
#include "Platform/TreeWalk.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum class Holds { Nothing, Document, EditedDocument, Copy, Empty, Other, Unknown };

constexpr char kCopyBeside[] =
    "A restore was interrupted: this is what it was about to put in the document's place. The "
    "document is where it was.";

bool IsDocument(Holds held)
{
    return held == Holds::Document || held == Holds::EditedDocument;
}

class LeftExchange {
public:
    LeftExchange(const FoundOwner &owner, int folder, const TQFileStatus &author, Findings &findings)
        : note_(owner.note), written_(owner.written), isOver_(owner.life == OwnerLife::Dead), folder_(folder),
          author_(author), findings_(findings)
    {
    }

    // True if nothing is left at the name of `path`.
    bool Settle(const char *path);
    bool SettleRenamed();
    // Its volume is not there, or it was moved, and with it what the note tells of.
    bool IsFolderAway() const;

private:
    static Item In(int folder, const char *path)
    {
        const char *const slash = strrchr(path, '/');
        return {folder, slash ? slash + 1 : path, path};
    }
    Item At(const char *path) const { return In(folder_, path); }
    Holds Look(const Item &item, TQFileStatus *status) const;
    template <class Mend>
    bool Report(const char *path, const char *kind, const char *meaning, Mend mend, const char *home = nullptr);
    bool IsStill(const Item &item, Holds held, const TQFileStatus &status) const;
    bool GiveBack(const Item &item, Holds held, const TQFileStatus &status, const Item &home) const;
    static bool Remove(const Item &item, const TQFileStatus &status);
    bool IsCopyUntouched(const Item &item, const TQFileStatus &status) const;
    bool MayGoTo(int folder, TQFileStatus *status) const;

    const OwnerNote &note_;
    const struct timespec written_; // the note's time, by its volume's clock
    bool isOver_;
    int folder_;
    const TQFileStatus &author_; // the directory that holds the note; root acts for its owner
    Findings &findings_;
};

Holds LeftExchange::Look(const Item &item, TQFileStatus *status) const
{
    if (platform::GetStatus(item, Links::NoFollow, status) != 0)
        return errno == ENOENT ? Holds::Nothing : Holds::Unknown;
    const PlannedExchange &plan = note_.exchange;
    const bool deviceCounts = note_.IsOfThisStart();
    // What was written into the document since exists nowhere else.
    if (plan.document.IsOf(*status, deviceCounts))
        return plan.document.IsUnchanged(*status) ? Holds::Document : Holds::EditedDocument;
    if (plan.copy.IsOf(*status, deviceCounts) || plan.placeholder.IsOf(*status, deviceCounts)) return Holds::Copy;
    return _FillingOf(item, *status) == Filling::Empty ? Holds::Empty : Holds::Other;
}

// Asked right before a step that goes by the name.
bool LeftExchange::IsStill(const Item &item, Holds held, const TQFileStatus &status) const
{
    TQFileStatus now;
    return Look(item, &now) == held && ItemId::Of(now) == ItemId::Of(status);
}

bool LeftExchange::GiveBack(const Item &item, Holds held, const TQFileStatus &status, const Item &home) const
{
    return IsStill(item, held, status) && platform::RenameIntoNothing(item, ItemId::Of(status), home) == 0 &&
           _FlushEntry(home.path, nullptr);
}

bool LeftExchange::Remove(const Item &item, const TQFileStatus &status)
{
    TreeRemoval how;
    how.expected = &status;
    return _RemoveTreeAt(item, how, nullptr);
}

// Root mends only what the note's author could have mended, in the folder that was noted. If the note is on another
// volume, its removal may reach the disk before the mend does, so the mend is flushed.
template <class Mend>
bool LeftExchange::Report(const char *path, const char *kind, const char *meaning, Mend mend, const char *home)
{
    if (!isOver_) {
        findings_.Add(path, kind, meaning, /*mended=*/false, home);
        return false;
    }
    return findings_.AddMendable(
        path, kind, meaning,
        [&] {
            const platform::ActingAs author(author_.owner);
            const OpenedFolder folder(path);
            TQFileStatus status;
            return author && folder && MayGoTo(folder.fd(), &status) && mend(folder.fd()) &&
                   (status.device == author_.device || _FlushEntry(path, nullptr));
        },
        home);
}

bool LeftExchange::Settle(const char *path)
{
    if (path[0] == '\0') return true;
    const Item item = At(path);
    TQFileStatus status, atHome, atRestored;
    const Holds held = Look(item, &status);
    if (held == Holds::Nothing) return true;
    const auto remove = [&](int folder) { return Remove(In(folder, path), status); };
    // The name was noted before anything stood there, and with an empty item nothing can be lost.
    if (held == Holds::Empty)
        return Report(path, "placeholder-empty",
                      "A restore was interrupted: this is the empty item that it put beside the document.",
                      [&](int folder) {
                          const Item empty = In(folder, path);
                          return IsStill(empty, Holds::Empty, status) &&
                                 unlinkat(folder, empty.name, S_ISDIR(status.mode) ? AT_REMOVEDIR : 0) == 0;
                      });
    const Holds home = Look(At(note_.document), &atHome),
                restored = Look(At(note_.exchange.restored.c_str()), &atRestored);

    const bool isHomeToo = (home == held && ItemId::Of(atHome) == ItemId::Of(status)) ||
                           (restored == held && ItemId::Of(atRestored) == ItemId::Of(status));
    if (isHomeToo && held != Holds::Other && !S_ISDIR(status.mode))
        return Report(
            path, "second-name",
            "A restore was interrupted while it renamed: this is a second name of an item that has its place.",
            [&](int folder) {
                const Item second = In(folder, path);
                return IsStill(second, held, status) && unlinkat(folder, second.name, 0) == 0;
            });
    if (held == Holds::Document && restored == Holds::Copy)
        return Report(path, "old-document-beside",
                      "A restore was interrupted when it was done, but for removing the document's old state, which "
                      "this is.",
                      remove);
    if (IsDocument(held) && home == Holds::Nothing)
        return Report(
            path, "document-aside", "A restore was interrupted: this is the document, which belongs elsewhere.",
            [&](int folder) { return GiveBack(In(folder, path), held, status, In(folder, note_.document)); },
            note_.document);
    // One that was renamed here may have been exchanged, worked on, and brought back.
    const bool mayGo = !note_.exchange.copy.IsOf(status, note_.IsOfThisStart()) || IsCopyUntouched(item, status);
    if (held == Holds::Copy && IsDocument(home) && mayGo) return Report(path, "copy-beside", kCopyBeside, remove);
    if (held == Holds::Copy)
        findings_.Add(path, "copy-beside",
                      "A restore was interrupted: this is what it was about to put in the document's place, which has "
                      "been changed or removed since. Whether it may go, a person has to tell.");
    else
        findings_.Add(
            path, "document-aside",
            "A restore was interrupted, and what is here, or in the document's place, has been changed since: "
            "it may be the document, or its old state.",
            /*mended=*/false, note_.document);
    return false;
}

// Under a document's own name, somebody may have worked on the copy. Until then, nothing in it has a later time than
// the note.
bool LeftExchange::IsCopyUntouched(const Item &item, const TQFileStatus &status) const
{
    if (!S_ISDIR(status.mode)) return note_.exchange.copy.IsUnchanged(status);
    TreeWalk walk;
    if (!walk.Open(item)) return false;
    while (const TreeWalk::Entry *entry = walk.Next())
        if (!entry->hasStatus || !platform::IsBefore(entry->status.modificationTime, written_)) return false;
    return true;
}

// If the item there is not the copy, it is somebody's own.
bool LeftExchange::SettleRenamed()
{
    TQFileStatus status, there;
    const char *const path = note_.exchange.restored.c_str();
    if (Look(At(path), &status) != Holds::Copy || !IsDocument(Look(At(note_.document), &there))) return true;
    if (IsCopyUntouched(At(path), status))
        return Report(path, "copy-beside", kCopyBeside, [&](int folder) {
            const Item copy = In(folder, path);
            return IsCopyUntouched(copy, status) && Remove(copy, status);
        });
    findings_.Add(path, "copy-beside",
                  "A restore was interrupted: this is what it was about to put in the document's place, and has been "
                  "changed since. The document is where it was.");
    return false;
}

// Root's own note would lead it through any link.
bool LeftExchange::MayGoTo(int folder, TQFileStatus *status) const
{
    return platform::GetStatusOfFd(folder, status) == 0 &&
           (author_.owner != 0 || note_.exchange.folder.IsFolder(*status, note_.IsOfThisStart()));
}

bool LeftExchange::IsFolderAway() const
{
    TQFileStatus status;
    const PlannedExchange &plan = note_.exchange;
    if (platform::GetStatusOfFd(folder_, &status) == 0 && plan.folder.IsFolder(status, note_.IsOfThisStart()))
        return false;
    for (const char *path : {plan.waiting.c_str(), plan.aside.c_str()})
        if (path[0] != '\0' && Look(At(path), &status) != Holds::Nothing) return false;
    return true;
}

// The document may be in the folder that is away, under a name that only the note tells.
void AddAway(const char *notePath, const OwnerNote &note, Findings &findings)
{
    findings.Add(
        notePath, "document-absent",
        "A restore was interrupted, and the document's folder is away, or another has its place: its volume may "
        "be away, or it was moved. When it is back, a repair settles what was left; if it is gone for good, "
        "this may go.",
        /*mended=*/false, note.document);
}

} // namespace

bool _CheckExchange(const char *notePath, const FoundOwner &owner, const TQFileStatus &author, Findings &findings)
{
    const OwnerNote &note = owner.note;
    const PlannedExchange &plan = note.exchange;
    findings.AddExplained(plan.waiting.c_str());
    findings.AddExplained(plan.aside.c_str());
    if (!note.IsOfThisMachine()) {
        findings.Add(plan.waiting.c_str(), "document-aside",
                     "A restore on another machine was interrupted; a repair there tells what this is, and mends it.",
                     /*mended=*/false, note.document);
        return false;
    }
    const OpenedFolder folder(plan.waiting.c_str());
    if (!folder) {
        if (errno != ENOENT && errno != ENOTDIR)
            findings.AddUnreadable(plan.waiting.c_str());
        else
            AddAway(notePath, note, findings);
        return false;
    }
    LeftExchange left(owner, folder.fd(), author, findings);
    if (left.IsFolderAway()) {
        AddAway(notePath, note, findings);
        return false;
    }
    // The document is given back first; then it is known what the other item is.
    const bool isAsideSettled = left.Settle(plan.aside.c_str());
    const bool isSettled = left.Settle(plan.waiting.c_str()) && isAsideSettled;
    // The copy may have got a name of its own, while the document still has its name.
    const bool isRenamed = strcmp(plan.restored.c_str(), note.document) != 0;
    return (!isRenamed || left.SettleRenamed()) && isSettled;
}
