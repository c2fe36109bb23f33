// See carrying_over.h.

#include "carrying_over.h"

#include "space.h"
#include "text.h"
#include "waiting.h"

std::vector<std::string> NamesOf(const std::vector<Kept> &history, const std::string &document)
{
    std::vector<std::string> names;
    for (const Kept &kept : history)
        if (kept.info.document == document) names.push_back(kept.name);
    return names;
}

// Whether it has the path, or has gone.
static bool _IsDone(const Store &store, const std::string &name, const std::string &to)
{
    try {
        return store.PeekAtInfoOf(name).document == to;
    } catch (const CommandFailure &) {
        return store.Lacks(name);
    }
}

static CommandFailure _Refusal(const Store &store, const std::string &name, const TQError *error)
{
    const CommandFailure failure = CommandFailure::Library("can't note the new path on " + Quoted(name), error);
    const bool isOfAttributes = IsAttributeSpace(UnderlyingErrno(error), store.path());
    return failure.Saying(failure.what() + (isOfAttributes ? std::string("\n  ") + kAttributeSpaceIsFull : ""));
}

// One call for all, as far as the first that is refused; then one for those after it.
size_t CarryOver(const Store &store, std::vector<std::string> names, const std::string &to, Problems &problems)
{
    size_t carried = 0;
    const Owned<TQDictionary> notes(TQDictionaryCreateMutable());
    (void)TQDictionarySetValue(notes.get(), MakeString(kDocumentKey).get(),
                               Owned<TQData>(TQDataCreate(to.data(), to.size())).get());
    while (!names.empty() && !WaitWatch::GaveUp()) {
        const Owned<TQArray> array(TQArrayCreateMutable());
        for (const std::string &name : names) (void)TQArrayAppendValue(array.get(), MakeString(name).get());
        Owned<TQError> error;
        const bool areAllSet =
            TQClientManagedStorageSetGenerationsInfoValues(store.handle(), array.get(), notes.get(), error.out());
        const size_t before = names.size();
        if (areAllSet) return carried + before;
        std::erase_if(names, [&](const std::string &name) { return _IsDone(store, name, to); });
        carried += before - names.size();
        problems.Note([&] { throw _Refusal(store, names.empty() ? to : names.front(), error.get()); });
        if (!names.empty()) names.erase(names.begin());
    }
    return carried;
}
