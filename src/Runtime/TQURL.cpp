// URLs.
//
// A URL keeps its own text and its base, and is resolved when somebody asks. One that was made from a path keeps
// the path's bytes too, so that a path comes back as it went in, whatever is in it: neither a trailing slash
// nor dots nor bytes that are not UTF-8 are lost on the way.

#include "Runtime/ByteHash.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Object.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"
#include "Runtime/URLText.h"

#include <vaultry/url.h>

#include <climits>
#include <cstring>
#include <vector>

#include <unistd.h>

struct TQURL : Object {
    static constexpr Type kType = kTypeURL;

    TQURL() noexcept;
    ~TQURL() { TQRelease(base); }

    bool isAbsolutePath() const { return fromPath && path[0] == '/'; }
    // It was made from a relative path without a base, and is a file URL although its text has no scheme.
    bool dependsOnCurrentDirectory() const { return fromPath && !base && !isAbsolutePath(); }

    std::string text; // escaped, not resolved
    std::string path; // the path of that text, unescaped, or the path that the URL was made from
    bool hasPath = false;
    bool fromPath = false;
    bool slashAdded = false; // to the text, because the path is a directory's
    TQURL *base = nullptr;   // retained; null for a URL that needs none
};

namespace {

// Compares the chain of bases in a loop, since its length has no bound.
bool _EqualURLs(const Object *a, const Object *b, const Comparison *)
{
    const auto *first = static_cast<const TQURL *>(a);
    const auto *second = static_cast<const TQURL *>(b);
    for (; first && second && first != second; first = first->base, second = second->base)
        if (first->text != second->text || first->dependsOnCurrentDirectory() != second->dependsOnCurrentDirectory())
            return false;
    return first == second;
}

uintptr_t _HashURL(const Object *object, size_t budget)
{
    const auto *url = static_cast<const TQURL *>(object);
    uintptr_t hash = HashBytes(url->text.data(), url->text.size());
    while ((url = url->base) && budget-- > 0) hash = hash * 31 + HashBytes(url->text.data(), url->text.size());
    return hash;
}

void _DescribeURL(const Object *object, Description &description)
{
    const auto *url = static_cast<const TQURL *>(object);
    const auto resolved = Ref<TQString>::Adopt(TQURLCopyString(url));
    // Without a current directory the text stays relative.
    description.Append(resolved ? resolved.get()->view() : url->text);
}

constexpr Kind kURLKind = {kTypeURL, "URL", false, Destroy<TQURL>, _EqualURLs, _HashURL, _DescribeURL};

Ref<TQURL> _MakeURL()
{
    auto url = Ref<TQURL>::Adopt(MakeObject<TQURL>(nullptr, 0));
    if (!url) throw std::bad_alloc();
    return url;
}

// The current directory with a slash at its end; false if it can't be told.
bool _AppendCurrentDirectory(std::string &path)
{
    char buffer[PATH_MAX];
    if (!getcwd(buffer, sizeof buffer) || buffer[0] != '/') return false;
    path += buffer;
    if (path.back() != '/') path += '/';
    return true;
}

// The parts of the resolved URL; false if they depend on the current directory and there is none.
bool _Resolve(const TQURL *url, URLParts &parts)
{
    std::vector<const TQURL *> chain;
    for (; url; url = url->base) chain.push_back(url);

    const TQURL *root = chain.back();
    parts = SplitURL(root->text);
    if (root->dependsOnCurrentDirectory()) {
        std::string directory;
        if (!_AppendCurrentDirectory(directory)) return false;
        // This is not resolved like a URL: only the kernel knows what ".." means after a symbolic link.
        parts.scheme = "file";
        parts.authority = "";
        parts.path = EscapePath(directory) + parts.path;
    }
    for (size_t i = chain.size() - 1; i-- > 0;) parts = ResolveURL(parts, SplitURL(chain[i]->text));
    return true;
}

bool _AbsolutePath(const TQURL *url, std::string &path)
{
    if (url->isAbsolutePath()) {
        path = url->path;
        return true;
    }
    URLParts parts;
    if (!_Resolve(url, parts) || !parts.IsFile() || !parts.IsOnThisHost()) return false;
    path = UnescapePath(parts.path);
    if (url->slashAdded && path.size() > 1 && path.back() == '/') path.pop_back();
    return path.starts_with('/') && path.find('\0') == std::string::npos;
}

} // namespace

TQURL::TQURL() noexcept : Object(&kURLKind) {}

TQTypeID TQURLGetTypeID(void)
{
    return kTypeURL;
}

TQURL *TQURLCreateWithFileSystemPath(const char *path, bool isDirectory)
{
    return TQURLCreateWithFileSystemPathRelativeToBase(path, isDirectory, nullptr);
}

TQURL *TQURLCreateWithFileSystemPathRelativeToBase(const char *path, bool isDirectory, TQURL *base)
{
    if (!path || !*path) return nullptr;
    return NoThrow<TQURL *>(nullptr, [&] {
        Ref<TQURL> made = _MakeURL();
        TQURL *url = made.get();
        url->path = path;
        url->hasPath = true;
        url->fromPath = true;
        url->slashAdded = isDirectory && url->path.back() != '/';
        if (url->isAbsolutePath())
            url->text = "file://";
        else
            url->base = static_cast<TQURL *>(TQRetain(As(base)));
        url->text += EscapePath(url->path);
        if (url->slashAdded) url->text += '/';
        return made.Detach();
    });
}

TQURL *TQURLCreateWithString(const TQString *string, TQURL *base)
{
    const TQString *given = As(string);
    if (!given || given->length == 0 || !IsURLText(given->view())) return nullptr;
    return NoThrow<TQURL *>(nullptr, [&] {
        Ref<TQURL> made = _MakeURL();
        TQURL *url = made.get();
        url->text = given->view();
        const URLParts parts = SplitURL(url->text);
        url->path = UnescapePath(parts.path);
        url->hasPath = !url->path.empty() && url->path.find('\0') == std::string::npos &&
                       (parts.IsOnThisHost() || !parts.IsFile());
        if (!parts.scheme) url->base = static_cast<TQURL *>(TQRetain(As(base)));
        return made.Detach();
    });
}

bool TQURLIsFileURL(const TQURL *url)
{
    const TQURL *root = As(url);
    if (!root) return false;
    while (root->base) root = root->base;
    return root->fromPath || HasFileScheme(root->text);
}

bool TQURLHasDirectoryPath(const TQURL *url)
{
    const TQURL *given = As(url);
    return given && given->text.ends_with('/');
}

TQString *TQURLCopyString(const TQURL *url)
{
    const TQURL *given = As(url);
    if (!given) return nullptr;
    return NoThrow<TQString *>(nullptr, [&]() -> TQString * {
        if (!given->base && !given->dependsOnCurrentDirectory()) return MakeString(given->text);
        URLParts parts;
        return _Resolve(given, parts) ? MakeString(JoinURL(parts)) : nullptr;
    });
}

const char *TQURLGetPath(const TQURL *url)
{
    const TQURL *given = As(url);
    return given && given->hasPath ? given->path.c_str() : nullptr;
}

bool TQURLGetFileSystemRepresentation(const TQURL *url, char *buffer, size_t capacity)
{
    const TQURL *given = As(url);
    if (!given || !buffer) return false;
    return NoThrow(false, [&] {
        std::string path;
        if (!_AbsolutePath(given, path) || path.size() >= capacity) return false;
        std::memcpy(buffer, path.c_str(), path.size() + 1);
        return true;
    });
}
