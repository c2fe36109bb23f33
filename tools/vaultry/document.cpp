// See document.h.

#include "document.h"

#include "failure.h"
#include "location.h"
#include "naming.h"
#include "space.h"
#include "text.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sys/stat.h>

namespace fs = std::filesystem;

Document ResolveDocument(const std::string &given)
{
    const std::string path = WithoutTrailingSlashes(given);
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        throw CommandFailure::Errno("can't find the document " + Quoted(given), errno);
    const bool isLink = S_ISLNK(status.st_mode);
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(path.c_str(), nullptr), free);
    if (!resolved)
        throw CommandFailure::Errno((isLink ? "can't find what the link " : "can't find the document ") +
                                        Quoted(given) + (isLink ? " points to" : ""),
                                    errno);
    return {resolved.get(), isLink};
}

std::string DocumentPath(const std::string &given)
{
    std::error_code error;
    const fs::path whole = fs::weakly_canonical(AbsolutePath(WithoutTrailingSlashes(given)), error);
    if (error) throw CommandFailure::Errno("can't find the way to the document " + Quoted(given), error.value());
    return whole.native();
}

std::string DocumentPathIfKnown(const std::string &given)
{
    try {
        return DocumentPath(given);
    } catch (const CommandFailure &) {
        return AbsolutePath(WithoutTrailingSlashes(given));
    }
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

uint64_t CountSidecars(const std::string &path)
{
    if (!_IsDirectory(path)) return 0;
    uint64_t count = 0;
    // The kind of an entry comes with its name: no item is looked at. What can't be read stops the add itself.
    std::error_code error;
    for (fs::recursive_directory_iterator item(path, fs::directory_options::skip_permission_denied, error), end;
         !error && item != end; item.increment(error)) {
        const std::string &whole = item->path().native();
        std::error_code ignored;
        if (whole.compare(whole.rfind('/') + 1, 2, "._") == 0 &&
            item->symlink_status(ignored).type() != fs::file_type::directory)
            ++count;
    }
    return count;
}

static const char *_WhyNotKept(fs::file_type type)
{
    switch (type) {
    case fs::file_type::symlink:
        return "is a symbolic link";
    case fs::file_type::fifo:
        return "is a FIFO";
    case fs::file_type::socket:
        return "is a socket";
    case fs::file_type::block:
    case fs::file_type::character:
        return "is a device";
    default:
        return nullptr;
    }
}

// The first item, as part of a sentence.
static std::string _FindWhatCannotBeKept(const std::string &path)
{
    std::error_code error;
    const fs::file_status top = fs::symlink_status(path, error);
    if (const char *why = _WhyNotKept(top.type()))
        return Quoted(path) + " " + why + ": only files and directories can be kept";
    if (top.type() != fs::file_type::directory) return "";
    for (fs::recursive_directory_iterator item(path, fs::directory_options::skip_permission_denied, error), end;
         !error && item != end; item.increment(error)) {
        std::error_code ignored;
        const char *why = _WhyNotKept(item->symlink_status(ignored).type());
        if (why && BaseName(item->path()).rfind("._", 0) != 0)
            return Quoted(item->path().native()) + " " + why + ": a document that holds one can't be kept";
    }
    return "";
}

std::string ExplainRefusal(const TQError *error, const std::string &store, const std::string &document)
{
    if (IsAttributeSpace(error, store, document)) return std::string("\n  ") + kAttributeSpaceIsFull;
    switch (UnderlyingErrno(error)) {
    case ELOOP:
    case ENOENT:
    case ENOTSUP:
    case ENXIO:
    case EPERM: // what the tree walk finds of these is the reason
        if (const std::string item = _FindWhatCannotBeKept(document); !item.empty()) return "\n  " + item;
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

static void _Include(Fingerprint &fingerprint, const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throw CommandFailure::Errno("can't look at " + Quoted(path), errno);
    uint64_t hash = std::hash<std::string>()(path);
    for (const auto value : {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
                             status.st_ctim.tv_nsec, static_cast<long>(status.st_size)})
        hash = _Mixed(hash, static_cast<uint64_t>(value));
    // A sum, since a directory may list the same items in another order.
    fingerprint.sum += _Mixed(hash, status.st_ino);
    ++fingerprint.items;
}

Fingerprint FingerprintOf(const std::string &path)
{
    Fingerprint fingerprint;
    _Include(fingerprint, path);
    if (!_IsDirectory(path)) return fingerprint;
    std::error_code error;
    for (fs::recursive_directory_iterator item(path, error), end; !error && item != end; item.increment(error))
        _Include(fingerprint, item->path());
    if (error) throw CommandFailure::Errno("can't read all of " + Quoted(path), error.value());
    return fingerprint;
}
