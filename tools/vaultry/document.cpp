// See document.h.

#include "document.h"

#include "failure.h"
#include "location.h"
#include "naming.h"
#include "quiet_walk.h"
#include "space.h"
#include "text.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>

namespace fs = std::filesystem;

Document ResolveDocument(const std::string &given)
{
    const std::string path = WithoutTrailingSlashes(given);
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        throw CommandFailure::Errno("can't find the document " + Quoted(given), errno).At(path);
    const bool isLink = S_ISLNK(status.st_mode);
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(path.c_str(), nullptr), free);
    if (!resolved)
        throw CommandFailure::Errno((isLink ? "can't find what the link " : "can't find the document ") +
                                        Quoted(given) + (isLink ? " points to" : ""),
                                    errno)
            .At(path);
    return {resolved.get(), isLink};
}

static void _RequireName(const std::string &given)
{
    if (given.empty()) throw CommandFailure(kExitUsage, "the name of a document is empty");
}

std::string DocumentPath(const std::string &given)
{
    _RequireName(given);
    std::error_code error;
    const fs::path whole = fs::weakly_canonical(AbsolutePath(WithoutTrailingSlashes(given)), error);
    if (error)
        throw CommandFailure::Errno("can't find the way to the document " + Quoted(given), error.value()).At(given);
    return whole.native();
}

std::string DocumentPathIfKnown(const std::string &given)
{
    _RequireName(given);
    try {
        return DocumentPath(given);
    } catch (const CommandFailure &) {
        return AbsolutePath(WithoutTrailingSlashes(given));
    }
}

void TellOfLink(const std::string &given, const std::string &document)
{
    struct stat status {};
    if (lstat(WithoutTrailingSlashes(given).c_str(), &status) == 0 && S_ISLNK(status.st_mode))
        Say(Quoted(given) + " is a link: " + Quoted(document) + " is meant");
}

static bool _IsDirectory(const std::string &path)
{
    struct stat status {};
    return IsThere(path, &status) && S_ISDIR(status.st_mode);
}

bool IsSidecar(const std::string &path)
{
    return path.compare(path.rfind('/') + 1, 2, "._") == 0 && !_IsDirectory(path);
}

bool IsSidecar(const WalkedItem &item)
{
    return strncmp(item.name, "._", 2) == 0 && item.kind != DT_DIR;
}

uint64_t CountSidecars(const std::string &path)
{
    if (!_IsDirectory(path)) return 0;
    uint64_t count = 0;
    // A folder that can't be read stops the add itself.
    (void)WalkBelow(path, [&](const WalkedItem &item) {
        if (IsSidecar(item)) ++count;
    });
    return count;
}

static const char *_WhyNotKept(unsigned char kind)
{
    switch (kind) {
    case DT_LNK:
        return "is a symbolic link";
    case DT_FIFO:
        return "is a FIFO";
    case DT_SOCK:
        return "is a socket";
    case DT_BLK:
    case DT_CHR:
        return "is a device";
    default:
        return nullptr;
    }
}

// The first item, as part of a sentence.
static std::string _FindWhatCannotBeKept(const std::string &path, bool keepsLinks)
{
    struct stat top {};
    if (lstat(path.c_str(), &top) != 0) return "";
    if (const char *why = _WhyNotKept(static_cast<unsigned char>(IFTODT(top.st_mode))))
        return Quoted(path) + " " + why + ": only files and directories can be kept";
    if (!S_ISDIR(top.st_mode)) return "";
    std::string found;
    (void)WalkBelow(path, [&](const WalkedItem &item) {
        const char *why = keepsLinks && item.kind == DT_LNK ? nullptr : _WhyNotKept(item.kind);
        if (found.empty() && why && strncmp(item.name, "._", 2) != 0)
            found = Quoted(item.path) + " " + why + ": a document that holds one can't be kept";
    });
    return found;
}

std::string ExplainRefusal(const TQError *error, const std::string &store, const std::string &document, bool keepsLinks)
{
    if (IsAttributeSpace(error, store, document)) return std::string("\n  ") + kAttributeSpaceIsFull;
    switch (UnderlyingErrno(error)) {
    case ELOOP:
    case ENOENT:
    case ENOTSUP:
    case ENXIO:
    case EPERM: // the tree walk tells which item is the reason, if one is
        if (const std::string item = _FindWhatCannotBeKept(document, keepsLinks); !item.empty()) return "\n  " + item;
        break;
    default:
        break;
    }
    return "";
}

static uint64_t _Mixed(uint64_t hash, uint64_t value)
{
    hash ^= value + 0x9e3779b97f4a7c15u + (hash << 6) + (hash >> 2);
    hash = (hash ^ hash >> 30) * 0xbf58476d1ce4e5b9u;
    hash = (hash ^ hash >> 27) * 0x94d049bb133111ebu;
    return hash ^ hash >> 31;
}

// Where a volume keeps whole seconds, a change time has no fraction.
static void _Include(Fingerprint &fingerprint, const std::string &path, const struct stat &status)
{
    if (status.st_ctim.tv_nsec == 0) fingerprint.wholeSecond = std::max(fingerprint.wholeSecond, status.st_ctim.tv_sec);
    uint64_t hash = std::hash<std::string>()(path);
    for (const auto value : {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
                             status.st_ctim.tv_nsec, static_cast<long>(status.st_size)})
        hash = _Mixed(hash, static_cast<uint64_t>(value));
    // A sum, since a directory may list the same items in another order.
    fingerprint.sum += _Mixed(hash, status.st_ino);
    ++fingerprint.items;
}

static struct stat _StatusOf(int directory, const char *name, const std::string &path)
{
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw CommandFailure::Errno("can't look at " + Quoted(path), errno).At(path);
    return status;
}

static Fingerprint _Take(const std::string &path)
{
    const struct stat top = _StatusOf(AT_FDCWD, path.c_str(), path);
    Fingerprint fingerprint{.device = top.st_dev, .inode = top.st_ino};
    _Include(fingerprint, path, top);
    if (!S_ISDIR(top.st_mode)) return fingerprint;
    const int reason = WalkBelow(path, [&](const WalkedItem &item) {
        _Include(fingerprint, item.path, _StatusOf(item.directory, item.name, item.path));
        if (IsSidecar(item)) ++fingerprint.sidecars;
    });
    if (reason != 0) throw CommandFailure::Errno("can't read all of " + Quoted(path), reason).At(path);
    return fingerprint;
}

Fingerprint FingerprintOf(const std::string &path)
{
    Fingerprint fingerprint = _Take(path);
    // What somebody writes to all the time is not waited for, nor what a machine with another clock has written.
    for (int looks = 1; looks < 3; ++looks) {
        const time_t now = time(nullptr);
        if (fingerprint.wholeSecond < now || fingerprint.wholeSecond > now + 1) break;
        const struct timespec next = {.tv_sec = fingerprint.wholeSecond + 1, .tv_nsec = 0};
        if (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &next, nullptr) != 0) break; // a signal
        fingerprint = _Take(path);
    }
    return fingerprint;
}
