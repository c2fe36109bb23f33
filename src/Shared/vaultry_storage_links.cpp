// Breaking hard links: no stored file shares its data with a name outside the store.
//
// The file is copied beside itself and the copy renamed over its name, so that at any moment the name holds the
// whole file. Afterwards the other links still are what they were.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/QuietOpener.h"
#include "Platform/UniqueFd.h"
#include "Platform/UniqueNames.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/filesystem.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kSuffix[] = "_XXXXXX"; // of the copy's name

// Whether what was found is the file that the walk described; if not, errno is ESTALE.
bool IsDescribed(const TQFileStatus &found, const HardLinkedFile &file)
{
    const bool isSame = ItemId::Of(found) == ItemId::Of(file.status);
    if (!isSame) errno = ESTALE;
    return isSame;
}

bool IsAtItsName(const HardLinkedFile &file)
{
    TQFileStatus found;
    return platform::GetStatus(file.item, Links::NoFollow, &found) == 0 && IsDescribed(found, file);
}

// The directory of the file, which is made writable while the copy takes the file's place, and is then put back as it
// was. Its times are put back too: the document's owner has changed nothing in it.
class WritableParent {
public:
    explicit WritableParent(const Item &parent) : parent_(parent) {}
    WritableParent(const WritableParent &) = delete;
    WritableParent &operator=(const WritableParent &) = delete;

    // Opens the directory to all while the copy is made. With `note`, a record on it tells what it had, in case this is
    // cut short. The record replaces one that the document brought along, which would pass for ours now that the
    // directory has changed. It can be written only when the owner may write and the flags have gone.
    bool MakeWritable(bool note, TQError **error)
    {
        known_ = platform::GetStatus(parent_, Links::Follow, &before_) == 0;
        const bool modesStop = geteuid() != 0; // they do not stop root
        if (!known_ && (modesStop || note)) return Fail(error);
        const bool opens = modesStop && (before_.mode & kWriteBits) == 0;
        if (opens) {
            if (!SetMode(before_.mode | (note ? 0200 : kWriteBits))) return Fail(error);
            modeChanged_ = true;
        }
        if (modesStop && (before_.flags & kBlockingFlags) != 0) {
            if (platform::SetFlags(parent_, Links::Follow, before_.flags & ~kBlockingFlags) != 0) return Fail(error);
            flagsChanged_ = true;
        }
        return !note || (Record(error) && (!opens || SetMode(before_.mode | kWriteBits) || Fail(error)));
    }

    ~WritableParent()
    {
        const ErrnoKeeper keeper;
        if (modeChanged_ && !SetMode(before_.mode))
            Failure(nullptr).Errno("failed to restore parent path \"%s\" mode", parent_.path);
        const struct timespec times[] = {before_.accessTime, before_.modificationTime};
        if (known_)
            (void)utimensat(parent_.directory, parent_.name, times,
                            0); // refused in another user's folder, except to root
        if (flagsChanged_ && platform::SetFlags(parent_, Links::Follow, before_.flags) != 0)
            Failure(nullptr).Errno("failed to restore parent path \"%s\" flags", parent_.path);
    }

private:
    bool SetMode(mode_t mode) const { return platform::SetMode(parent_, Links::Follow, mode & 07777) == 0; }

    bool Record(TQError **error) const
    {
        const uint8_t saved = SavedPermissionsOf(before_.mode, before_.flags);
        return platform::SetAttribute(parent_, Links::Follow, kSavedPermissionsAttribute, &saved, sizeof saved) == 0 ||
               Failure(error).Errno("failed to save original permissions for \"%s\"", parent_.path);
    }

    bool Fail(TQError **error) const
    {
        return Failure(error).Errno("failed to make parent path \"%s\" writable", parent_.path);
    }

    Item parent_;
    TQFileStatus before_{};
    bool known_ = false;
    bool modeChanged_ = false;
    bool flagsChanged_ = false;
};

// The copy under a name of its own, which is removed at the end unless it was renamed over the original.
class TemporaryFile {
public:
    explicit TemporaryFile(int directory) : directory_(directory) {}
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

    bool Name(const Item &item, TQError **error)
    {
        // The name is never longer than the path.
        if (path_.Format("%s%s", item.path, kSuffix) && name_.Format("%s%s", item.name, kSuffix)) return true;
        return Failure(error).Status(kTQStatusBadPath, "temporary path \"%s%s\" too long", item.path, kSuffix);
    }

    bool Make(const Item &item, TQError **error)
    {
        fd_.Reset(platform::MakeUniqueFileAt(directory_, name_.data(), 0));
        if (!fd_) return Failure(error).Errno("failed to make temp file at \"%s\"", path_.c_str());
        made_ = true;
        (void)path_.Format("%s%s", item.path, name_.c_str() + strlen(item.name));
        return true;
    }

    // A copied immutable flag would bar the removal. The file was never anybody's document.
    ~TemporaryFile()
    {
        if (!made_) return;
        const ErrnoKeeper keeper;
        if (unlinkat(directory_, name_.c_str(), 0) == 0) return;
        (void)platform::SetFlags({directory_, name_.c_str(), path_.c_str()}, Links::NoFollow, 0);
        (void)unlinkat(directory_, name_.c_str(), 0);
    }

    // A journal may bring the new name to disk before the bytes. If the power failed in between, a file that somebody
    // has nowhere else would keep its length, and hold zeros.
    bool Flush(TQFileStatus *copy, TQError **error)
    {
        return (platform::GetStatusOfFd(fd_.get(), copy) == 0 && platform::FlushFd(fd_.get()) == 0) ||
               Failure(error).Errno("Failed to flush \"%s\" to disk", path_.c_str());
    }

    // If another item has taken the file's name since it was copied, that item stays.
    bool RenameOver(const HardLinkedFile &file, TQError **error)
    {
        const Item &item = file.item;
        if (!IsAtItsName(file) || renameat(directory_, name_.c_str(), item.directory, item.name) != 0)
            return Failure(error).Errno("rename (\"%s\" -> \"%s\") failed", path_.c_str(), item.path);
        made_ = false;
        return true;
    }

    int fd() const { return fd_.get(); }
    UniqueFd TakeFd() { return std::move(fd_); }
    const char *path() const { return path_.c_str(); }

private:
    int directory_;
    bool made_ = false; // and not yet renamed
    UniqueFd fd_;
    PathBuffer name_; // relative to the directory
    PathBuffer path_;
};

// Opens the file whose status the walk read. A file that has taken its place is not archived.
UniqueFd OpenDescribed(const HardLinkedFile &file)
{
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd = platform::QuietOpener().Open(file.item, kFlags, file.status.owner);
    TQFileStatus status;
    if (!fd || platform::GetStatusOfFd(fd.get(), &status) != 0 || !IsDescribed(status, file)) return UniqueFd();
    return fd;
}

Item ParentOf(const HardLinkedFile &file, const char *parentPath)
{
    if (file.item.directory != AT_FDCWD) return {file.item.directory, ".", parentPath};
    return Item::AtPath(parentPath[0] != '\0' ? parentPath : ".");
}

} // namespace

size_t LengthOfLinkedName(const char *name)
{
    const char *const unique = strrchr(name, kSuffix[0]);
    constexpr size_t length = sizeof kSuffix - 2;
    const bool isCopy =
        unique && strlen(unique + 1) == length && strspn(unique + 1, platform::kUniqueAlphabet) == length;
    return isCopy ? static_cast<size_t>(unique - name) : 0;
}

UniqueFd _BreakHardLink(const HardLinkedFile &file, TQFileStatus *made, TQError **error)
{
    const Item &item = file.item;
    Log(kLogDebug).Line("Encountered hardlinked file at path \"%s\" with link count of %hu; breaking link.\n",
                        item.path, static_cast<unsigned short>(file.status.linkCount));

    char parentPath[4096];
    (void)snprintf(parentPath, sizeof parentPath, "%.*s", static_cast<int>(file.parentPathLength), item.path);
    WritableParent parent(ParentOf(file, parentPath));
    TemporaryFile temporary(item.directory);
    UniqueFd source;

    // The name comes first: one that is too long is refused before the directory is touched.
    if (!temporary.Name(item, error) || !parent.MakeWritable(file.noteParent, error) || !temporary.Make(item, error))
        return {};

    source = OpenDescribed(file);
    if (!source) {
        Failure(error).Errno("failed open source file at \"%s\"", item.path);
        return {};
    }
    if (platform::fduplix(source.get(), temporary.fd()) != 0) {
        Failure(error).Errno("duplix (\"%s\" -> \"%s\") failed", item.path, temporary.path());
        return {};
    }

    if (file.status.hasBirthTime)
        (void)_SetBirthTimeSpecForFD(temporary.fd(), file.status.birthTime.tv_sec, file.status.birthTime.tv_nsec);
    TQFileStatus copy;
    if (!temporary.Flush(&copy, error) || !temporary.RenameOver(file, error)) return {};
    *made = copy;
    return temporary.TakeFd();
}
