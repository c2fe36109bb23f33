// See location.h.

#include "location.h"

#include "failure.h"
#include "text.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static constexpr std::string_view kLockFileName = ".vaultry_lockfile";
static constexpr std::string_view kStagingName = ".vaultry_staging";

// An unset variable and an empty one mean the same.
static std::string _Environment(const char *name)
{
    const char *value = getenv(name);
    return value ? value : "";
}

static std::string _DataDirectory()
{
    // A relative path in this variable is to be ignored: it would mean another place in every directory.
    const std::string data = _Environment("XDG_DATA_HOME");
    if (!data.empty() && data.front() == '/') return data;
    const char *home = getenv("HOME");
    const struct passwd *user = home ? nullptr : getpwuid(geteuid());
    if (user) home = user->pw_dir;
    if (!home) throw CommandFailure(kExitUsage, "no home directory to keep a store in: give --store DIR");
    if (home[0] == '/') return std::string(home) + "/.local/share";
    throw CommandFailure(kExitUsage, "the home directory " + Quoted(home) + " is no absolute path: give --store DIR");
}

std::string AbsolutePath(const std::string &path)
{
    if (!path.empty() && path.front() == '/') return path;
    const std::unique_ptr<char, void (*)(void *)> directory(getcwd(nullptr, 0), free);
    if (!directory) throw CommandFailure::Errno("can't find the current directory", errno);
    return std::string(directory.get()) + "/" + path;
}

std::string LocateStore(const std::optional<std::string> &given)
{
    if (given && given->empty()) throw CommandFailure(kExitUsage, "--store: the path is empty");
    std::string path = given ? *given : _Environment("VAULTRY_STORE");
    path = path.empty() ? _DataDirectory() + "/vaultry/store" : AbsolutePath(path);
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(path.c_str(), nullptr), free);
    return resolved ? resolved.get() : path;
}

bool IsStoreNamed(const std::optional<std::string> &given)
{
    return given || !_Environment("VAULTRY_STORE").empty();
}

// Calls `visit` with every name except "." and "..", and its type, until it returns false.
template <class Visit> static void _EachEntry(const std::string &path, Visit visit)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(path.c_str()), closedir);
    if (!directory) throw CommandFailure::Errno("can't read the directory " + Quoted(path), errno).At(path);
    const dirent *entry = nullptr;
    while (errno = 0, (entry = readdir(directory.get())) != nullptr) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && !visit(name, entry->d_type)) return;
    }
    if (errno != 0) throw CommandFailure::Errno("can't read the directory " + Quoted(path), errno).At(path);
}

template <class Visit> static void _EachName(const std::string &path, Visit visit)
{
    _EachEntry(path, [&](std::string_view name, unsigned char) { return visit(name); });
}

bool IsThere(const std::string &path, struct stat *status)
{
    if (lstat(path.c_str(), status) == 0) return true;
    if (errno == ENOENT) return false;
    throw CommandFailure::Errno("can't look at " + Quoted(path), errno).At(path);
}

bool DoesAnswer(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) return true;
    for (const int silence : {ENOTCONN, ECONNABORTED, ESTALE, EIO, ETIMEDOUT, EHOSTDOWN})
        if (errno == silence) return false;
    return true;
}

PlaceKind LookAtPlace(const std::string &path)
{
    struct stat status {};
    const auto exists = [&](std::string_view name) { return IsThere(path + "/" + std::string(name), &status); };
    if (!IsThere(path, &status)) return PlaceKind::Missing;
    if (!S_ISDIR(status.st_mode)) return PlaceKind::Other;
    const bool hasLockFile = exists(kLockFileName), isLockFile = hasLockFile && S_ISREG(status.st_mode);
    const bool hasStaging = exists(kStagingName), isStaging = hasStaging && S_ISDIR(status.st_mode);
    if (isLockFile && isStaging) return PlaceKind::Store;

    bool isFree = true;
    _EachName(path, [&](std::string_view name) { return isFree = name == kLockFileName || name == kStagingName; });
    if (isFree) return PlaceKind::Free;
    return hasLockFile || hasStaging ? PlaceKind::Damaged : PlaceKind::Other;
}

bool IsEmpty(const std::string &path)
{
    bool isEmpty = true;
    _EachName(path, [&](std::string_view) { return isEmpty = false; });
    return isEmpty;
}

bool HasLockFile(const std::string &path)
{
    struct stat status {};
    return IsThere(path + "/" + std::string(kLockFileName), &status);
}

bool IsInStaging(const std::string &store, const std::string &path)
{
    const std::string staging = store + "/" + std::string(kStagingName);
    return path == staging || path.rfind(staging + "/", 0) == 0;
}

// 0, or errno. Bits inherited from the parent stay.
static int _MakeOwn(const std::string &path)
{
    struct stat status {};
    if (mkdir(path.c_str(), 0700) != 0) return errno;
    if (lstat(path.c_str(), &status) != 0) return errno;
    const mode_t mode = (status.st_mode | 0700) & 07777;
    return mode == (status.st_mode & 07777) || chmod(path.c_str(), mode) == 0 ? 0 : errno;
}

std::vector<std::string> MakePlace(const std::string &path)
{
    std::vector<std::string> made;
    for (size_t slash = 0; slash != path.npos;) {
        slash = path.find('/', slash + 1);
        const std::string folder = path.substr(0, slash);
        struct stat status {};
        int reason = stat(folder.c_str(), &status) == 0 ? EEXIST : errno;
        if (reason == ENOENT) reason = _MakeOwn(folder);
        if (reason == 0) made.push_back(folder);
        if (reason == 0 || reason == EEXIST) continue; // if it is not a directory, the next call fails
        RemoveMade(made);
        throw CommandFailure::Errno("can't make the directory " + Quoted(path) + " for the store", reason).At(path);
    }
    return made;
}

void RemoveMade(const std::vector<std::string> &made)
{
    for (auto folder = made.rbegin(); folder != made.rend(); ++folder)
        if (rmdir(folder->c_str()) != 0) return;
}

std::set<std::string> PeekAtNames(const std::string &path)
{
    std::set<std::string> names;
    _EachName(path, [&](std::string_view name) {
        if (name.front() != '.') names.emplace(name);
        return true;
    });
    return names;
}

std::set<std::string> PeekAtLinks(const std::string &path)
{
    std::set<std::string> links;
    _EachEntry(path, [&](std::string_view name, unsigned char type) {
        struct stat status {};
        const std::string item = path + "/" + std::string(name);
        const bool isLink = type == DT_LNK || (type == DT_UNKNOWN && IsThere(item, &status) && S_ISLNK(status.st_mode));
        if (isLink && name.front() != '.') links.emplace(name);
        return true;
    });
    return links;
}
