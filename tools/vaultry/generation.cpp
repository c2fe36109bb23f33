// See generation.h.

#include "generation.h"

#include "failure.h"
#include "text.h"

#include <vaultry/number.h>

static constexpr size_t kShownCandidates = 5;

std::string ResolveGeneration(const Store &store, const std::string &given)
{
    const std::set<std::string> names = store.Names();
    if (names.contains(given)) return given;
    std::vector<std::string> candidates;
    if (!given.empty())
        for (auto name = names.lower_bound(given); name != names.end() && name->rfind(given, 0) == 0; ++name)
            candidates.push_back(*name);
    if (candidates.size() == 1) return candidates.front();
    if (candidates.empty())
        throw CommandFailure(kExitNoSuchGeneration,
                             "there is no generation " + Quoted(given) + " in the store " + Quoted(store.path()));

    std::string message = Quoted(given) + " is the beginning of " + std::to_string(candidates.size()) + " generations:";
    for (size_t i = 0; i < candidates.size() && i < kShownCandidates; ++i) message += "\n  " + Printable(candidates[i]);
    if (candidates.size() > kShownCandidates) message += "\n  ...";
    throw CommandFailure(kExitFailure, message);
}

std::string NewestGenerationOf(const Store &store, const std::string &document, std::optional<double> time)
{
    std::string newest;
    double newestTime = 0;
    for (const std::string &name : store.Names()) {
        GenerationInfo info;
        try {
            info = store.InfoOf(name);
        } catch (const CommandFailure &failure) {
            // A damaged generation must not keep the others from being found, and one that went meanwhile is not
            // missed.
            if (!store.Lacks(name)) Say(failure.what());
            continue;
        }
        if (info.document != document || !info.time || (time && *info.time > *time)) continue;
        if (!newest.empty() && *info.time < newestTime) continue;
        newest = name;
        newestTime = *info.time;
    }
    if (!newest.empty()) return newest;
    throw CommandFailure(kExitNoSuchGeneration, "the store " + Quoted(store.path()) + " holds no generation of " +
                                                    Quoted(document) + (time ? " from that time or before" : ""));
}

// The newest so far of those that are of the document.
struct Newest {
    std::optional<std::string> name = {};
    double time = 0;

    void Consider(const std::string &document, const std::string &candidate, const GenerationInfo &info)
    {
        if (info.document != document || !info.time || (name && *info.time < time)) return;
        name = candidate;
        time = *info.time;
    }
};

std::optional<std::string> BaseFor(const Store &store, const std::string &document)
{
    Newest newest;
    const bool areRead = ForEachRecord(store, [&](const TQDictionary *record) {
        const auto lookup = [record](const char *key) { return TQDictionaryGetValue(record, MakeString(key).get()); };
        newest.Consider(document, ToText(static_cast<const TQString *>(lookup("name"))),
                        ToGenerationInfo(static_cast<const TQDictionary *>(lookup("info"))));
    });
    if (areRead) return newest.name;
    // One that is damaged must not keep the others from being found.
    newest = {};
    const auto consider = [&](const std::string &name) {
        try {
            newest.Consider(document, name, store.InfoOf(name));
        } catch (const CommandFailure &) {
            return; // the check names it
        }
    };
    try {
        for (const std::string &name : PeekAtNames(store.path())) consider(name);
    } catch (const CommandFailure &) {
        return std::nullopt; // adding says what is wrong with the store
    }
    return newest.name;
}

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
