// Queries with specs from anybody, on a small store: an answer or an error, every record of a generation that is there,
// and the same record whether one is asked for or all.

#include "fuzz/Fuzz.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

namespace {

using Dictionary = Ref<TQDictionary>;

const TestStore &Store()
{
    static const TestStore &made = *[] {
        static TestStore store(TestStore::Document::File, QuickVolume());
        for (const auto &[name, options] : {std::pair{"one", 0U}, {"two", 2U}, {"six", 6U}})
            Require(store.Add(name, nullptr, true, options), name);
        const auto key = String("key");
        (void)TQClientManagedStorageSetGenerationInfoValueForKey(store.handle(), "six", key.get(), key.get(), nullptr);
        (void)TQClientManagedStorageSetGenerationOriginalDisplayName(store.handle(), "two", key.get(), nullptr);
        return &store;
    }();
    return made;
}

Dictionary QueryOne(const TQString *name, const TQDictionary *spec)
{
    OwnedError error;
    auto record =
        Dictionary::Adopt(TQClientManagedStorageCopyGenerationInfos(Store().handle(), name, spec, error.out()));
    Require(record || error.get(), "neither a record nor an error");
    return record;
}

void CheckRecord(const TQDictionary *record, const TQDictionary *spec)
{
    const auto key = String("name");
    const auto *name = static_cast<const TQString *>(TQDictionaryGetValue(record, key.get()));
    const auto names = Store().List();
    Require(std::find(names.begin(), names.end(), Text(name)) != names.end(), "a record of nothing");
    Require(TQEqual(record, QueryOne(name, spec).get()), "two answers to one question");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const auto data = Ref<TQData>::Adopt(TQDataCreate(bytes, size));
    const auto value = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(data.get(), false, nullptr));
    if (TQGetTypeID(value.get()) != TQDictionaryGetTypeID()) return 0;
    const auto *spec = static_cast<const TQDictionary *>(value.get());

    OwnedError error;
    const auto all =
        Dictionary::Adopt(TQClientManagedStorageCopyAllGenerationsInfos(Store().handle(), spec, error.out()));
    Require(all || error.get(), "neither an answer nor an error");
    for (const char *group : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        const auto *records = static_cast<const TQArray *>(TQDictionaryGetValue(all.get(), String(group).get()));
        for (size_t i = 0; i < TQArrayGetCount(records); ++i)
            CheckRecord(static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(records, i)), spec);
    }
    // A name from anywhere in the spec, which need not be one of a generation.
    const TQValue *name = TQDictionaryGetValue(spec, String("name").get());
    if (TQGetTypeID(name) == TQStringGetTypeID()) (void)QueryOne(static_cast<const TQString *>(name), spec);
    return 0;
}
