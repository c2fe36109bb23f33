#include "Platform/TreeWalk.h"

#include "Platform/DirectoryReader.h"
#include "Platform/DirectoryStack.h"
#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/QuietOpener.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <new>
#include <sys/stat.h>

using platform::DirectoryReader;
using platform::DirectoryStack;

// The walk is a machine of a few states, so that everything about an entry happens in the call that reports it.
struct TreeWalk::State {
    enum class Due {
        Root,     // nothing was reported yet
        Enter,    // the directory in `entry` was reported
        Contents, // in the directory at the top
        Leave,    // its DirectoryDone was reported
        Nothing,  // the end
    };

    // A directory that was entered, with what has to be remembered of it whether it is open or not.
    struct Level {
        size_t pathLength;
        size_t parentPathLength;
        DirectoryReader reader;
        int error = 0; // why reading can't go on
    };

    Entry entry{};
    Due due = Due::Root;
    Volumes volumes = Volumes::One;
    Look look = Look::Status;
    Item root{};
    uint64_t rootDevice = 0;
    size_t rootParentPathLength = 0;
    bool skipsRest = false;
    UniqueFd opened; // the directory in `entry`, if it was asked for
    UniqueFd file;   // the file in `entry`, if it is held
    platform::QuietOpener opener;
    DirectoryStack directories;
    std::vector<Level> levels;       // one for each in `directories`
    char path[TreeWalk::kPathLimit]; // of `entry`

    const Entry *Root();
    const Entry *Enter();
    int OpenEntry();
    const Entry *Contents();
    const Entry *Child(const char *name, unsigned char kind);
    bool Hold();
    const Entry *Done(Kind kind, int error);
    bool OpenAbove();
    void Leave();

    int Push(UniqueFd directory);
    const Entry *Report(Kind kind, int error = 0);
    const Entry *ReportLeaf(mode_t mode);
    const Entry *ReportByStatus();
};

// Where the path of the directory above ends: "/a" of "/a/b" and of "/a/b/", "/" of "/b", nothing of "b".
static size_t _ParentPathLength(const char *path, size_t length)
{
    while (length > 1 && path[length - 1] == '/') --length;
    while (length > 0 && path[length - 1] != '/') --length;
    while (length > 1 && path[length - 1] == '/') --length;
    return length;
}

TreeWalk::TreeWalk() = default;
TreeWalk::~TreeWalk() = default;

bool TreeWalk::Open(const char *rootPath, Volumes volumes, Look look)
{
    if (!Open(Item::AtPath(rootPath), volumes, look)) return false;
    state_->root = Item::AtPath(state_->path);
    return true;
}

bool TreeWalk::Open(const Item &root, Volumes volumes, Look look)
{
    const size_t length = strlen(root.path);
    const size_t nameLength = strlen(root.name);
    if (nameLength == 0 || nameLength >= PATH_MAX || length >= kPathLimit) {
        errno = nameLength == 0 ? ENOENT : ENAMETOOLONG;
        return false;
    }
    state_.reset(new (std::nothrow) State);
    if (!state_) {
        errno = ENOMEM;
        return false;
    }
    const ErrnoKeeper keeper;
    state_->volumes = volumes;
    state_->look = look;
    memcpy(state_->path, root.path, length + 1);
    state_->root = {root.directory, root.name, state_->path};
    state_->rootParentPathLength = _ParentPathLength(root.path, length);
    return true;
}

const TreeWalk::Entry *TreeWalk::Next()
{
    if (!state_) return nullptr;
    const int before = errno;
    const Entry *entry = nullptr;
    state_->file.Reset();
    if (state_->due == State::Due::Leave) state_->Leave();
    switch (state_->due) {
    case State::Due::Root:
        entry = state_->Root();
        break;
    case State::Due::Enter:
        entry = state_->Enter();
        break;
    case State::Due::Contents:
        entry = state_->Contents();
        break;
    case State::Due::Leave:
    case State::Due::Nothing:
        break;
    }
    errno = entry && entry->error != 0 ? entry->error : before;
    return entry;
}

void TreeWalk::SkipContents()
{
    if (!state_ || state_->due != State::Due::Enter) return;
    state_->opened.Reset();
    state_->due = state_->levels.empty() ? State::Due::Nothing : State::Due::Contents;
}

void TreeWalk::SkipRest()
{
    SkipContents();
    if (state_) state_->skipsRest = true;
}

int TreeWalk::OpenDirectory()
{
    const int error = state_ && state_->due == State::Due::Enter ? state_->OpenEntry() : EBADF;
    if (error == 0) return state_->opened.get();
    errno = error;
    return -1;
}

const TreeWalk::Entry *TreeWalk::State::Report(Kind kind, int error)
{
    entry.kind = kind;
    entry.error = error;
    return &entry;
}

const TreeWalk::Entry *TreeWalk::State::ReportLeaf(mode_t mode)
{
    if (S_ISREG(mode)) return Report(Kind::File);
    return Report(S_ISLNK(mode) ? Kind::Link : Kind::Other);
}

// Reports what `entry.status` describes.
const TreeWalk::Entry *TreeWalk::State::ReportByStatus()
{
    entry.hasStatus = true;
    const bool isDirectory = S_ISDIR(entry.status.mode);
    entry.isElsewhere =
        entry.level > 0 && (entry.status.isMountRoot || (isDirectory && entry.status.device != rootDevice));
    if (isDirectory) {
        due = Due::Enter;
        return Report(Kind::Directory);
    }
    return ReportLeaf(entry.status.mode);
}

const TreeWalk::Entry *TreeWalk::State::Root()
{
    due = Due::Nothing;
    entry.item = root;
    entry.level = 0;
    entry.fd = -1;
    entry.parentPathLength = rootParentPathLength;
    if (platform::GetStatus(entry.item, Links::NoFollow, &entry.status) != 0) return Report(Kind::NoStatus, errno);
    rootDevice = entry.status.device;
    return ReportByStatus();
}

// 0, or an errno. A directory that is too shallow to stay open frees its buffer.
int TreeWalk::State::Push(UniqueFd directory)
{
    if (!directories.Push(std::move(directory), entry.status)) return errno;
    try {
        levels.push_back({strlen(path), entry.parentPathLength, DirectoryReader(), 0});
    } catch (const std::bad_alloc &) {
        directories.Pop();
        return ENOMEM;
    }
    if (levels.size() > DirectoryStack::kOpenLimit)
        levels[levels.size() - DirectoryStack::kOpenLimit - 1].reader.Suspend();
    return 0;
}

// 0, or an errno: ESTALE if something else stands there.
int TreeWalk::State::OpenEntry()
{
    if (opened) return 0;
    UniqueFd directory(opener.Open(entry.item, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, entry.status.owner));
    if (!directory) return errno == ENOTDIR || errno == ELOOP ? ESTALE : errno;
    TQFileStatus found;
    if (platform::GetStatusOfFd(directory.get(), &found) != 0) return errno;
    if (ItemId::Of(found) != ItemId::Of(entry.status)) return ESTALE;
    opened = std::move(directory);
    return 0;
}

const TreeWalk::Entry *TreeWalk::State::Enter()
{
    due = levels.empty() ? Due::Nothing : Due::Contents; // where the walk goes on if this one can't be entered
    if (volumes == Volumes::One && entry.isElsewhere) return Report(Kind::DirectoryDone);
    if (const int error = OpenEntry(); error != 0)
        return Report(error == ESTALE ? Kind::Error : Kind::Unreadable, error);
    if (const int error = Push(std::move(opened)); error != 0) return Report(Kind::Error, error);

    due = Due::Contents;
    return Contents();
}

const TreeWalk::Entry *TreeWalk::State::Contents()
{
    if (std::exchange(skipsRest, false)) return Done(Kind::DirectoryDone, 0);
    Level &level = levels.back();
    int error = level.error;
    const char *name = error == 0 ? level.reader.Next(directories.Top(), &error) : nullptr;
    if (name) return Child(name, level.reader.kind());
    return Done(error == 0 ? Kind::DirectoryDone : error == ENOMEM ? Kind::Error : Kind::Unreadable, error);
}

// Opens the entry, which had been a regular file when its directory was read. False if it can't be opened, is something
// else by now, or something is mounted on it: that may be a device, which opening would set to work.
bool TreeWalk::State::Hold()
{
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd found = opener.OpenAndLook(entry.item, kFlags, &entry.status);
    if (!found || !S_ISREG(entry.status.mode)) return false;
    file = std::move(found);
    entry.fd = file.get();
    return true;
}

static bool _IsLeaf(unsigned char kind)
{
    return kind == DT_REG || kind == DT_LNK || kind == DT_FIFO || kind == DT_SOCK || kind == DT_CHR || kind == DT_BLK;
}

// The path grows only here: it is that of the directory at the top, a slash and a name.
const TreeWalk::Entry *TreeWalk::State::Child(const char *name, unsigned char kind)
{
    const Level &level = levels.back();
    entry.level = static_cast<int>(levels.size());
    entry.fd = -1;
    entry.hasStatus = false;
    entry.isElsewhere = false;
    entry.parentPathLength = level.pathLength;
    path[level.pathLength] = '\0';

    const size_t slash = level.pathLength > 0 && path[level.pathLength - 1] == '/' ? 0 : 1;
    const size_t nameLength = strlen(name);
    if (level.pathLength + slash + nameLength >= sizeof path) {
        entry.item = {directories.Top(), name, path};
        return Report(Kind::Error, ENAMETOOLONG);
    }
    if (slash) path[level.pathLength] = '/';
    char *const nameInPath = path + level.pathLength + slash;
    memcpy(nameInPath, name, nameLength + 1);
    entry.item = {directories.Top(), nameInPath, path};
    if (look == Look::KindOnly && _IsLeaf(kind)) return ReportLeaf(static_cast<mode_t>(DTTOIF(kind)));
    if (look == Look::Held && kind == DT_REG && Hold()) return ReportByStatus();
    if (platform::GetStatus(entry.item, Links::NoFollow, &entry.status) != 0) return Report(Kind::NoStatus, errno);
    return ReportByStatus();
}

// Opens the directory above the top again if it was closed, and finds the place where its reading stopped. If that
// place is gone because somebody has removed the directory, this is reported when its own turn comes.
bool TreeWalk::State::OpenAbove()
{
    if (!directories.OpenParent()) return false;
    Level &above = levels[levels.size() - 2];
    if (above.reader.suspended()) above.error = above.reader.Resume(directories.Parent(), entry.item.name);
    return true;
}

// Ends the directory at the top. `kind` and `error` tell whether it was read whole.
const TreeWalk::Entry *TreeWalk::State::Done(Kind kind, int error)
{
    const Level &level = levels.back();
    const size_t above = level.parentPathLength;
    path[level.pathLength] = '\0';
    entry.level = static_cast<int>(levels.size()) - 1;
    entry.hasStatus = true;
    entry.isElsewhere = false;
    entry.status = directories.StatusOfTop();
    entry.fd = kind == Kind::DirectoryDone ? directories.Top() : -1;
    entry.parentPathLength = above;
    due = Due::Leave;
    if (levels.size() == 1) {
        entry.item = root;
        return Report(kind, error);
    }

    const char *const name = path + above + (path[above] == '/' ? 1 : 0);
    entry.item = {-1, name, path};
    if (!OpenAbove()) {
        // There is no other safe way back, so this is where the walk ends.
        due = Due::Nothing;
        entry.fd = -1;
        return Report(Kind::Error, errno == ENOENT ? ESTALE : errno);
    }
    entry.item.directory = directories.Parent();
    return Report(kind, error);
}

void TreeWalk::State::Leave()
{
    const ErrnoKeeper keeper;
    directories.Pop();
    levels.pop_back();
    due = levels.empty() ? Due::Nothing : Due::Contents;
}
