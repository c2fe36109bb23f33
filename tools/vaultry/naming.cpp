// See naming.h.

#include "naming.h"

#include "failure.h"
#include "owned.h"
#include "text.h"

#include <vaultry/path.h>

#include <algorithm>
#include <string_view>

// A longer extension is part of somebody's sentence, not a kind of file.
static constexpr size_t kMaximumExtensionLength = 32;

static std::string _Escaped(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes);
        const std::string_view character = bytes.substr(0, std::max<size_t>(length, 1));
        if (length > 0 && Printable(character) == character) {
            text += character;
        } else {
            char escape[4];
            for (const char byte : character) {
                snprintf(escape, sizeof escape, "%%%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
                text += escape;
            }
        }
        bytes.remove_prefix(character.size());
    }
    return text;
}

// The extension with its dot, as the library sees it; empty if there is none.
static std::string_view _ExtensionOf(const std::string &path)
{
    const char *extension = TQGetFileNameExtensionForPath(path.c_str());
    return extension ? extension : "";
}

static bool _IsKindOfFile(std::string_view extension)
{
    return extension.size() >= 2 && extension.size() <= kMaximumExtensionLength &&
           extension.find(' ') == extension.npos && _Escaped(extension) == extension;
}

static void _CutBetweenCharacters(std::string &text, size_t limit)
{
    if (text.size() <= limit) return;
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80) --limit;
    text.resize(limit);
}

std::string BaseName(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string DefaultGenerationName(const std::string &documentPath, time_t now, unsigned attempt)
{
    const std::string name = BaseName(documentPath);
    std::string_view extension = _ExtensionOf(name);
    const bool endsInIt = _IsKindOfFile(extension);
    if (!endsInIt) extension = {};
    std::string stem = _Escaped(std::string_view(name).substr(0, name.size() - extension.size()));
    if (!endsInIt) std::replace(stem.begin(), stem.end(), '.', '_');
    // The store keeps names that begin with a dot for itself.
    if (!stem.empty() && stem.front() == '.') stem.front() = '_';

    struct tm utc {};
    char time[32];
    gmtime_r(&now, &utc);
    strftime(time, sizeof time, "-%Y-%m-%dT%H-%M-%SZ", &utc);
    std::string suffix = time;
    if (attempt > 0) suffix.append("-").append(std::to_string(attempt + 1));
    suffix += extension;

    _CutBetweenCharacters(stem, kMaximumNameLength - suffix.size());
    return stem + suffix;
}

std::string RestoredPath(const std::string &document, const std::string &name)
{
    const std::string_view own = _ExtensionOf(document), wanted = _ExtensionOf(name);
    if (own.empty() || wanted.empty()) return document;
    return document.substr(0, document.size() - own.size()).append(wanted);
}

void CheckGenerationName(const std::string &option, const std::string &name)
{
    const std::string what = option + " " + Quoted(name);
    const Owned<TQString> string = MakeString(name);
    if (!string) throw CommandFailure(kExitUsage, what + ": a name has to be UTF-8");
    if (name.empty()) throw CommandFailure(kExitUsage, what + ": a name has to have at least one character");
    char buffer[kMaximumNameLength + 1];
    Owned<TQError> error;
    if (!validateTQName(string.get(), error.out()) || !TQStringGetGenName(string.get(), buffer, error.out()))
        throw CommandFailure::Library(what, error.get()).ExitingWith(kExitUsage);
}
