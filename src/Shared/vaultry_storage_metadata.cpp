// Attributes of a generation: how one is written through the item's write protection, and the display name. The info
// dictionary and the options word have files of their own.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage_lift.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kDisplayNameCapacity = 768; // its zero included

// A link that somebody put into the store takes no attribute, and its target is not ours to lift.
bool LiftForChange(LiftedGeneration &item, const char *path, TQError **error)
{
    TQFileStatus target;
    const bool found = item.Look();
    const bool isLink = found && S_ISLNK(item.before().mode);
    if (!found || (isLink && platform::GetStatus(Item::AtPath(path), Links::Follow, &target) != 0))
        return Failure(error).Errno("Failed to stat generation root at \"%s\"", path);
    if (isLink) return true;
    if (!item.TakeImmutableFlag())
        return Failure(error).Errno("Failed to remove UF_IMMUTABLE from generation root at \"%s\"", path);
    return item.AddOwnerWrite() || Failure(error).Errno("Failed to make generation root at \"%s\" writable", path);
}

bool WriteAttribute(const char *path, const char *name, const void *value, size_t size, TQError **error)
{
    const Item item = Item::AtPath(path);
    if (!value || size == 0) {
        if (platform::RemoveAttribute(item, Links::NoFollow, name) == 0 || errno == ENODATA) return true;
        return Failure(error).Errno("removexattr(\"%s\") failed", path);
    }
    if (platform::SetAttribute(item, Links::NoFollow, name, value, size) == 0) return true;
    return Failure(error).Errno("setxattr(\"%s\") failed", path);
}

} // namespace

bool _WriteProtectedAttribute(const char *path, const char *name, const void *value, size_t size, TQError **error)
{
    if (!name) return Failure(error).Refused(kTQStatusInvalidArgument, "no attribute name was supplied");
    if (geteuid() == 0) return WriteAttribute(path, name, value, size, error); // modes do not stop root

    LiftedGeneration lifted(path);
    return LiftForChange(lifted, path, error) && WriteAttribute(path, name, value, size, error);
}

bool _SetEAOnGeneration(const char *path, const char *name, const void *value, size_t size, TQError **error)
{
    if (!path) path = "";
    return _WriteProtectedAttribute(path, name, value, size, error) && _FlushItem(path, error);
}

bool TQSetOriginalDisplayName(const char *path, const TQString *name, TQError **error)
{
    char buffer[kDisplayNameCapacity] = "";
    if (TQStringGetLength(name) != 0 && !TQStringGetFileSystemRepresentation(name, buffer, sizeof buffer))
        return Failure(error).Status(kTQStatusInvalidArgument, TQStringGetUTF8Length(name) >= sizeof buffer
                                                                   ? "supplied display name was too long"
                                                                   : "supplied display name holds a zero byte");
    return _SetEAOnGeneration(path, kDisplayNameAttribute, buffer, strlen(buffer), error);
}

TQString *TQCopyOriginalDisplayName(const char *path, TQError **error)
{
    return _CopyDisplayNameOf(Item::AtPath(path ? path : ""), error);
}

TQString *_CopyDisplayNameOf(const Item &item, TQError **error)
{
    const char *const path = item.path;
    char buffer[kDisplayNameCapacity + 1] = "";
    const ssize_t length =
        platform::GetAttribute(item, Links::Follow, kDisplayNameAttribute, buffer, kDisplayNameCapacity);
    if (length < 0) return Failure(error).Errno("Failed to get original display name xattr");
    if (length >= static_cast<ssize_t>(kDisplayNameCapacity))
        return Failure(error).Status(kTQStatusFailed, "Original display name xattr too large (%ld) at path \"%s\"",
                                     static_cast<long>(length), path);
    // The read has succeeded, so this errno is an older one, but the error shows it.
    if (length == 0) return Failure(error).Errno("Original display name xattr too short (0) at path \"%s\"", path);

    TQString *name = TQStringCreateWithFileSystemRepresentation(buffer);
    if (!name)
        return Failure(error).Status(kTQStatusFailed,
                                     "Could not create string from original display name xattr at path \"%s\"\n", path);
    return name;
}
