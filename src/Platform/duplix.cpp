#include "Platform/duplix.h"

#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/ItemId.h"
#include "Platform/QuietOpener.h"
#include "Platform/TreeWalk.h"
#include "Platform/duplix_data.h"
#include "Platform/duplix_metadata.h"
#include "Platform/duplix_tree.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

using Entry = TreeWalk::Entry;
using Answer = DuplixReports::Answer;

// Copies one tree. The functions that answer bool say whether to go on; when not, errno is the result.
class TreeCopy {
public:
    TreeCopy(DuplixCallback callback, void *context) : reports_(callback, context) {}

    bool Run(const char *source, const char *destination, const DuplixOptions &options);
    const DuplixMade &made() const { return tree_.made(); }

private:
    bool RefusedFromTheStart(const char *source, const char *destination);
    bool Visit(const Entry &entry);
    bool BeginDirectory(const Entry &entry);
    bool FinishDirectory(const Entry &entry);
    bool CopyLeaf(const Entry &entry);
    bool ReportWalk(const Entry &entry);

    Copied EnterDirectory(const Entry &entry);
    UniqueFd OpenSource(const Entry &entry, TQFileStatus *status);
    Copied CopyFile(const Entry &entry);
    bool CanClone(int from, const TQFileStatus &source);
    Copied CopyOpened(const Entry &entry, int from, const TQFileStatus &source);
    bool IsKept(int fd) const { return !flushEach_ || FlushFd(fd) == 0; }
    mode_t FirstMode(const TQFileStatus &source) const;
    Copied CopyLink(const Entry &entry);

    const char *Below(const Entry &entry) const { return entry.item.path + sourceLength_; }
    const char *Name(const Entry &entry) const { return entry.level == 0 ? nullptr : entry.item.name; }
    bool NameItem(const Entry &entry);
    Answer Begin(const Entry &entry, int what, int *error);
    Answer AskForSubstitute(const Entry &entry, int from, const TQFileStatus &source);
    bool WasEntered(const Entry &entry) const { return tree_.depth() == static_cast<size_t>(entry.level) + 2; }
    bool GoOn(Copied result, int what) { return result == Copied::No ? reports_.Error(what) : result == Copied::Yes; }

    DuplixReports reports_;
    TreeWalk walk_;
    DestinationTree tree_;
    VolumeMemory volumes_;
    DataCopier data_{volumes_};
    AttributeCopier attributes_{volumes_};
    QuietOpener opener_;
    size_t sourceLength_ = 0;
    bool flushEach_ = false;
    bool leavesMode_ = false;
    UniqueFd *file_ = nullptr;
    DuplixSubstitute substitute_ = nullptr;
};

bool TreeCopy::Run(const char *source, const char *destination, const DuplixOptions &options)
{
    sourceLength_ = strlen(source);
    // Users keep documents on volumes that are mounted inside others; a copy has everything that they see.
    const Item root = options.root ? *options.root : Item::AtPath(source);
    if (!tree_.Open(destination, options.into, volumes_) ||
        !walk_.Open(root, TreeWalk::Volumes::All, TreeWalk::Look::Held))
        return RefusedFromTheStart(source, destination);
    flushEach_ = options.flushEach && !tree_.honoursFlush();
    leavesMode_ = options.leavesMode;
    file_ = options.file;
    substitute_ = options.substitute;

    const Entry *entry = walk_.Next();
    if (entry && entry->kind == TreeWalk::Kind::Directory && !tree_.IsOutside(entry->status))
        return RefusedFromTheStart(source, destination);
    while (entry) {
        if (!Visit(*entry)) return false;
        entry = walk_.Next();
    }
    return true;
}

// The client is told, but the copy ends whatever it answers.
bool TreeCopy::RefusedFromTheStart(const char *source, const char *destination)
{
    const int error = errno;
    reports_.SetSubject(source, nullptr, Item::AtPath(destination));
    if (reports_.Error(duplix_what::Walk)) errno = error;
    return false;
}

bool TreeCopy::Visit(const Entry &entry)
{
    switch (entry.kind) {
    case TreeWalk::Kind::Directory:
        return BeginDirectory(entry);
    case TreeWalk::Kind::DirectoryDone:
        return FinishDirectory(entry);
    case TreeWalk::Kind::File:
    case TreeWalk::Kind::Link:
    case TreeWalk::Kind::Other:
        return CopyLeaf(entry);
    case TreeWalk::Kind::Unreadable:
    case TreeWalk::Kind::NoStatus:
    case TreeWalk::Kind::Error:
        return ReportWalk(entry);
    }
    return true;
}

// Names the copy of `entry`, which the reports that follow are about. False with ENAMETOOLONG.
bool TreeCopy::NameItem(const Entry &entry)
{
    const bool fits = tree_.NameItem(Name(entry), Below(entry));
    reports_.SetSubject(entry.item.path, entry.hasStatus ? &entry.status : nullptr, tree_.item());
    return fits;
}

// Returns the client's answer. *error is why the item can't be copied whatever the answer is, or 0.
Answer TreeCopy::Begin(const Entry &entry, int what, int *error)
{
    *error = NameItem(entry) ? 0 : errno;
    return reports_.Start(what);
}

static Copied _Refuse(int error)
{
    errno = error;
    return Copied::No;
}

bool TreeCopy::BeginDirectory(const Entry &entry)
{
    int error = 0;
    const Answer answer = Begin(entry, duplix_what::Directory, &error);
    if (answer == Answer::Quit) return false;
    if (answer == Answer::Skip) {
        walk_.SkipContents();
        return true;
    }
    const Copied result = error == 0 ? EnterDirectory(entry) : _Refuse(error);
    if (result == Copied::Yes) return reports_.Finish(duplix_what::Directory, nullptr);
    walk_.SkipContents();
    return GoOn(result, duplix_what::Directory);
}

Copied TreeCopy::EnterDirectory(const Entry &entry)
{
    // The walk met the copy through another mount, and would copy it into itself for ever.
    if (tree_.IsRootMade(entry.status)) return _Refuse(EINVAL);
    return tree_.EnterNewDirectory() ? Copied::Yes : Copied::No;
}

bool TreeCopy::FinishDirectory(const Entry &entry)
{
    const bool reached = tree_.PrepareToLeave(Name(entry), Below(entry));
    const int lost = errno;
    reports_.SetSubject(entry.item.path, &entry.status, tree_.item());
    const Answer answer = reports_.Start(duplix_what::DirectoryDone);
    if (answer == Answer::Quit) return false;
    if (!reached) {
        // Somebody moved the copy while it was made. There is no safe place for what would follow.
        errno = lost;
        if (reports_.Error(duplix_what::DirectoryDone)) errno = lost;
        return false;
    }
    bool goOn = true;
    if (answer == Answer::Continue) {
        const int copy = tree_.directory();
        TQFileStatus made = tree_.directoryStatus();
        CopiedMode mode;
        const Copied result = CopyMetadata({entry.fd, entry.status, copy, made, tree_.isRoot(), leavesMode_},
                                           attributes_, reports_, &mode);
        const DuplixFinished finished{entry.fd, copy, made, mode.mode, mode.isDue, mode.isListLost};
        goOn = result == Copied::Yes ? reports_.Finish(duplix_what::DirectoryDone, &finished) &&
                                           (IsKept(copy) || reports_.Error(duplix_what::DirectoryDone))
                                     : GoOn(result, duplix_what::DirectoryDone);
    }
    tree_.Leave();
    return goOn;
}

bool TreeCopy::CopyLeaf(const Entry &entry)
{
    int error = 0;
    const Answer answer = Begin(entry, duplix_what::File, &error);
    if (answer != Answer::Continue) return answer == Answer::Skip;
    if (error != 0) return GoOn(_Refuse(error), duplix_what::File);

    switch (entry.kind) {
    case TreeWalk::Kind::File:
        return GoOn(CopyFile(entry), duplix_what::File);
    case TreeWalk::Kind::Link:
        return GoOn(CopyLink(entry), duplix_what::File);
    default:
        return GoOn(_Refuse(ENOTSUP), duplix_what::File);
    }
}

// Opens a file that the walk only looked at. A file that has taken its place is not what was asked for.
UniqueFd TreeCopy::OpenSource(const Entry &entry, TQFileStatus *status)
{
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd = opener_.Open(entry.item, kFlags, entry.status.owner);
    if (!fd) {
        if (errno == ELOOP) errno = ESTALE;
        return fd;
    }
    if (GetStatusOfFd(fd.get(), status) != 0) return UniqueFd();
    if (ItemId::Of(*status) != ItemId::Of(entry.status) || !S_ISREG(status->mode)) {
        errno = ESTALE;
        return UniqueFd();
    }
    return fd;
}

static Copied _CopyOpenFile(const CopiedItem &item, DataCopier &data, AttributeCopier &attributes,
                            DuplixReports &reports, CopiedMode *mode)
{
    GiveOwnerRights(item.to, &item.made);
    if ((item.source.flags & kTQFlagCompressed) != 0) StorePlain(item.to, &item.made);
    if (const Copied result = data.Copy(item.from, item.source, item.to, reports); result != Copied::Yes) return result;
    return CopyMetadata(item, attributes, reports, mode);
}

// This is mostly the mode that a file gets in the end, which then needs no call of its own. Nobody else can reach a
// file before the root of the copy has its final mode. A root that is a file has no directory to protect it, so only
// its owner gets rights at first.
mode_t TreeCopy::FirstMode(const TQFileStatus &source) const
{
    constexpr mode_t kOwners = S_IRUSR | S_IWUSR;
    return tree_.isRoot() ? kOwners : (source.mode & 0777) | kOwners;
}

// The first file of a volume tells, by one that is made and removed again. If that can't be made, making the copy
// reports it.
bool TreeCopy::CanClone(int from, const TQFileStatus &source)
{
    if (const std::optional<bool> known = data_.Clones(source)) return *known;
    TQFileStatus made;
    const UniqueFd tried = tree_.MakeFile(S_IRUSR | S_IWUSR, /*mayAssume=*/false, &made);
    if (!tried) return true;
    const bool isCloned = data_.TryToClone(from, source, tried.get());
    return unlinkat(tree_.item().directory, tree_.item().name, 0) != 0 || isCloned;
}

Answer TreeCopy::AskForSubstitute(const Entry &entry, int from, const TQFileStatus &source)
{
    if (!substitute_ || tree_.isRoot() || CanClone(from, source)) return Answer::Continue;
    const char *const below = Below(entry);
    return reports_.AskForSubstitute(substitute_, {from, source, below + strspn(below, "/"), tree_.item()});
}

Copied TreeCopy::CopyFile(const Entry &entry)
{
    if (entry.fd >= 0) return CopyOpened(entry, entry.fd, entry.status);
    TQFileStatus source;
    const UniqueFd from = OpenSource(entry, &source);
    return from ? CopyOpened(entry, from.get(), source) : Copied::No;
}

Copied TreeCopy::CopyOpened(const Entry &entry, int from, const TQFileStatus &source)
{
    const Answer answer = AskForSubstitute(entry, from, source);
    if (answer == Answer::Quit) return Copied::Stopped;
    if (answer == Answer::Skip) return reports_.Finish(duplix_what::File, nullptr) ? Copied::Yes : Copied::Stopped;

    // Set-id bits lend the rights of an owner and a group, so that those have to be known for certain.
    const bool mayAssume = (source.mode & (S_ISUID | S_ISGID)) == 0;
    TQFileStatus made;
    UniqueFd to = tree_.MakeFile(FirstMode(source), mayAssume, &made);
    if (!to) return Copied::No;
    CopiedMode mode;
    const Copied result =
        _CopyOpenFile({from, source, to.get(), made, tree_.isRoot(), leavesMode_}, data_, attributes_, reports_, &mode);
    if (result != Copied::Yes) return result;
    const DuplixFinished finished{from, to.get(), made, mode.mode, mode.isDue, mode.isListLost};
    if (!reports_.Finish(duplix_what::File, &finished)) return Copied::Stopped;
    if (tree_.isRoot() && file_) {
        if (!IsKept(to.get())) return Copied::No;
        *file_ = std::move(to);
        return Copied::Yes;
    }
    // Some volumes report only now that they had no room for what they accepted.
    return IsKept(to.get()) && to.Close() == 0 ? Copied::Yes : Copied::No;
}

Copied TreeCopy::CopyLink(const Entry &entry)
{
    char target[PATH_MAX];
    const ssize_t length = readlinkat(entry.item.directory, entry.item.name, target, sizeof target);
    if (length < 0 && errno == EINVAL) errno = ESTALE; // it is no longer a link
    if (length == sizeof target) errno = ENAMETOOLONG;
    if (length < 0 || length == sizeof target) return Copied::No;
    target[length] = '\0';

    if (!tree_.MakeLink(target)) return Copied::No;
    if (const Copied result = CopyLinkMetadata(entry.status, tree_.item()); result != Copied::Yes) return result;
    return reports_.Finish(duplix_what::File, nullptr) ? Copied::Yes : Copied::Stopped;
}

// Reports what the walk could not read. A directory that was made for it stays as it is, with owner-only rights.
bool TreeCopy::ReportWalk(const Entry &entry)
{
    const int error = entry.error;
    bool reached = true;
    if (WasEntered(entry)) {
        reached = tree_.PrepareToLeave(Name(entry), Below(entry));
        reports_.SetSubject(entry.item.path, &entry.status, tree_.item());
        tree_.Leave();
    } else {
        (void)NameItem(entry);
    }
    errno = error;
    if (!reports_.Error(duplix_what::Walk)) return false;
    if (!reached) errno = ESTALE;
    return reached;
}

int duplix(const char *source, const char *destination, DuplixCallback callback, void *context,
           const DuplixOptions &options)
{
    const int before = errno;
    TreeCopy copy(callback, context);
    const bool copied = copy.Run(source, destination, options);
    if (options.made) *options.made = copy.made();
    if (!copied) return -1;
    errno = before;
    return 0;
}

int fduplix(int source, int destination)
{
    const int before = errno;
    TQFileStatus status;
    TQFileStatus made;
    if (GetStatusOfFd(source, &status) != 0 || GetStatusOfFd(destination, &made) != 0) return -1;
    if (!S_ISREG(status.mode) || !S_ISREG(made.mode)) {
        errno = ENOTSUP;
        return -1;
    }
    if (made.size > 0 && ftruncate(destination, 0) != 0) return -1;

    DuplixReports silent(nullptr, nullptr);
    VolumeMemory volumes;
    DataCopier data(volumes);
    AttributeCopier attributes(volumes);
    CopiedMode mode;
    const CopiedItem item{source, status, destination, made, /*mayHaveInherited=*/true, /*leavesMode=*/false};
    if (_CopyOpenFile(item, data, attributes, silent, &mode) != Copied::Yes) return -1;
    errno = before;
    return 0;
}

} // namespace platform
