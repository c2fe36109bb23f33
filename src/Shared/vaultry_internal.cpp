// Status codes, error objects made from them, and statuses read back from error objects.

#include "Shared/vaultry_internal.h"

#include "Platform/ErrnoKeeper.h"
#include "Runtime/Ref.h"
#include "Runtime/UTF8.h"
#include "Shared/tq_log.h"

#include <vaultry/collections.h>
#include <vaultry/path.h>
#include <vaultry/string.h>

#include <cerrno>
#include <cstring>

namespace {

enum class Domain { Library, Application };

struct StatusRow {
    int32_t status;
    Domain domain;
    intptr_t code;
};

// Lopsided on purpose: clients have stored these codes. 0 and 103 share 101's code, 112 shares 105's.
constexpr StatusRow kStatusTable[] = {
    {kTQStatusSuccess, Domain::Library, 1},         {kTQStatusNoErrorCode, Domain::Library, 0},
    {kTQStatusFailed, Domain::Library, 1},          {kTQStatusLibraryCode7, Domain::Library, 7},
    {kTQStatusFailedAlias, Domain::Library, 1},     {kTQStatusBadPath, Domain::Library, 2},
    {kTQStatusInvalidArgument, Domain::Library, 3}, {kTQStatusExists, Domain::Application, 516},
    {kTQStatusNotSupported, Domain::Library, 5},    {kTQStatusPermissionDenied, Domain::Library, 6},
    {kTQStatusNoSpace, Domain::Application, 640},   {kTQStatusInvalidType, Domain::Library, 9},
    {kTQStatusReadOnly, Domain::Application, 642},  {kTQStatusNoSuchAttribute, Domain::Library, 3},
    {kTQStatusLibraryCode10, Domain::Library, 10},
};

// Fewer codes are translated back into statuses: 10 is not among them.
constexpr StatusRow kReverseTable[] = {
    {kTQStatusExists, Domain::Application, 516},     {kTQStatusReadOnly, Domain::Application, 642},
    {kTQStatusNoSpace, Domain::Application, 640},    {kTQStatusNoErrorCode, Domain::Library, 0},
    {kTQStatusFailed, Domain::Library, 1},           {kTQStatusBadPath, Domain::Library, 2},
    {kTQStatusInvalidArgument, Domain::Library, 3},  {kTQStatusNotSupported, Domain::Library, 5},
    {kTQStatusPermissionDenied, Domain::Library, 6}, {kTQStatusLibraryCode7, Domain::Library, 7},
    {kTQStatusInvalidType, Domain::Library, 9},
};

TQString *DomainString(Domain domain)
{
    return domain == Domain::Library ? kTQLibraryErrorDomain : kTQApplicationErrorDomain;
}

// At most the two entries that an error object carries; null if there is neither, or no memory.
Ref<TQDictionary> MakeUserInfo(TQString *description, TQError *underlying)
{
    if (!description && !underlying) return nullptr;
    auto info = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    if (description) (void)TQDictionarySetValue(info.get(), kTQErrorDescriptionKey, description);
    if (underlying) (void)TQDictionarySetValue(info.get(), kTQErrorUnderlyingKey, underlying);
    return info;
}

TQError *Deferred(TQError *error)
{
    return static_cast<TQError *>(TQDefer(error));
}

} // namespace

const char *_TQSystemText(int errorNumber, char *buffer, size_t size)
{
    const char *text = strerror_r(errorNumber, buffer, size);
    if (UTF16LengthOfUTF8(text, strlen(text))) return text;
    const char *untranslated = strerrordesc_np(errorNumber);
    return untranslated ? untranslated : "unknown error";
}

intptr_t _TQErrorCodeAndDomainForStatus(int32_t status, TQString **domain)
{
    for (const StatusRow &row : kStatusTable) {
        if (row.status != status) continue;
        *domain = DomainString(row.domain);
        return row.code;
    }
    Log(kLogError).Line("Unknown status code encountered: %d\n", status);
    *domain = kTQLibraryErrorDomain;
    return 0;
}

TQError *_TQCreateError(TQString *domain, intptr_t code, const char *description, TQError *underlying)
{
    const ErrnoKeeper keeper;
    Ref<TQString> text;
    if (description) {
        text = Ref<TQString>::Adopt(TQStringCreate(description));
        if (!text) return nullptr;
    }
    const Ref<TQDictionary> info = MakeUserInfo(text.get(), underlying);
    return TQErrorCreate(domain, code, info.get());
}

bool _TQCreateErrorForStatus(TQError **error, int32_t status, const char *description, TQError *underlying)
{
    if (!error) return false;
    TQString *domain = nullptr;
    const intptr_t code = _TQErrorCodeAndDomainForStatus(status, &domain);
    *error = code == 0 ? nullptr : _TQCreateError(domain, code, description, underlying);
    return false;
}

bool _TQCreateErrorUseErrno(TQError **error, int errorNumber, const char *description)
{
    if (!error) return false;
    const ErrnoKeeper keeper;
    char text[256];
    const auto underlying = Ref<TQError>::Adopt(_TQCreateError(
        kTQPOSIXErrorDomain, errorNumber, _TQSystemText(errorNumber, text, sizeof text), /*underlying=*/nullptr));
    return _TQCreateErrorForStatus(error, TQGetStatusForErrno(errorNumber), description, underlying.get());
}

TQError *_TQError(intptr_t code, TQString *description, TQError *underlying)
{
    const ErrnoKeeper keeper;
    const Ref<TQDictionary> info = MakeUserInfo(description, underlying);
    return Deferred(TQErrorCreate(kTQLibraryErrorDomain, code, info.get()));
}

TQError *_TQErrorForStatus(int32_t status, TQString *description, TQError *underlying)
{
    const ErrnoKeeper keeper;
    TQString *domain = nullptr;
    const intptr_t code = _TQErrorCodeAndDomainForStatus(status, &domain);
    if (code == 0) return nullptr;
    const Ref<TQDictionary> info = MakeUserInfo(description, underlying);
    return Deferred(TQErrorCreate(domain, code, info.get()));
}

TQError *_TQErrorForErrno(int errorNumber, TQString *description)
{
    const ErrnoKeeper keeper;
    char text[256];
    TQString *systemText = tq_stringWithFileSystemRepresentation(_TQSystemText(errorNumber, text, sizeof text));
    const Ref<TQDictionary> info = MakeUserInfo(systemText, /*underlying=*/nullptr);
    const auto underlying = Ref<TQError>::Adopt(TQErrorCreate(kTQPOSIXErrorDomain, errorNumber, info.get()));
    return _TQErrorForStatus(TQGetStatusForErrno(errorNumber), description, underlying.get());
}

int32_t TQGetStatusForErrno(int errorNumber)
{
    switch (errorNumber) {
    case EPERM:
    case EACCES:
    case ETXTBSY:
        return kTQStatusPermissionDenied;
    case ENOENT:
    case EXDEV:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case ENOTEMPTY:
        return kTQStatusBadPath;
    case EEXIST:
        return kTQStatusExists;
    case ENOSPC:
    case ERANGE:
    case EDQUOT:
        return kTQStatusNoSpace;
    case EROFS:
        return kTQStatusReadOnly;
    case ENOTSUP: // the same number as EOPNOTSUPP here
        return kTQStatusNotSupported;
    case ENODATA: // what Linux says for an absent attribute
        return kTQStatusNoSuchAttribute;
    default:
        return kTQStatusFailed;
    }
}

int32_t TQErrorGetStatus(const TQError *error)
{
    const TQString *domain = TQErrorGetDomain(error);
    const intptr_t code = TQErrorGetCode(error);
    for (const StatusRow &row : kReverseTable)
        if (row.code == code && TQEqual(domain, DomainString(row.domain))) return row.status;
    Log(kLogError).Line("SHOULD NOT HAPPEN");
    return kTQStatusSuccess;
}
