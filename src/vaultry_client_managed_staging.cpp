// Where things lie in a store: generations under their names, and what an operation is building in staging.

#include "vaultry_client_managed_staging.h"

#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/UniqueNames.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool _GetPathToGeneration(const char *rootPath, const char *name, bool mustExist, PathBuffer &path, TQError **error)
{
    if (!TQValidateGenerationName(name))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    if (!path.Format("%s/%s", rootPath, name))
        return Failure(error).Refused(kTQStatusBadPath, "The supplied generation name is too long");
    // The path of the empty name is the root itself, which is not a generation.
    if (name[0] == '\0' && !mustExist)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    if (mustExist && (name[0] == '\0' || _PathNotExists(path.c_str())))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name doesn't exist");
    return true;
}

// A link that somebody planted there would lead the work, and the removal at its end, out of the store. False with
// errno. If nothing is there, or something other than a directory, the work itself fails.
static bool _StagingLeadsNowhereElse(const char *rootPath, TQFileStatus *area)
{
    PathBuffer staging;
    if (!staging.Format("%s/%s", rootPath, kStagingName)) return true;
    if (platform::GetStatus(Item::AtPath(staging.c_str()), Links::NoFollow, area) != 0) return errno == ENOENT;
    if (S_ISLNK(area->mode)) errno = ELOOP;
    return !S_ISLNK(area->mode);
}

bool _GetUniqueStagingPath(const char *rootPath, PathBuffer &path, TQFileStatus *area, TQError **error)
{
    if (!path.Format("%s/%s/%s", rootPath, kStagingName, kUniqueTemplate))
        return Failure(error).Status(kTQStatusBadPath, "staging path is too long");
    if (!_StagingLeadsNowhereElse(rootPath, area) || platform::MakeUniqueDirectory(path.data()) != 0)
        return Failure(error).Errno("mkdtemp(\"%s\") failed", path.c_str());

    const size_t uniqueLength = strlen(path.c_str());
    if (path.Append("/") && path.Append(kStagedName)) return true;

    // The cut path names nothing, or the directory itself; either way the directory is removed.
    (void)_RemoveTree(path.c_str(), 0, nullptr);
    path.data()[uniqueLength] = '\0';
    (void)rmdir(path.c_str());
    return Failure(error).Status(kTQStatusBadPath, "path name is too long");
}

// The owner file is removed last, so that what a kill leaves still says whose it was.
static bool RemoveUnique(const char *path, TQError **error)
{
    return _RemoveTreeAt(Item::AtPath(path), {.keepsShared = true, .last = kOwnerFileName}, error);
}

bool _RemoveStagingPath(const char *rootPath, const char *path, TQError **error)
{
    PathBuffer prefix;
    if (!prefix.Format("%s/%s/", rootPath, kStagingName))
        return Failure(error).Status(kTQStatusBadPath, "path to staging is too long");
    const size_t prefixLength = strlen(prefix.c_str());
    TQFileStatus area{};
    if (!path || strncmp(path, prefix.c_str(), prefixLength) != 0 || !_StagingLeadsNowhereElse(rootPath, &area))
        return Failure(error).Status(kTQStatusFailed, "Staging path provided to remove was not in staging directory");
    if (path[prefixLength] == '\0') return true;

    // Such names lead back to the staging area or out of it, and everything there would be removed.
    const char *unique = path + prefixLength;
    const size_t uniqueLength = strcspn(unique, "/");
    if (uniqueLength == 0 || strncmp(unique, "..", uniqueLength) == 0)
        return Failure(error).Status(kTQStatusFailed, "Staging path provided to remove was not in staging directory");
    if (unique[uniqueLength] == '\0') return RemoveUnique(path, error);

    const size_t length = prefixLength + uniqueLength;
    if (length >= PathBuffer::kCapacity)
        return Failure(error).Status(kTQStatusBadPath, "staging path to remove is too long");
    PathBuffer directory;
    (void)directory.Format("%.*s", static_cast<int>(length), path);
    return RemoveUnique(directory.c_str(), error);
}

static constexpr size_t kStagedLength = sizeof kStagedName - 1;
static constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"; // no letter of kStagedName
static constexpr unsigned kBase = sizeof kDigits - 1;

bool IsStagedName(const char *name)
{
    return strcmp(name, kStagedName) == 0 || (strlen(name) == kStagedLength && strspn(name, kDigits) == kStagedLength);
}

// The path of the place with this number. Only the last component changes.
const char *StagingDirectory::NamePlace(unsigned number)
{
    char *const name = staged_.data() + strlen(staged_.c_str()) - kStagedLength;
    memcpy(name, kStagedName, kStagedLength);
    if (number == 0) return staged_.c_str();
    for (size_t i = kStagedLength; i > 0; number /= kBase) name[--i] = kDigits[number % kBase];
    return staged_.c_str();
}

const char *StagingDirectory::NextPlace()
{
    return NamePlace(places_++);
}

StagingDirectory::~StagingDirectory()
{
    const ErrnoKeeper keeper;
    if (root_) Remove();
    _ReleaseOwnerFile(owner_);
}

void StagingDirectory::Remove()
{
    if (directory_ && RemoveWhatIsUsual()) return;
    directory_.Reset();
    // If something has taken the directory's place, it is somebody's own.
    if (!owner_ || IsAtItsPath() || errno != ESTALE) (void)_RemoveStagingPath(root_, unique_.c_str(), nullptr);
}

// Usually only the owner file is left, or staged items with it. Then nothing has to be listed.
bool StagingDirectory::RemoveWhatIsUsual()
{
    const int directory = directory_.get();
    bool isEmpty = true;
    for (unsigned number = 0; !isTaken_ && (number == 0 || number < places_); ++number) {
        const char *const path = NamePlace(number);
        // Of several, most are files.
        if (places_ > 1 && unlinkat(directory, strrchr(path, '/') + 1, 0) == 0) continue;
        isEmpty &= _RemoveTreeAt({directory, strrchr(path, '/') + 1, path}, {.keepsShared = true}, nullptr);
    }
    // What of several can't be deleted waits for a repair, with the note.
    if (!isEmpty) return places_ > 1;
    char self[sizeof "../" + NAME_MAX];
    (void)snprintf(self, sizeof self, "../%s", strrchr(unique_.c_str(), '/') + 1);
    return unlinkat(directory, kOwnerFileName, 0) == 0 && unlinkat(directory, self, AT_REMOVEDIR) == 0;
}

bool StagingDirectory::IsAtItsPath() const
{
    const UniqueFd there(open(unique_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    TQFileStatus status;
    if (!there || platform::GetStatus({there.get(), kOwnerFileName, unique_.c_str()}, Links::NoFollow, &status) != 0)
        return false;
    if (ItemId::Of(status) == ownerId_) return true;
    errno = ESTALE;
    return false;
}

void StagingDirectory::Keep()
{
    root_ = nullptr;
}

bool StagingDirectory::Make(const char *root, const OwnerNote &note, TQError **error)
{
    TQFileStatus area{};
    if (!_GetUniqueStagingPath(root, staged_, &area, error)) return false;
    root_ = root;
    (void)unique_.Format("%.*s", static_cast<int>(strrchr(staged_.c_str(), '/') - staged_.c_str()), staged_.c_str());
    directory_.Reset(open(unique_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory_) return Failure(error).Errno("Failed to write \"%s/%s\"", unique_.c_str(), kOwnerFileName);
    const Item place{directory_.get(), kOwnerFileName, unique_.c_str()};
    owner_ = _MakeOwnerFile(place, area.owner, note, &ownerId_, &ownerEnd_, error);
    return static_cast<bool>(owner_);
}

struct timespec StagingDirectory::written() const
{
    TQFileStatus status{};
    (void)platform::GetStatusOfFd(owner_.get(), &status);
    return status.modificationTime;
}

bool StagingDirectory::FlushNote(TQError **error) const
{
    const UniqueFd area(openat(directory_.get(), "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!area || !IsAtItsPath()) return Failure(error).Errno("Failed to flush \"%s\" to disk", unique_.c_str());
    for (const int fd : {owner_.get(), directory_.get(), area.get()})
        if (platform::FlushFd(fd) != 0) return Failure(error).Errno("Failed to flush \"%s\" to disk", unique_.c_str());
    return true;
}

bool StagingDirectory::NoteExchange(const PlannedExchange &exchange, TQError **error)
{
    return _NoteExchange(owner_.get(), unique_.c_str(), exchange, &ownerEnd_, error) && FlushNote(error);
}
