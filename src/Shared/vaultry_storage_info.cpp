// The info dictionary of a generation: a property list in one attribute, read whole and written whole.
//
// Always: the attribute never holds an empty dictionary. A change replaces the value in one call, so
// a reader sees the old dictionary or the new one.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/ErrnoKeeper.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/data.h>
#include <vaultry/plist.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

struct FreeBytes {
    void operator()(void *bytes) const { free(bytes); }
};

Ref<TQData> MakeData(const void *bytes, size_t length, const char *path, TQError **error)
{
    auto data = Ref<TQData>::Adopt(TQDataCreate(bytes, length));
    if (!data)
        Failure(error).Status(kTQStatusFailed, "Failed to create data value for attribute %s at path \"%s\"",
                              kInfoAttribute, path);
    return data;
}

// Reads the attribute's bytes. If it is absent, returns null without an error.
Ref<TQData> ReadInfoAttribute(const Item &item, bool *absent, TQError **error)
{
    const char *const path = item.path;
    char usual[1024]; // nearly all are smaller, and need not be asked for their size
    const ssize_t length = platform::GetAttribute(item, Links::Follow, kInfoAttribute, usual, sizeof usual);
    if (length >= 0) return MakeData(usual, static_cast<size_t>(length), path, error);
    *absent = errno == ENODATA;
    if (*absent) return nullptr;
    const ssize_t size = errno == ERANGE ? platform::GetAttribute(item, Links::Follow, kInfoAttribute, nullptr, 0) : -1;
    if (size < 0) {
        Failure(error).AtDebug().Errno("getxattr failed");
        return nullptr;
    }

    const size_t wanted = static_cast<size_t>(size);
    const std::unique_ptr<void, FreeBytes> buffer(malloc(wanted > 0 ? wanted : 1));
    if (!buffer) {
        Failure(error).AtDebug().Errno("malloc failed");
        return nullptr;
    }

    // The size may have changed since we asked for it. A shorter read would be parsed as damaged
    // metadata, so a change in between is reported as what it is.
    const ssize_t actual = platform::GetAttribute(item, Links::Follow, kInfoAttribute, buffer.get(), wanted);
    if (actual != size) {
        Failure(error).Status(kTQStatusFailed, "Attribute %s at path \"%s\" should have size: %ld; actual %ld\n",
                              kInfoAttribute, path, static_cast<long>(size), static_cast<long>(actual));
        return nullptr;
    }

    return MakeData(buffer.get(), wanted, path, error);
}

bool WriteInfoDictionary(const char *path, TQDictionary *info, TQError **error)
{
    if (TQDictionaryGetCount(info) == 0) return _WriteProtectedAttribute(path, kInfoAttribute, nullptr, 0, error);

    Ref<TQError> why;
    const auto data = Ref<TQData>::Adopt(TQPropertyListCreateData(info, why.out()));
    if (data)
        return _WriteProtectedAttribute(path, kInfoAttribute, TQDataGetBytes(data.get()), TQDataGetLength(data.get()),
                                        error);

    const ErrnoKeeper keeper;
    if (LogAdmits(kLogError)) {
        const auto format = Ref<TQString>::Adopt(
            TQStringCreate("Failed to create property list for new info dictionary for path \"%s\"; error %@\n"));
        _TQLogMsg(kLogError, __builtin_FILE(), __builtin_LINE(), format.get(), path, why.get());
    }
    if (error) *error = why.Detach();
    return false;
}

} // namespace

TQDictionary *TQCopyMutableInfoDictionary(const char *path, TQError **error)
{
    return _CopyInfoDictionaryOf(Item::AtPath(path ? path : ""), error);
}

TQDictionary *_CopyInfoDictionaryOf(const Item &item, TQError **error)
{
    const char *const path = item.path;
    bool absent = false;
    const Ref<TQData> data = ReadInfoAttribute(item, &absent, error);
    if (absent) {
        TQDictionary *empty = TQDictionaryCreateMutable();
        return empty ? empty : Failure(error).Status(kTQStatusFailed, "malloc failed");
    }
    if (!data) return nullptr;

    auto parsed = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(data.get(), /*mutableContainers=*/true, error));
    if (!parsed) {
        Log(kLogError).Line("Invalid property list found in attribute %s at path \"%s\"\n", kInfoAttribute, path);
        return nullptr;
    }
    if (TQGetTypeID(parsed.get()) != TQDictionaryGetTypeID())
        return Failure(error).Status(kTQStatusFailed, "Property list in attribute %s at path \"%s\" isn't a dictionary",
                                     kInfoAttribute, path);
    return static_cast<TQDictionary *>(parsed.Detach());
}

TQValue *TQCopyInfoValue(const char *path, const TQString *key, TQError **error)
{
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, error));
    if (!info) return nullptr;
    TQValue *value = TQDictionaryGetValue(info.get(), key);
    if (!value) return Failure(error).Refused(kTQStatusNoSuchAttribute, "property not found");
    return TQRetain(value);
}

bool TQSetInfoValue(const char *path, TQString *key, TQValue *value, TQError **error)
{
    if (!key) return Failure(error).Refused(kTQStatusInvalidArgument, "no key was supplied");
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, error));
    if (!info) return false;

    if (!value && !TQDictionaryRemoveValue(info.get(), key))
        return Failure(error).Refused(kTQStatusNoSuchAttribute, "property not found");
    if (value && !TQDictionarySetValue(info.get(), key, value))
        return Failure(error).Status(kTQStatusFailed, "malloc failed");
    if (!path) path = "";
    return WriteInfoDictionary(path, info.get(), error) && _FlushItem(path, error);
}

bool TQSetInfoValues(const char *path, const TQDictionary *values, TQError **error)
{
    if (!path) path = "";
    if (TQDictionaryGetCount(values) == 0)
        return Failure(error).Refused(kTQStatusInvalidArgument, "no values were supplied");
    return _WriteInfoValues(path, values, error) && _FlushItem(path, error);
}

bool _WriteInfoValues(const char *path, const TQDictionary *values, TQError **error)
{
    const size_t count = TQDictionaryGetCount(values);
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, error));
    if (!info) return false;

    const std::unique_ptr<TQValue *[]> entries(new (std::nothrow) TQValue *[2 * count]);
    bool allSet = entries != nullptr;
    if (allSet) TQDictionaryGetKeysAndValues(values, entries.get(), entries.get() + count);
    for (size_t i = 0; allSet && i < count; ++i)
        allSet = TQDictionarySetValue(info.get(), entries[i], entries[count + i]);
    if (!allSet) return Failure(error).Status(kTQStatusFailed, "malloc failed");
    return WriteInfoDictionary(path, info.get(), error);
}

bool _RemoveInfoValues(const char *path, const TQDictionary *values, TQError **error)
{
    const size_t count = TQDictionaryGetCount(values);
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, error));
    const std::unique_ptr<TQValue *[]> keys(new (std::nothrow) TQValue *[count]);
    if (!info) return false;
    if (!keys) return Failure(error).Status(kTQStatusFailed, "malloc failed");
    TQDictionaryGetKeysAndValues(values, keys.get(), nullptr);
    bool anyRemoved = false;
    for (size_t i = 0; i < count; ++i) anyRemoved |= TQDictionaryRemoveValue(info.get(), keys[i]);
    return !anyRemoved || WriteInfoDictionary(path, info.get(), error);
}
