// Errors: a domain, a code, and a dictionary that is never changed.

#include "Runtime/ByteHash.h"
#include "Runtime/Error.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"

#include <vaultry/collections.h>

namespace {

bool _EqualErrors(const Object *a, const Object *b, const Comparison *comparison)
{
    const auto *first = static_cast<const TQError *>(a);
    const auto *second = static_cast<const TQError *>(b);
    return first->code == second->code && TQEqual(first->domain, second->domain) &&
           EqualMembers(first->userInfo, second->userInfo, comparison);
}

uintptr_t _HashError(const Object *object, size_t)
{
    const auto *error = static_cast<const TQError *>(object);
    return HashInteger(TQHash(error->domain) + static_cast<uintptr_t>(error->code));
}

void _DescribeError(const Object *object, Description &description)
{
    const auto text = Ref<TQString>::Adopt(TQErrorCopyDescription(static_cast<const TQError *>(object)));
    if (!text) throw std::bad_alloc();
    description.Append(text.get()->view());
}

constexpr Kind kErrorKind = {kTypeError, "error", true, Destroy<TQError>, _EqualErrors, _HashError, _DescribeError};

constinit TQString libraryDomain{&kStringKind, "TQLibraryErrorDomain"};
constinit TQString posixDomain{&kStringKind, "TQPOSIXErrorDomain"};
constinit TQString applicationDomain{&kStringKind, "TQApplicationErrorDomain"};
constinit TQString descriptionKey{&kStringKind, "TQErrorDescription"};
constinit TQString underlyingKey{&kStringKind, "TQErrorUnderlying"};

constinit TQString noMemoryText{&kStringKind, "there is not enough memory"};
constinit TQError noMemoryError{&kErrorKind, &libraryDomain, 1, &noMemoryText};

TQValue *_GetInfo(const TQError *error, const TQString *key, Type type)
{
    TQValue *value = error ? TQDictionaryGetValue(error->userInfo, key) : nullptr;
    return IsKind(value, type) ? value : nullptr;
}

} // namespace

TQString *const kTQLibraryErrorDomain = &libraryDomain;
TQString *const kTQPOSIXErrorDomain = &posixDomain;
TQString *const kTQApplicationErrorDomain = &applicationDomain;
TQString *const kTQErrorDescriptionKey = &descriptionKey;
TQString *const kTQErrorUnderlyingKey = &underlyingKey;

TQError::TQError(TQString *ofDomain, intptr_t ofCode, TQDictionary *info) noexcept
    : Object(&kErrorKind), domain(ofDomain), code(ofCode), userInfo(info)
{
}

TQError::~TQError()
{
    TQRelease(domain);
    TQRelease(userInfo);
}

TQTypeID TQErrorGetTypeID(void)
{
    return kTypeError;
}

TQError *TQErrorCreate(TQString *domain, intptr_t code, const TQDictionary *userInfo)
{
    if (!As(domain)) return nullptr;
    auto info = Ref<TQDictionary>::Adopt(TQDictionaryCreateCopy(userInfo));
    if (userInfo && !info) return nullptr;
    TQError *error = MakeObject<TQError>(nullptr, 0, domain, code, info.get());
    if (!error) return nullptr;
    TQRetain(domain);
    (void)info.Detach();
    return error;
}

TQString *TQErrorGetDomain(const TQError *error)
{
    const TQError *given = As(error);
    return given ? given->domain : nullptr;
}

intptr_t TQErrorGetCode(const TQError *error)
{
    const TQError *given = As(error);
    return given ? given->code : 0;
}

TQDictionary *TQErrorGetUserInfo(const TQError *error)
{
    const TQError *given = As(error);
    return given ? given->userInfo : nullptr;
}

TQString *TQErrorCopyDescription(const TQError *error)
{
    const TQError *given = As(error);
    if (!given) return nullptr;
    TQValue *text = given->constantText;
    if (!text) text = _GetInfo(given, kTQErrorDescriptionKey, kTypeString);
    if (text) return static_cast<TQString *>(TQRetain(text));
    return TQStringCreateWithFormat("%@ error %td", static_cast<TQValue *>(given->domain),
                                    static_cast<ptrdiff_t>(given->code));
}

TQError *TQErrorGetUnderlying(const TQError *error)
{
    return static_cast<TQError *>(_GetInfo(As(error), kTQErrorUnderlyingKey, kTypeError));
}

TQError *NoMemoryError()
{
    return &noMemoryError;
}

TQError *MakeGeneralError(TQString *text)
{
    TQValue *key = kTQErrorDescriptionKey;
    TQValue *value = text;
    const auto info = Ref<TQDictionary>::Adopt(TQDictionaryCreate(&key, &value, 1));
    TQError *error = info ? TQErrorCreate(kTQLibraryErrorDomain, 1, info.get()) : nullptr;
    return error ? error : NoMemoryError();
}
