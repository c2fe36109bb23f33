// See addition.h.

#include "addition.h"

#include "interrupt.h"
#include "naming.h"
#include "space.h"
#include "text.h"

#include <vaultry/filesystem.h>
#include <vaultry/number.h>
#include <vaultry/status.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// Names of documents added in one second differ by a number; nobody is expected to need more than this many.
static constexpr unsigned kMaximumAttempts = 1000;

// Holds open the item that is to be removed: it still gives access to its volume when it has left its folder. It is
// only read through, so closing it has no error to report.
class OpenSource {
public:
    explicit OpenSource(const std::string &path)
        : fd_(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)),
          isKnown_(_SafeStatFS(path.c_str(), &volume_) == 0)
    {
    }
    OpenSource(const OpenSource &) = delete;
    OpenSource &operator=(const OpenSource &) = delete;
    ~OpenSource()
    {
        if (fd_ >= 0) (void)close(fd_);
    }

    // 0, or the reason why not: EACCES if a flush of the volume is not known to reach everything on it.
    int FlushVolume() const
    {
        if (fd_ < 0 || !isKnown_) return EACCES;
        if (strcmp(volume_.typeName, "tmpfs") == 0) return 0; // a power failure empties it
        Owned<TQError> error;
        const bool isNative = TQSystemManagedStorageIsSupportedForStatFSInfo(&volume_, error.out()) ||
                              UnderlyingErrno(error.get()) == ENOSPC; // too small for something else
        return !isNative ? EACCES : syncfs(fd_) == 0 ? 0 : errno;
    }

private:
    const int fd_;
    TQVolumeStatus volume_{};
    const bool isKnown_;
};

// The command's own keys say what only it knows.
std::vector<Assignment> ParseTags(const Arguments &arguments)
{
    std::vector<Assignment> tags;
    for (const std::string &tag : arguments.tags) {
        tags.push_back(ParseAssignment(tag));
        if (tags.back().key.rfind("vaultry.", 0) == 0)
            throw CommandFailure(kExitUsage, "--tag " + Quoted(tag) + ": keys that begin with \"vaultry.\" are taken");
    }
    return tags;
}

Addition::Addition(const Store &store, const Document &document, const Arguments &arguments, ProgressBar &bar)
    : store_(store), path_(document.path), givenName_(arguments.newName), isMove_(arguments.move),
      keepsLinks_(!arguments.noLinks), bar_(bar), plainNotes_(MakeNotes(path_, now_)), notes_(MakeNotes(path_, now_)),
      hasTags_(!arguments.tags.empty()), isPinned_(arguments.pin)
{
    for (const Assignment &tag : ParseTags(arguments))
        (void)TQDictionarySetValue(notes_.get(), MakeString(tag.key).get(), tag.value.get());
    if (arguments.pin)
        for (TQDictionary *notes : {plainNotes_.get(), notes_.get()})
            (void)TQDictionarySetValue(notes, MakeString(kPinnedKey).get(), TQBooleanGet(true));
    (void)lstat(path_.c_str(), &before_); // adding says what is wrong
    if (S_ISDIR(before_.st_mode) && !arguments.noShare) base_ = BaseFor(store, path_);
}

int Addition::Run(bool mayRetry)
{
    LookBefore();
    AddUnderFreeName();
    bar_.Clear();
    EndWhereInterrupted();
    const bool isComplete = store_.HasNotes(name_, notes_.get()) || WriteInfo();
    if (isMove_ && copied_ && isComplete) RemoveSource();
    if (!isMove_ && WasChanged()) EndWhereChanged(mayRetry);
    return exitCode_;
}

void Addition::Complain(const CommandFailure &failure)
{
    Say(failure.At(path_));
    if (exitCode_ == kExitSuccess) exitCode_ = failure.exitCode();
}

// What can't be read stops the add itself.
void Addition::LookBefore()
{
    if (IsSidecar(path_))
        throw CommandFailure(kExitFailure, "can't add " + Quoted(path_) + ": files named \"._...\" are never kept");
    if (isMove_) return CountWhatIsLeftOut(CountSidecars(path_));
    try {
        beforeReading_ = FingerprintOf(path_);
        CountWhatIsLeftOut(beforeReading_->sidecars);
    } catch (const CommandFailure &) {
    }
}

bool Addition::WasChanged() const
{
    try {
        return beforeReading_ && FingerprintOf(path_) != *beforeReading_;
    } catch (const CommandFailure &) { // a part of it has gone meanwhile
        return true;
    }
}

void Addition::EndWhereChanged(bool mayRetry)
{
    const std::string what = Quoted(path_) + " changed while it was read: ";
    if (!mayRetry)
        return Complain(kExitChanged, what + Quoted(name_) + " may hold parts of its old state and of its new one");
    Say(what + "it is read once more");
    exitCode_ = kExitChanged;
}

void Addition::CountWhatIsLeftOut(uint64_t count) const
{
    if (count == 0) return;
    const std::string what = Quoted(path_) + ": " + std::to_string(count) +
                             (count == 1 ? " file named \"._...\" is" : " files named \"._...\" are");
    // A move takes them along, since a directory moves as a whole; copying out passes them over.
    Say(what + (isMove_ ? " no part of what can be copied out again" : " left out"));
}

// A document that leaves no room for notes in its attributes is kept without; WriteInfo says so.
bool Addition::AddOnce(bool copy)
{
    const Owned<TQString> base = MakeString(base_.value_or("")), sizeKey = MakeString(kSizeKey);
    TQAddRequest request{};
    request.size = sizeof request;
    request.flags = kTQAddInfoIsOptional;
    if (!copy) request.flags |= kTQAddByMoving;
    if (keepsLinks_) request.flags |= kTQAddKeepLinks;
    request.base = copy && base_ ? base.get() : nullptr;
    request.info = notes_.get();
    request.sizeKey = sizeKey.get();
    copied_ = copy;
    return TQClientManagedStorageAddWithFlags(store_.handle(), name_.c_str(), path_.c_str(), &request, error_.out());
}

// A document on another file system can't be renamed into the store. Only trying tells, since bind mounts and
// subvolumes count as other file systems too.
bool Addition::AddByWhateverWay()
{
    if (!isMove_) return AddOnce(/*copy=*/true);
    if (AddOnce(/*copy=*/false)) return true;
    if (UnderlyingErrno(error_.get()) != EXDEV) return false;
    beforeCopying_ = FingerprintOf(path_);
    return AddOnce(/*copy=*/true);
}

bool Addition::NameIsTaken() const
{
    return error_ && TQErrorGetStatus(error_.get()) == kTQStatusExists && !store_.Lacks(name_);
}

void Addition::AddUnderFreeName()
{
    for (unsigned attempt = 0; attempt < kMaximumAttempts; ++attempt) {
        name_ = givenName_ ? *givenName_ : DefaultGenerationName(path_, static_cast<time_t>(now_), attempt);
        if (AddByWhateverWay()) return;
        if (InterruptGuard::Came() || givenName_ || !NameIsTaken()) break;
    }
    Refuse();
}

void Addition::Refuse() const
{
    bar_.Clear();
    const std::string what = "can't " + std::string(isMove_ ? "move " : "add ") + Quoted(path_);
    const CommandFailure failure =
        InterruptGuard::Came()
            ? CommandFailure(InterruptGuard::ExitCode(), "stopped: " + Quoted(path_) + " was not kept")
            : CommandFailure::Library(what + " as " + Quoted(name_) + " in the store " + Quoted(store_.path()),
                                      error_.get());
    std::string message = failure.what() + ExplainRefusal(error_.get(), store_.path(), path_, keepsLinks_);
    // A document that was moved whole stays in the store if the last flush fails. Giving a document back can fail too;
    // then the library leaves it where it is and no longer touches it.
    struct stat status {};
    const auto isGone = [&status](const std::string &path) {
        return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
    };
    // A hard-linked file gets data of its own on the way, and so comes home as another inode.
    const bool isTold = before_.st_ino != 0 && (S_ISDIR(before_.st_mode) || before_.st_nlink == 1);
    const bool isNotHome = isGone(path_) || (isTold && status.st_ino != 0 && status.st_ino != before_.st_ino);
    if (isMove_ && isNotHome)
        message += !NameIsTaken() && !isGone(store_.path() + "/" + name_)
                       ? "\n  the document was moved all the same: the store holds it as " + Quoted(name_)
                       : "\n  the document could not be put back: it lies below " +
                             Quoted(store_.path() + "/.vaultry_staging") + ", and nothing will remove it there";
    throw failure.Saying(message).At(path_);
}

// Handles a signal that came too late to cancel. A copied document is removed from the store again. A moved one is
// kept, since the store has it whole and it is nowhere else.
void Addition::EndWhereInterrupted()
{
    if (!InterruptGuard::Came() || !copied_) return;
    try {
        store_.Remove({name_}, /*pinnedToo=*/true);
    } catch (const CommandFailure &failure) { // another program has the store by now, say
        throw failure
            .Saying("stopped too late: " + Quoted(path_) + " is kept as " + Quoted(name_) + ": " + failure.what())
            .ExitingWith(InterruptGuard::ExitCode());
    }
    throw CommandFailure(InterruptGuard::ExitCode(), "stopped: " + Quoted(path_) + " was not kept");
}

bool Addition::WriteInfo()
{
    Owned<TQError> error;
    if (store_.SetInfoOf(name_, notes_.get(), error.out())) return true;
    // A tag may be too much, and the rest is worth more.
    const bool areTagsMissing = hasTags_ && store_.SetInfoOf(name_, plainNotes_.get(), nullptr);
    const std::string lost =
        areTagsMissing ? "tags could not be noted"
                       : std::string(hasTags_ || isPinned_ ? "document, time, tags and pin" : "document and time") +
                             " could not be noted: list may not show it with its document";
    const CommandFailure failure = CommandFailure::Library(
        Quoted(path_) + " is kept whole as " + Quoted(name_) + ", but its " + lost, error.get());
    Complain(failure.Saying(failure.what() + (IsAttributeSpace(UnderlyingErrno(error.get()), store_.path())
                                                  ? std::string("\n  ") + kAttributeSpaceIsFull
                                                  : "")));
    return false;
}

void Addition::RemoveSource()
{
    const std::string kept = Quoted(name_) + " holds " + Quoted(path_) + ", which also stays where it is: ";
    if (InterruptGuard::Came()) return Complain(InterruptGuard::ExitCode(), kept + "stopped before it was removed");
    try {
        if (FingerprintOf(path_) != beforeCopying_)
            return Complain(kExitFailure, kept + "it was changed while it was copied");
        if (CountSidecars(path_) != 0)
            return Complain(kExitFailure, kept + "what is named \"._...\" in it was left out of the copy");
    } catch (const CommandFailure &failure) {
        return Complain(failure.Saying(kept + failure.what()));
    }
    const OpenSource former(path_);
    struct stat now {};
    if (lstat(path_.c_str(), &now) != 0 || now.st_dev != beforeCopying_.device || now.st_ino != beforeCopying_.inode)
        return Complain(kExitFailure, kept + "another took its place");
    Owned<TQError> error;
    if (_RemoveTree(path_.c_str(), 0, error.out())) return FlushRemoval(former);
    const CommandFailure failure = CommandFailure::Library(
        Quoted(name_) + " holds " + Quoted(path_) + ", but not all of it could be removed where it was", error.get());
    Complain(failure);
}

// Flushes the folder that an item has left. A user may be allowed to change a folder but not to read it; then its
// volume is flushed. 0, or the reason why not.
static int _FlushFolder(const std::string &folder, const OpenSource &former)
{
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno == EACCES ? former.FlushVolume() : errno;
    // It is not a failure if the file system can't flush a directory.
    const int reason = fsync(fd) == 0 || errno == EINVAL || errno == ENOTSUP ? 0 : errno;
    const bool isClosed = close(fd) == 0 || errno == EINTR;
    return reason == 0 && !isClosed ? errno : reason;
}

// A power cut would bring back an item that has not left its folder on disk as well.
void Addition::FlushRemoval(const OpenSource &former)
{
    const std::string folder = path_.substr(0, std::max<size_t>(path_.rfind('/'), 1));
    const int reason = _FlushFolder(folder, former);
    if (reason == 0) return;
    const CommandFailure failure = CommandFailure::Errno(Quoted(name_) + " holds " + Quoted(path_) +
                                                             ", which may be back after a power failure: can't flush " +
                                                             Quoted(folder) + " to disk",
                                                         reason);
    Complain(failure);
}
