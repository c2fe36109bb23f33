// Checking the staging area: what killed operations left there, and the documents among it.
//
// Adding and removing hold the exclusive lock, so while it is held here nothing of theirs is in progress. A copy that
// a caller has asked for outlives its lock, which is why young entries stay.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/filesystem.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

namespace {

constexpr char kMovedFromAttribute[] = "com.corvane.vaultry.moved_from";
constexpr size_t kUniqueLength = 7;
constexpr char kUniqueAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr char kStagedItem[] = "staged";
constexpr size_t kLinkUnique = 6;
constexpr int64_t kLitterAge = 3600; // seconds

// The youngest of the times that tell when somebody worked here last.
int64_t LastUse(const char *unique, const char *staged)
{
    TQFileStatus status;
    int64_t last = INT64_MIN;
    for (const char *path : {unique, staged})
        if (platform::GetStatus(Item::AtPath(path), Links::NoFollow, &status) == 0)
            last = std::max<int64_t>(last, status.changeTime.tv_sec);
    return last;
}

bool HoldsOnly(const char *name, size_t length, const char *alphabet)
{
    return strlen(name) == length && strspn(name, alphabet) == length;
}

// The item in the making, and a copy that was to take the place of a hard link.
bool IsOurs(const char *name)
{
    constexpr size_t length = sizeof kStagedItem - 1;
    if (strncmp(name, kStagedItem, length) != 0) return false;
    return name[length] == '\0' || (name[length] == '_' && HoldsOnly(name + length + 1, kLinkUnique, kUniqueAlphabet));
}

enum class Contents { Ours, Foreign, Unknown };

Contents ContentsOf(const char *unique)
{
    Names names(unique);
    while (const char *name = names.Next())
        if (!IsOurs(name)) return Contents::Foreign;
    return names.error() == 0 ? Contents::Ours : Contents::Unknown;
}

// The document goes home, and the directory that held it goes with its note once that is on disk, with the rights that
// the document got back; not if there is more in it.
bool GiveBack(const char *unique, const char *staged, uint32_t mode, const char *home)
{
    const auto flush = TreeFlush::At(staged);
    if (!_GiveDocumentBack(staged, home) || !flush.Flush(home, mode, nullptr) || !_FlushEntry(home, nullptr))
        return false;
    if (ContentsOf(unique) == Contents::Ours) (void)_RemoveTree(unique, 0, nullptr);
    return true;
}

// Where the document belongs that is being moved, as it was noted; "" if there is no note.
enum class Note { Absent, Path, Malformed, Unreadable };

Note GetNote(const char *unique, char (&home)[PATH_MAX])
{
    const ssize_t length =
        platform::GetAttribute(Item::AtPath(unique), Links::NoFollow, kMovedFromAttribute, home, sizeof home - 1);
    if (length < 0) return errno == ENODATA ? Note::Absent : errno == ERANGE ? Note::Malformed : Note::Unreadable;
    home[length] = '\0';
    return home[0] == '/' && strlen(home) == static_cast<size_t>(length) ? Note::Path : Note::Malformed;
}

void CheckLitter(const char *unique, const char *staged, Findings &findings)
{
    if (LastUse(unique, staged) > time(nullptr) - kLitterAge)
        findings.Add(unique, "staging-recent",
                     "Something was staged here less than an hour ago: a copy in use, or one that was interrupted.");
    else
        findings.AddMendable(unique, "staging-litter", "An interrupted operation left this in staging; it may go.",
                             [unique] { return _RemoveTree(unique, 0, nullptr); });
}

// What can't be read may be somebody's only copy: only what is surely absent counts as absent.
void CheckUnique(const char *unique, Findings &findings)
{
    PathBuffer staged;
    if (!staged.Format("%s/%s", unique, kStagedItem)) return;
    TQFileStatus status;
    const bool holdsItem = platform::GetStatus(Item::AtPath(staged.c_str()), Links::NoFollow, &status) == 0;
    if (!holdsItem && errno != ENOENT) return findings.AddUnreadable(unique);

    char home[PATH_MAX] = "";
    const Note note = holdsItem ? GetNote(unique, home) : Note::Absent;
    const Contents contents = ContentsOf(unique);
    if (note == Note::Path)
        findings.AddMendable(staged.c_str(), "document-in-staging",
                             "A move into the store was interrupted: this is the document, and may be its only copy.",
                             [&] { return GiveBack(unique, staged.c_str(), status.mode, home); });
    else if (note == Note::Malformed)
        findings.Add(staged.c_str(), "note-malformed",
                     "This is a document, maybe its only copy, and the note of where it belongs is damaged.");
    else if (note == Note::Unreadable || contents == Contents::Unknown)
        findings.AddUnreadable(unique);
    else if (contents == Contents::Foreign)
        findings.AddForeign(unique);
    else
        CheckLitter(unique, staged.c_str(), findings);
}

} // namespace

void _CheckStagingArea(const char *stagingPath, Findings &findings)
{
    Names names(stagingPath);
    while (const char *name = names.Next()) {
        PathBuffer unique;
        if (!unique.Format("%s/%s", stagingPath, name)) continue;
        if (HoldsOnly(name, kUniqueLength, kUniqueAlphabet) && _IsDirectory(unique.c_str(), /*status=*/nullptr))
            CheckUnique(unique.c_str(), findings);
        else
            findings.AddForeign(unique.c_str());
    }
    if (names.error() != 0) findings.AddUnreadable(stagingPath);
}
