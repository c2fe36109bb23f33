// Thin wrappers: each fixes whether links are followed, what counts as success, and which errno the caller sees.

#include "Shared/vaultry_fs_wrappers.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/UniqueFd.h"
#include "Platform/Volume.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

namespace {

constexpr char kFileManagerInfo[] = "com.corvane.NavvexInfo";
constexpr size_t kFileManagerInfoSize = 32;
constexpr size_t kExtensionHiddenByte = 9;
constexpr uint8_t kExtensionHiddenBit = 0x10;

constexpr uint64_t kSystemManagedMinimumSize = 536870912; // exclusive

using FileManagerInfo = std::array<uint8_t, kFileManagerInfoSize>;

// False, and zeros beyond what was read, unless the attribute is there with its right size.
bool ReadFileManagerInfo(const Item &item, Links links, FileManagerInfo &info)
{
    info.fill(0);
    return platform::GetAttribute(item, links, kFileManagerInfo, info.data(), info.size()) ==
           static_cast<ssize_t>(info.size());
}

bool SetTrackedFlag(const char *path, bool wanted)
{
    const UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    TQFileStatus status;
    if (!fd || platform::GetStatusOfFd(fd.get(), &status) != 0) return false;
    if (((status.flags & kTQFlagTracked) != 0) == wanted) return true;
    const uint32_t flags = wanted ? status.flags | kTQFlagTracked : status.flags & ~uint32_t{kTQFlagTracked};
    return platform::SetFlagsOfFd(fd.get(), flags) == 0;
}

const char *OrEmpty(const char *path)
{
    return path ? path : "";
}

} // namespace

int _SafeStatFS(const char *path, TQVolumeStatus *out)
{
    if (!out) {
        errno = EFAULT;
        return -1;
    }
    return platform::GetVolumeStatus(OrEmpty(path), out);
}

bool _PathExists(const char *path)
{
    return access(OrEmpty(path), F_OK) == 0;
}

bool _PathNotExists(const char *path)
{
    return access(OrEmpty(path), F_OK) != 0 && errno == ENOENT;
}

bool _IsDirectory(const char *path, const TQFileStatus *status)
{
    TQFileStatus own;
    if (!status) {
        if (platform::GetStatus(Item::AtPath(OrEmpty(path)), Links::NoFollow, &own) != 0) return false;
        status = &own;
    }
    return S_ISDIR(status->mode);
}

bool _HasAttribute(const char *path, const char *name)
{
    return platform::GetAttribute(Item::AtPath(OrEmpty(path)), Links::NoFollow, OrEmpty(name), nullptr, 0) >= 0;
}

bool _FDHasAttribute(int fd, const char *name)
{
    return platform::GetAttributeOfFd(fd, OrEmpty(name), nullptr, 0) >= 0;
}

bool _SetCopyOnWrite(const char *path)
{
    return SetTrackedFlag(OrEmpty(path), /*wanted=*/true);
}

bool _UnsetCopyOnWrite(const char *path)
{
    return SetTrackedFlag(OrEmpty(path), /*wanted=*/false);
}

bool TQFSFilenameExtensionIsHidden(const char *path)
{
    FileManagerInfo info;
    return ReadFileManagerInfo(Item::AtPath(OrEmpty(path)), Links::NoFollow, info) &&
           (info[kExtensionHiddenByte] & kExtensionHiddenBit) != 0;
}

void TQFSSetFileNameExtensionHiding(const char *path, bool hide)
{
    _SetFileNameExtensionHiding(Item::AtPath(OrEmpty(path)), Links::NoFollow, hide);
}

void _SetFileNameExtensionHiding(const Item &item, Links links, bool hide)
{
    FileManagerInfo info;
    if (!ReadFileManagerInfo(item, links, info) && !hide) return;

    uint8_t &mark = info[kExtensionHiddenByte];
    mark = static_cast<uint8_t>(hide ? mark | kExtensionHiddenBit : mark & ~kExtensionHiddenBit);
    if (platform::SetAttribute(item, links, kFileManagerInfo, info.data(), info.size()) == 0) return;
    const int errorNumber = errno;
    char text[256];
    Log(kLogError).Line("setxattr on \"%s\" for NavvexInfo returned error %d (%s)\n", item.path, errorNumber,
                        strerror_r(errorNumber, text, sizeof text));
}

bool _TransferACL(void)
{
    return true;
}

bool _TransferBirthTime(const char *source, const char *destination)
{
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(OrEmpty(source)), Links::NoFollow, &status) != 0) {
        Log(kLogDebug).Line("gettmetavec failed (errno %d) for %s\n", errno, OrEmpty(source));
        return false;
    }
    return _TransferBirthTimeTo(Item::AtPath(OrEmpty(destination)), OrEmpty(source), status);
}

bool _TransferBirthTimeTo(const Item &destination, const char *sourcePath, const TQFileStatus &source)
{
    if (!source.hasBirthTime) {
        errno = ENOTSUP;
        Log(kLogDebug).Line("gettmetavec failed (errno %d) for %s\n", errno, sourcePath);
        return false;
    }
    if (platform::SetBirthTime(destination, source.birthTime) == 0) return true;
    Log(kLogDebug).Line("setmetavec failed (errno %d) for %s\n", errno, destination.path);
    return false;
}

bool _SetBirthTimeSpecForFD(int fd, int64_t seconds, int64_t nanoseconds)
{
    struct timespec time {};
    time.tv_sec = seconds;
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(nanoseconds);
    if (platform::SetBirthTimeOfFd(fd, time) == 0) return true;
    Log(kLogDebug).Line("fsetmetavec failed (errno %d) for %d\n", errno, fd);
    return false;
}

bool _SetBirthTimeSecondsForFD(int fd, int64_t seconds)
{
    return _SetBirthTimeSpecForFD(fd, seconds, 0);
}

bool TQSystemManagedStorageIsSupportedForStatFSInfo(const TQVolumeStatus *volume, TQError **error)
{
    const bool native = volume && platform::IsNativeVolumeType(volume->typeName);
    if (native && uint64_t{volume->blockSize} * volume->blockCount > kSystemManagedMinimumSize) return true;

    const auto message = Ref<TQString>::Adopt(TQStringCreate("This volume doesn't support system managed vaultry"));
    const auto underlying =
        Ref<TQError>::Adopt(TQErrorCreate(kTQPOSIXErrorDomain, native ? ENOSPC : ENOSYS, /*userInfo=*/nullptr));
    return ReportStringFailure(error, kLogDebug, kTQStatusNotSupported, message.get(), underlying.get());
}

void _RemoveValueCB(TQValue *value, void *targetSet)
{
    (void)TQSetRemoveValue(static_cast<TQSet *>(targetSet), value);
}

void TQSetRemoveValues(TQSet *set, const TQSet *values)
{
    if (set != values) {
        TQSetApply(values, _RemoveValueCB, set);
        return;
    }
    // A set must not change while it is walked, so if it is emptied by itself, its members are listed first.
    const size_t count = TQSetGetCount(set);
    const std::unique_ptr<TQValue *[]> members(new (std::nothrow) TQValue *[count]);
    if (!members) return;
    TQSetGetValues(set, members.get());
    for (size_t i = 0; i < count; ++i) _RemoveValueCB(members[i], set);
}
