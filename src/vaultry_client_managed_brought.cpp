#include "vaultry_client_managed_brought.h"

#include "Platform/Attributes.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/metadata.h>
#include <vaultry/number.h>

#include <cerrno>

static bool _HasNone(int error)
{
    return error == ENODATA || error == ENOTSUP;
}

static BroughtOptions _ReadOptions(const Item &document)
{
    BroughtOptions options;
    const ssize_t length =
        platform::GetAttribute(document, Links::NoFollow, kOptionsAttribute, &options.word, sizeof options.word);
    options.isThere = length == sizeof options.word;
    options.isKnown = options.isThere || (length < 0 && _HasNone(errno));
    return options;
}

template <size_t capacity>
static void _Read(const Item &document, const char *name, BroughtAttribute<capacity> *brought)
{
    const ssize_t length = platform::GetAttribute(document, Links::NoFollow, name, brought->bytes, capacity);
    brought->isThere = length >= 0;
    brought->isKnown = brought->isThere || _HasNone(errno);
    brought->isTooLong = !brought->isThere && errno == ERANGE;
    brought->length = brought->isThere ? static_cast<size_t>(length) : 0;
}

void _NoteBroughtAttributes(const Item &document, OwnerNote *note)
{
    note->topOptions = _ReadOptions(document);
    _Read(document, kInfoAttribute, &note->topInfo);
    _Read(document, kDisplayNameAttribute, &note->topName);
}

MalformedMetadata _FindMalformedMetadata(const char *staged, const BroughtMetadata &brought)
{
    const Item item = Item::AtPath(staged);
    const auto has = [&](const char *name) {
        return platform::GetAttribute(item, Links::NoFollow, name, nullptr, 0) >= 0;
    };
    const bool isInfoWell =
        !brought.info || !has(kInfoAttribute) || Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(staged, nullptr));
    const bool isNameWell = !brought.displayName || !has(kDisplayNameAttribute) ||
                            Ref<TQString>::Adopt(TQCopyOriginalDisplayName(staged, nullptr));
    return {!isInfoWell, !isNameWell};
}

bool _DropMalformedMetadata(const char *staged, const MalformedMetadata &malformed, TQError **error)
{
    return (!malformed.info || _WriteProtectedAttribute(staged, kInfoAttribute, nullptr, 0, error)) &&
           (!malformed.displayName || _WriteProtectedAttribute(staged, kDisplayNameAttribute, nullptr, 0, error));
}

bool _WriteOptionsOver(const char *staged, uint64_t options, const BroughtMetadata &brought, TQError **error)
{
    const bool isNothingToDo = !brought.options && (options & kStoredOptionBits) == 0;
    return isNothingToDo || _WriteGenerationOptions(staged, options, error);
}

bool _HasInfo(const TQAddRequest &request)
{
    return request.sizeKey || TQDictionaryGetCount(request.info) != 0;
}

static Ref<TQDictionary> _AllOf(const TQAddRequest &request, uint64_t size)
{
    auto all = Ref<TQDictionary>::Adopt(request.info ? TQDictionaryCreateMutableCopy(request.info)
                                                     : TQDictionaryCreateMutable());
    if (!request.sizeKey || !all) return all;
    const auto number = Ref<TQNumber>::Adopt(TQNumberCreateInt64(static_cast<int64_t>(size)));
    const bool isSet = number && TQDictionarySetValue(all.get(), const_cast<TQString *>(request.sizeKey), number.get());
    return isSet ? std::move(all) : nullptr;
}

bool _WriteInfoOf(const char *staged, const TQAddRequest &request, uint64_t size, TQError **error)
{
    if (!_HasInfo(request)) return true;
    const Ref<TQDictionary> all = _AllOf(request, size);
    if (!all) return Failure(error).Status(kTQStatusFailed, "malloc failed");
    if ((request.flags & kTQAddInfoIsOptional) == 0) return _WriteInfoValues(staged, all.get(), error);
    // What the document brought under these keys tells of another generation.
    return _WriteInfoValues(staged, all.get(), nullptr) || _RemoveInfoValues(staged, all.get(), nullptr) ||
           _WriteProtectedAttribute(staged, kInfoAttribute, nullptr, 0, error);
}
