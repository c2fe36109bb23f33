// Queries with specs from anybody, on a small store: an answer or an error, every record of a generation that is there,
// and the same record whether one is asked for or all.

#include "fuzz/Fuzz.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

namespace {

struct Queried : TestStore {
    Queried() : TestStore(Document::File, QuickVolume())
    {
        for (const auto &[name, options] : {std::pair{"one", 0U}, {"two", 2U}, {"six", 6U}})
            Require(Add(name, nullptr, true, options), name);
        const auto key = String("key");
        (void)TQClientManagedStorageSetGenerationInfoValueForKey(handle(), "six", key.get(), key.get(), nullptr);
        (void)TQClientManagedStorageSetGenerationOriginalDisplayName(handle(), "two", key.get(), nullptr);
    }
    // All records, or with a name that one.
    Ref<TQDictionary> Query(const TQDictionary *spec, const TQString *name = nullptr) const
    {
        OwnedError error;
        auto answer =
            Ref<TQDictionary>::Adopt(name ? TQClientManagedStorageCopyGenerationInfos(handle(), name, spec, error.out())
                                          : TQClientManagedStorageCopyAllGenerationsInfos(handle(), spec, error.out()));
        Require(answer || error.get(), "neither an answer nor an error");
        return answer;
    }
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const Queried store;
    const auto data = Ref<TQData>::Adopt(TQDataCreate(bytes, size));
    const auto value = Ref<TQValue>::Adopt(TQPropertyListCreateWithData(data.get(), false, nullptr));
    if (TQGetTypeID(value.get()) != TQDictionaryGetTypeID()) return 0;
    const auto *spec = static_cast<const TQDictionary *>(value.get());
    const auto nameIn = [key = String("name")](const TQValue *in) {
        const TQValue *name = TQDictionaryGetValue(static_cast<const TQDictionary *>(in), key.get());
        return TQGetTypeID(name) == TQStringGetTypeID() ? static_cast<const TQString *>(name) : nullptr;
    };
    const auto all = store.Query(spec);
    for (const char *group : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        const auto *records = static_cast<const TQArray *>(TQDictionaryGetValue(all.get(), String(group).get()));
        for (size_t i = 0; i < TQArrayGetCount(records); ++i) {
            const TQValue *record = TQArrayGetValueAtIndex(records, i);
            Require(disk::Exists(store.Generation(Text(nameIn(record)))), "a record of nothing");
            Require(TQEqual(record, store.Query(spec, nameIn(record)).get()), "two answers to one question");
        }
    }
    if (nameIn(spec)) (void)store.Query(spec, nameIn(spec)); // which need not be one of a generation
    return 0;
}
