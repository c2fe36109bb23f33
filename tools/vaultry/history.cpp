// See history.h.

#include "history.h"

#include "failure.h"
#include "owned.h"
#include "text.h"

#include <vaultry/number.h>

bool ForEachRecord(const Store &store, const std::function<void(const TQDictionary *record)> &visit)
{
    const Owned<TQDictionary> spec(TQDictionaryCreateMutable());
    TQDictionarySetValue(spec.get(), MakeString("withOptions").get(), Owned<TQNumber>(TQNumberCreateInt64(0)).get());
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

std::vector<Kept> ReadHistory(const Store &store, Problems &problems)
{
    std::vector<Kept> all;
    const std::set<std::string> names = store.Names(), links = PeekAtLinks(store.path());
    for (const std::string &name : names) {
        problems.Note([&] {
            if (links.contains(name))
                throw CommandFailure(kExitFailure, Quoted(name) + " is a link, and no generation")
                    .At(store.path() + "/" + name);
            try {
                all.push_back({name, store.PeekAtInfoOf(name)});
            } catch (const CommandFailure &) {
                if (!store.Lacks(name)) throw; // one that went meanwhile is not missed
            }
        });
    }
    return all;
}
