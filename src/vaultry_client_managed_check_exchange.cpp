// Checking what a dead restore left beside its document: by device and inode it is told which item is the document and
// which the copy, wherever the restore was cut short. What is neither is reported and left to a person.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed_trust.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum class Holds { Nothing, Document, Copy, Empty, Other, Unknown };

class LeftExchange {
public:
    LeftExchange(const OwnerNote &note, int folder, uid_t owner, Findings &findings)
        : note_(note), folder_(folder), owner_(owner), findings_(findings)
    {
    }

    // True if nothing is left at the name of `path`.
    bool Settle(const char *path);

private:
    Item At(const char *path) const
    {
        const char *const slash = strrchr(path, '/');
        return {folder_, slash ? slash + 1 : path, path};
    }
    Holds Look(const Item &item, TQFileStatus *status) const;
    bool Is(const TQFileStatus &status, const ItemId &id) const;
    bool GiveBack(const Item &item, const TQFileStatus &status) const;
    bool Remove(const Item &item, const TQFileStatus &status) const;
    bool RemoveEmpty(const Item &item, const TQFileStatus &status) const;

    const OwnerNote &note_;
    int folder_;
    uid_t owner_;
    Findings &findings_;
};

// Since the machine was started anew the volume's device may have another number.
bool LeftExchange::Is(const TQFileStatus &status, const ItemId &id) const
{
    return id.inode != 0 && status.inode == id.inode && (status.device == id.device || !note_.IsOfThisStart());
}

Holds LeftExchange::Look(const Item &item, TQFileStatus *status) const
{
    if (platform::GetStatus(item, Links::NoFollow, status) != 0)
        return errno == ENOENT ? Holds::Nothing : Holds::Unknown;
    const PlannedExchange &plan = note_.exchange;
    if (Is(*status, plan.document)) return Holds::Document;
    if (Is(*status, plan.copy) || Is(*status, plan.placeholder)) return Holds::Copy;
    return _FillingOf(item, *status) == Filling::Empty ? Holds::Empty : Holds::Other;
}

bool LeftExchange::GiveBack(const Item &item, const TQFileStatus &status) const
{
    const Item home = At(note_.document);
    return _OwnerMayChange(folder_, &status, owner_) && platform::RenameIntoNothing(item, home) == 0 &&
           _FlushEntry(home.path, nullptr);
}

bool LeftExchange::Remove(const Item &item, const TQFileStatus &status) const
{
    TreeRemoval how;
    how.expected = &status;
    return _OwnerMayChange(folder_, &status, owner_) && _RemoveTreeAt(item, how, nullptr);
}

// The name was noted before anything stood there, and nothing can be lost with what holds nothing.
bool LeftExchange::RemoveEmpty(const Item &item, const TQFileStatus &status) const
{
    return _OwnerMayChange(folder_, &status, owner_) &&
           unlinkat(item.directory, item.name, S_ISDIR(status.mode) ? AT_REMOVEDIR : 0) == 0;
}

bool LeftExchange::Settle(const char *path)
{
    if (path[0] == '\0') return true;
    const Item item = At(path);
    TQFileStatus status, there;
    const Holds held = Look(item, &status);
    if (held == Holds::Nothing) return true;
    findings_.AddExplained(path);
    if (held == Holds::Empty)
        return findings_.AddMendable(path, "placeholder-empty",
                                     "A restore was interrupted: this is the empty item that it put beside the "
                                     "document.",
                                     [&] { return RemoveEmpty(item, status); });
    const Holds home = Look(At(note_.document), &there), restored = Look(At(note_.exchange.restored.c_str()), &there);

    if (held == Holds::Document && restored == Holds::Copy)
        return findings_.AddMendable(path, "old-document-beside",
                                     "A restore was interrupted when it was done, but for removing the document's old "
                                     "state, which this is.",
                                     [&] { return Remove(item, status); });
    if (held == Holds::Document && home == Holds::Nothing)
        return findings_.AddMendable(
            path, "document-aside", "A restore was interrupted: this is the document, which belongs elsewhere.",
            [&] { return GiveBack(item, status); }, note_.document);
    if (held == Holds::Copy && home == Holds::Document)
        return findings_.AddMendable(
            path, "copy-beside",
            "A restore was interrupted: this is what it was about to put in the document's place. The document is as "
            "it was.",
            [&] { return Remove(item, status); });
    findings_.Add(path, "document-aside",
                  "A restore was interrupted, and what is here, or in the document's place, has been changed since: it "
                  "may be the document, or its old state.",
                  /*mended=*/false, note_.document);
    return false;
}

} // namespace

bool _CheckExchange(const OwnerNote &note, uid_t owner, Findings &findings)
{
    const PlannedExchange &plan = note.exchange;
    if (!note.IsOfThisMachine()) {
        findings.Add(plan.waiting.c_str(), "document-aside",
                     "A restore on another machine was interrupted; a repair there tells what this is, and mends it.",
                     /*mended=*/false, note.document);
        return false;
    }
    const OpenedFolder folder(plan.waiting.c_str());
    if (!folder) {
        if (errno == ENOENT || errno == ENOTDIR) return true;
        findings.AddUnreadable(plan.waiting.c_str());
        return false;
    }
    // The document goes home first: then it is known what the other one is.
    LeftExchange left(note, folder.fd(), owner, findings);
    const bool isAsideSettled = left.Settle(plan.aside.c_str());
    return left.Settle(plan.waiting.c_str()) && isAsideSettled;
}
