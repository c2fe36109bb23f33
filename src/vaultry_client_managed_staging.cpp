// Where things lie in a store: generations under their names, and what an operation is building in staging.

#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Platform/UniqueNames.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

bool _GetPathToGeneration(const char *rootPath, const char *name, bool mustExist, PathBuffer &path, TQError **error)
{
    if (!TQValidateGenerationName(name))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    if (!path.Format("%s/%s", rootPath, name))
        return Failure(error).Refused(kTQStatusBadPath, "The supplied generation name is too long");
    // The path of the empty name is the root itself, and no generation.
    if (mustExist && (name[0] == '\0' || _PathNotExists(path.c_str())))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name doesn't exist");
    return true;
}

// A link that somebody planted there would lead the work, and the removal at its end, out of the store.
static bool _StagingIsLink(const char *rootPath)
{
    PathBuffer staging;
    TQFileStatus status;
    return staging.Format("%s/%s", rootPath, kStagingName) &&
           platform::GetStatus(Item::AtPath(staging.c_str()), Links::NoFollow, &status) == 0 && S_ISLNK(status.mode);
}

bool _GetUniqueStagingPath(const char *rootPath, PathBuffer &path, TQError **error)
{
    if (!path.Format("%s/%s/%s", rootPath, kStagingName, "XXXXXXX"))
        return Failure(error).Status(kTQStatusBadPath, "staging path is too long");
    if (_StagingIsLink(rootPath)) {
        errno = ELOOP;
        return Failure(error).Errno("mkdtemp(\"%s\") failed", path.c_str());
    }
    if (platform::MakeUniqueDirectory(path.data()) != 0)
        return Failure(error).Errno("mkdtemp(\"%s\") failed", path.c_str());

    const size_t uniqueLength = strlen(path.c_str());
    if (path.Append("/staged")) return true;

    // The cut path names nothing, or the directory itself; either way the directory goes.
    (void)_RemoveTree(path.c_str(), 0, nullptr);
    path.data()[uniqueLength] = '\0';
    (void)rmdir(path.c_str());
    return Failure(error).Status(kTQStatusBadPath, "path name is too long");
}

bool _RemoveStagingPath(const char *rootPath, const char *path, TQError **error)
{
    PathBuffer prefix;
    if (!prefix.Format("%s/%s/", rootPath, kStagingName))
        return Failure(error).Status(kTQStatusBadPath, "path to staging is too long");
    const size_t prefixLength = strlen(prefix.c_str());
    if (!path || strncmp(path, prefix.c_str(), prefixLength) != 0 || _StagingIsLink(rootPath))
        return Failure(error).Status(kTQStatusFailed, "Staging path provided to remove was not in staging directory");
    if (path[prefixLength] == '\0') return true;

    // Such names lead back to the staging area or out of it, and with it everything would go.
    const char *unique = path + prefixLength;
    const size_t uniqueLength = strcspn(unique, "/");
    if (uniqueLength == 0 || strncmp(unique, "..", uniqueLength) == 0)
        return Failure(error).Status(kTQStatusFailed, "Staging path provided to remove was not in staging directory");
    if (unique[uniqueLength] == '\0') return _RemoveTree(path, 0, error);

    const size_t length = prefixLength + uniqueLength;
    if (length >= PathBuffer::kCapacity)
        return Failure(error).Status(kTQStatusBadPath, "staging path to remove is too long");
    PathBuffer directory;
    (void)directory.Format("%.*s", static_cast<int>(length), path);
    return _RemoveTree(directory.c_str(), 0, error);
}
