// See history.h.

#include "history.h"

#include "failure.h"
#include "owned.h"
#include "text.h"

#include <vaultry/metadata.h>
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

// Each note is written and read by one call of the kernel, so this needs no lock.
static GenerationInfo _InfoWithoutLock(const Store &store, const std::string &name)
{
    Owned<TQError> error;
    const Owned<TQDictionary> info(TQCopyMutableInfoDictionary((store.path() + "/" + name).c_str(), error.out()));
    if (info) return ToGenerationInfo(info.get());
    throw CommandFailure::Library("can't read what is known of the generation " + Quoted(name), error.get());
}

std::vector<Kept> ReadHistory(const Store &store, Problems &problems)
{
    std::vector<Kept> all;
    for (const std::string &name : store.Names()) {
        problems.Note([&] {
            try {
                all.push_back({name, _InfoWithoutLock(store, name)});
            } catch (const CommandFailure &) {
                if (!store.Lacks(name)) throw; // one that went meanwhile is not missed
            }
        });
    }
    return all;
}
