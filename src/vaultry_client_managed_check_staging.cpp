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

// The document goes home, and the directory that held it goes with its note once that is on disk.
bool GiveBack(const char *unique, const char *staged, const char *home)
{
    return _GiveDocumentBack(staged, home) && _FlushEntry(home, nullptr) && _RemoveTree(unique, 0, nullptr);
}

bool IsUniqueName(const char *name)
{
    return strlen(name) == kUniqueLength && name[strspn(name, kUniqueAlphabet)] == '\0';
}

void CheckUnique(const char *unique, Findings &findings)
{
    PathBuffer staged;
    if (!staged.Format("%s/staged", unique)) return;
    TQFileStatus status;
    const bool holdsItem = platform::GetStatus(Item::AtPath(staged.c_str()), Links::NoFollow, &status) == 0;
    const bool itemUnknown = !holdsItem && errno != ENOENT;

    char home[PATH_MAX] = "";
    const ssize_t length =
        platform::GetAttribute(Item::AtPath(unique), Links::NoFollow, kMovedFromAttribute, home, sizeof home - 1);
    const bool noteUnknown = length < 0 && errno != ENODATA;
    // What can't be read may be somebody's only copy: only what is surely absent counts as absent.
    if (itemUnknown || (noteUnknown && holdsItem)) {
        findings.AddUnreadable(unique);
        return;
    }
    if (length > 0 && holdsItem) {
        home[length] = '\0';
        findings.AddMendable(staged.c_str(), "document-in-staging",
                             "A move into the store was interrupted: this is the document, and may be its only copy.",
                             [&] { return GiveBack(unique, staged.c_str(), home); });
        return;
    }
    if (LastUse(unique, staged.c_str()) > time(nullptr) - kLitterAge)
        findings.Add(unique, "staging-recent",
                     "Something was staged here less than an hour ago: a copy in use, or one that was interrupted.");
    else
        findings.AddMendable(unique, "staging-litter", "An interrupted operation left this in staging; it may go.",
                             [unique] { return _RemoveTree(unique, 0, nullptr); });
}

} // namespace

void _CheckStagingArea(const char *stagingPath, Findings &findings)
{
    Names names(stagingPath);
    while (const char *name = names.Next()) {
        PathBuffer unique;
        if (!unique.Format("%s/%s", stagingPath, name)) continue;
        if (IsUniqueName(name) && _IsDirectory(unique.c_str(), /*status=*/nullptr))
            CheckUnique(unique.c_str(), findings);
        else
            findings.Add(unique.c_str(), "staging-foreign",
                         "The library did not make this; a person should look at it.");
    }
    if (names.error() != 0) findings.AddUnreadable(stagingPath);
}
