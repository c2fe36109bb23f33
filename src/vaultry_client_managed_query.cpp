// Info queries: records of chosen facts about one generation or all of them.
//
// The selector of the info dictionary is read from "ODN", like that of the display name. So one number switches both,
// and a list of keys passes the first test but fails the second. Clients were written against this.

#include "vaultry_client_managed_query.h"

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_names.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/metadata.h>
#include <vaultry/number.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int64_t kDefaultWithOptions = 31; // leaves out generations whose options word is 0
constexpr uint64_t kSecondGroupBit = 0x4;
constexpr char kFirstGroup[] = "com.corvane.draftline";
constexpr char kSecondGroup[] = "com.corvane.nimbusync";

// A query that runs out of memory returns nothing: a fact that is left out would look as if it did not exist.
bool Allocated(bool done, TQError **error)
{
    return done || Failure(error).Status(kTQStatusFailed, "malloc failed");
}

// What the dictionary has under `key`, lent; null if it has nothing.
bool Get(const TQDictionary *dictionary, const char *key, TQValue **value, TQError **error)
{
    const auto string = Ref<TQString>::Adopt(TQStringCreate(key));
    *value = TQDictionaryGetValue(dictionary, string.get());
    return Allocated(static_cast<bool>(string), error);
}

// Also false if there was no memory for the value itself, which is then null.
bool Set(const Ref<TQDictionary> &dictionary, const char *key, TQValue *value, TQError **error)
{
    const auto string = Ref<TQString>::Adopt(TQStringCreate(key));
    return Allocated(TQDictionarySetValue(dictionary.get(), string.get(), value), error);
}

// A switch among the fields: absent is off.
bool GetSwitch(const TQDictionary *fields, const char *key, const char *complaint, bool *on, TQError **error)
{
    TQValue *value = nullptr;
    if (!Get(fields, key, &value, error)) return false;
    if (value && !TQIsNumber(value)) return Failure(error).Refused(kTQStatusInvalidType, "%s", complaint);
    *on = value && TQNumberGetTruth(value);
    return true;
}

bool GetInfoSelector(const TQDictionary *fields, FieldSelection *selection, const TQArray **keys, TQError **error)
{
    TQValue *value = nullptr;
    if (!Get(fields, "ODN", &value, error)) return false;
    if (value && TQGetTypeID(value) == TQArrayGetTypeID()) {
        selection->info = true;
        *keys = static_cast<const TQArray *>(value);
        return true;
    }
    return GetSwitch(fields, "ODN", "invalid type for UserInfos", &selection->info, error);
}

// What a query over all generations asks for.
struct Query {
    FieldSelection fields;
    const TQArray *keys;
    uint64_t withOptions;
    uint64_t withoutOptions;
    bool firstGroup;
    bool secondGroup;

    bool Admits(uint64_t options) const
    {
        if ((options & withoutOptions) != 0) return false;
        if (withOptions != 0 && (options & withOptions) == 0) return false;
        return (options & kSecondGroupBit) != 0 ? secondGroup : firstGroup;
    }
};

bool GetMask(const TQDictionary *spec, const char *key, const char *complaint, int64_t absent, uint64_t *mask,
             TQError **error)
{
    TQValue *value = nullptr;
    if (!Get(spec, key, &value, error)) return false;
    if (value && !TQIsNumber(value)) return Failure(error).Refused(kTQStatusInvalidType, "%s", complaint);
    // The bits count: a mask with the highest bit is given as a negative number, or as one that fits only without a
    // sign.
    const int64_t number = value ? TQNumberGetInt64(value) : absent;
    *mask = number == INT64_MAX ? TQNumberGetUInt64(value) : static_cast<uint64_t>(number);
    return true;
}

bool Lists(const TQArray *clients, const char *group, bool *listed, TQError **error)
{
    const auto string = Ref<TQString>::Adopt(TQStringCreate(group));
    *listed = !clients || TQArrayContainsValue(clients, string.get());
    return Allocated(static_cast<bool>(string), error);
}

bool GetClients(const TQDictionary *spec, Query *query, TQError **error)
{
    TQValue *value = nullptr;
    if (!Get(spec, "clients", &value, error)) return false;
    if (value && TQGetTypeID(value) != TQArrayGetTypeID())
        return Failure(error).Refused(kTQStatusInvalidType, "invalid type for spec.clients");
    const auto *clients = static_cast<const TQArray *>(value);
    return Lists(clients, kFirstGroup, &query->firstGroup, error) &&
           Lists(clients, kSecondGroup, &query->secondGroup, error);
}

bool GetFields(const TQDictionary *spec, FieldSelection *fields, const TQArray **keys, TQError **error)
{
    TQValue *value = nullptr;
    return Get(spec, "fields", &value, error) && _genInfosFieldsGet(value, fields, keys, error);
}

bool GetQuery(const TQDictionary *spec, Query *query, TQError **error)
{
    return GetFields(spec, &query->fields, &query->keys, error) &&
           GetMask(spec, "withOptions", "invalid type for spec.withOptions", kDefaultWithOptions, &query->withOptions,
                   error) &&
           GetMask(spec, "withoutOptions", "invalid type for spec.withoutOptions", 0, &query->withoutOptions, error) &&
           GetClients(spec, query, error);
}

// Formatted here rather than by _GetPathToGeneration: a query neither validates names nor looks for them.
bool GetPath(const char *root, const char *name, PathBuffer &path, TQError **error)
{
    if (path.Format("%s/%s", root, name)) return true;
    return Failure(error).Refused(kTQStatusBadPath, "Path to generation is too long");
}

// Adds the display name, if there is one. A missing name is not a failure, and leaves no error behind.
bool AddDisplayName(const Ref<TQDictionary> &record, const char *path, TQError **error)
{
    Ref<TQError> why;
    errno = 0; // not every failure of the read sets it, and an older one must not pass for a missing name
    const auto displayName = Ref<TQString>::Adopt(TQCopyOriginalDisplayName(path, why.out()));
    if (displayName) return Set(record, "ODN", displayName.get(), error);
    const bool none = errno == ENODATA;
    if (error) *error = none ? nullptr : why.Detach();
    return none;
}

bool AddInfo(const Ref<TQDictionary> &record, const char *path, const TQArray *keys, TQError **error)
{
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(path, error));
    if (!info) return false;
    if (!keys) return Set(record, "info", info.get(), error);

    const auto chosen = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    for (size_t i = 0; i < TQArrayGetCount(keys); ++i) {
        TQValue *key = TQArrayGetValueAtIndex(keys, i);
        TQValue *value = TQDictionaryGetValue(info.get(), key);
        if (value && !Allocated(TQDictionarySetValue(chosen.get(), key, value), error)) return false;
    }
    return Set(record, "info", chosen.get(), error);
}

bool AddToGroup(const Query &query, const char *root, const char *name, TQArray *first, TQArray *second,
                TQError **error)
{
    PathBuffer path;
    if (!GetPath(root, name, path, error)) return false;
    const uint64_t options = TQGetGenerationOptions(path.c_str());
    if (!query.Admits(options)) return true;
    const auto record =
        Ref<TQDictionary>::Adopt(_genInfosCreate(query.fields, query.keys, name, options, path.c_str(), error));
    return record &&
           Allocated(TQArrayAppendValue((options & kSecondGroupBit) != 0 ? second : first, record.get()), error);
}

} // namespace

bool _genInfosFieldsGet(const TQValue *fields, FieldSelection *selection, const TQArray **keys, TQError **error)
{
    *keys = nullptr;
    *selection = {true, true, true, true};
    if (!fields) return true;
    if (TQGetTypeID(fields) != TQDictionaryGetTypeID())
        return Failure(error).Refused(kTQStatusInvalidType, "invalid type for spec.fields");
    const auto *dictionary = static_cast<const TQDictionary *>(fields);
    return GetInfoSelector(dictionary, selection, keys, error) &&
           GetSwitch(dictionary, "URL", "invalid type for Path", &selection->url, error) &&
           GetSwitch(dictionary, "options", "invalid type for Options", &selection->options, error) &&
           GetSwitch(dictionary, "ODN", "invalid type for ODN", &selection->displayName, error);
}

TQDictionary *_genInfosCreate(const FieldSelection &selection, const TQArray *keys, const char *name, uint64_t options,
                              const char *path, TQError **error)
{
    auto record = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    const auto nameString = Ref<TQString>::Adopt(TQStringCreateWithFileSystemRepresentation(name));
    if (!nameString)
        return Failure(error).Status(kTQStatusFailed, "Failed to create string from file system name \"%s\"", name);
    if (!Set(record, "name", nameString.get(), error)) return nullptr;
    if (selection.options) {
        const auto number = Ref<TQNumber>::Adopt(TQNumberCreateInt64(static_cast<int64_t>(options)));
        if (!Set(record, "options", number.get(), error)) return nullptr;
    }
    if (selection.url) {
        const auto url = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(path, /*isDirectory=*/false));
        if (!Set(record, "URL", url.get(), error)) return nullptr;
    }
    if (selection.displayName && !AddDisplayName(record, path, error)) return nullptr;
    if (selection.info && !AddInfo(record, path, keys, error)) return nullptr;
    return record.Detach();
}

TQDictionary *TQClientManagedStorageCopyGenerationInfos(const TQClientManagedStorage *store, const TQString *name,
                                                        const TQDictionary *spec, TQError **error)
{
    const char *const bytes = TQStringGetUTF8(name);
    if (!bytes || strlen(bytes) != TQStringGetUTF8Length(name)) // one with a zero inside would stand for another
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    FieldSelection fields;
    const TQArray *keys = nullptr;
    if (!GetFields(spec, &fields, &keys, error)) return nullptr;

    HeldLock lock;
    PathBuffer path;
    if (!lock.ForReading(store, error) || !GetPath(store->rootPath, bytes, path, error)) return nullptr;
    const uint64_t options = TQGetGenerationOptions(path.c_str());
    return _genInfosCreate(fields, keys, bytes, options, path.c_str(), error);
}

TQDictionary *TQClientManagedStorageCopyAllGenerationsInfos(const TQClientManagedStorage *store,
                                                            const TQDictionary *spec, TQError **error)
{
    Query query;
    if (!GetQuery(spec, &query, error)) return nullptr;

    HeldLock lock;
    if (!lock.ForReading(store, error)) return nullptr;
    const GenerationNames names(store->rootPath);
    if (!names) return Failure(error).AtDebug().Errno("unable to opendir(%s)", store->rootPath);

    const auto first = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    const auto second = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    while (const char *name = names.Next())
        if (!AddToGroup(query, store->rootPath, name, first.get(), second.get(), error)) return nullptr;

    auto result = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    if (!Allocated(static_cast<bool>(result), error)) return nullptr;
    if (TQArrayGetCount(first.get()) > 0 && !Set(result, kFirstGroup, first.get(), error)) return nullptr;
    if (TQArrayGetCount(second.get()) > 0 && !Set(result, kSecondGroup, second.get(), error)) return nullptr;
    return result.Detach();
}
