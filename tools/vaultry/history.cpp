// See history.h.

#include "history.h"

#include "failure.h"
#include "owned.h"

#include <vaultry/number.h>

static void _Put(const Owned<TQDictionary> &dictionary, const char *key, TQValue *value)
{
    (void)TQDictionarySetValue(dictionary.get(), MakeString(key).get(), value);
}

bool ForEachRecord(const Store &store, Fields fields, const std::function<void(const TQDictionary *record)> &visit)
{
    const Owned<TQDictionary> spec(TQDictionaryCreateMutable()), notes(TQDictionaryCreateMutable());
    _Put(spec, "withOptions", Owned<TQNumber>(TQNumberCreateInt64(0)).get());
    _Put(notes, "ODN", TQBooleanGet(true));
    if (fields == Fields::Notes) _Put(spec, "fields", notes.get());
    const Owned<TQDictionary> groups(
        TQClientManagedStorageCopyAllGenerationsInfos(store.handle(), spec.get(), nullptr));
    if (!groups) return false;
    for (const char *client : {"com.corvane.draftline", "com.corvane.nimbusync"}) {
        const auto *records =
            static_cast<const TQArray *>(TQDictionaryGetValue(groups.get(), MakeString(client).get()));
        for (size_t i = 0; i < TQArrayGetCount(records); ++i)
            visit(static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(records, i)));
    }
    return true;
}

static const TQValue *_ValueFor(const TQDictionary *record, const char *key)
{
    return TQDictionaryGetValue(record, MakeString(key).get());
}

std::vector<Kept> ReadHistory(const Store &store, Problems &problems)
{
    std::vector<Kept> all;
    const bool areRead = ForEachRecord(store, Fields::Notes, [&](const TQDictionary *record) {
        all.push_back({ToText(static_cast<const TQString *>(_ValueFor(record, "name"))),
                       ToGenerationInfo(static_cast<const TQDictionary *>(_ValueFor(record, "info")))});
    });
    std::set<std::string> missing = PeekAtNames(store.path());
    for (const Kept &kept : all) missing.erase(kept.name);
    if (areRead && missing.empty()) return all;

    // One that is damaged must not keep the others from being found, and one that went meanwhile is not missed.
    all.clear();
    for (const std::string &name : store.Names()) {
        problems.Note([&] {
            try {
                all.push_back({name, store.InfoOf(name)});
            } catch (const CommandFailure &) {
                if (!store.Lacks(name)) throw;
            }
        });
    }
    return all;
}
