// Converts between path bytes and strings and between paths and file URLs, and tells whether a string may name a
// generation.

#include <vaultry/path.h>

#include <vaultry/data.h>
#include <vaultry/filesystem.h>
#include <vaultry/status.h>

#include "Platform/ErrnoKeeper.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"

#include <climits>
#include <cstring>
#include <memory>

namespace {

constexpr uint32_t kInvalidURLCode = 2;

bool HoldsSlash(const TQString *name)
{
    return memchr(TQStringGetUTF8(name), '/', TQStringGetUTF8Length(name)) != nullptr;
}

// The rules are checked in order, and the first that fails decides. Null if all hold.
const char *BrokenNameRule(const TQString *name)
{
    if (TQStringGetLength(name) > kGenerationNameLimit) return "Invalid Name: too long [%@]";
    if (TQStringGetCharacterAtIndex(name, 0) == '.') return "Invalid Name: begins with a `.' [%@]";
    if (HoldsSlash(name)) return "Invalid Name: contains a `/' [%@]";
    // A zero byte would end the name early in every path that is made of it.
    if (strlen(TQStringGetUTF8(name)) != TQStringGetUTF8Length(name)) return "Invalid Name: contains a zero byte [%@]";
    return nullptr;
}

} // namespace

TQString *tq_stringWithFileSystemRepresentation(const char *path)
{
    return static_cast<TQString *>(TQDefer(TQStringCreateWithFileSystemRepresentation(path)));
}

bool validateTQName(const TQString *name, TQError **error)
{
    if (!name) return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    const char *rule = BrokenNameRule(name);
    if (!rule) return true;
    const auto message = Ref<TQString>::Adopt(TQStringCreateWithFormat(rule, name));
    return ReportStringFailure(error, kLogDebug, kTQStatusInvalidArgument, message.get(), /*underlying=*/nullptr);
}

// Linux has no paths that name a file by volume and file number, so every path stands for itself.
TQURL *tq_fileURLWithFileSystemRepresentation(const char *path)
{
    return static_cast<TQURL *>(TQDefer(TQURLCreateWithFileSystemPath(path, /*isDirectory=*/false)));
}

// A relative URL means something only together with its base. Its bare path would be taken as relative to the current
// directory.
const char *tq_fileSystemRepresentation(const TQURL *url)
{
    const char *path = TQURLGetPath(url);
    if (!path || path[0] == '/' || !TQURLIsFileURL(url)) return path;
    char absolute[PATH_MAX];
    if (!TQURLGetFileSystemRepresentation(url, absolute, sizeof absolute)) return nullptr;
    return static_cast<const char *>(
        TQDataGetBytes(static_cast<TQData *>(TQDefer(TQDataCreate(absolute, strlen(absolute) + 1)))));
}

bool TQURLGetAbsPath(const TQURL *url, char *buffer, size_t size, TQError **error)
{
    if (buffer && TQURLIsFileURL(url) && TQURLGetFileSystemRepresentation(url, buffer, size)) return true;

    const ErrnoKeeper keeper;
    const char *file = __builtin_FILE();
    const int line = __builtin_LINE();
    const char *text = "invalid supplied url %@";
    if (LogAdmits(kLogError)) {
        const auto format = Ref<TQString>::Adopt(TQStringCreate(text));
        _TQLogMsg(kLogError, file, line, format.get(), url);
    }
    if (error) {
        const auto message = Ref<TQString>::Adopt(TQStringCreateWithFormat(text, url));
        *error = _TQCreateError(kTQLibraryErrorDomain, kInvalidURLCode, TQStringGetUTF8(message.get()),
                                /*underlying=*/nullptr);
    }
    return false;
}

// There is no sandbox here that a token would open.
void attachSandboxExtension(TQURL *, TQValue *) {}
