// See removal.h.

#include "removal.h"

#include "generation.h"
#include "text.h"
#include "waiting.h"

// Nobody knows what a damaged note said, so the user decides.
static void _RefusePinned(const Store &store, const std::string &name)
{
    bool isPinned = false;
    try {
        isPinned = store.PeekAtInfoOf(name).isPinned;
    } catch (const CommandFailure &failure) {
        throw failure.Saying("can't tell whether " + Quoted(name) +
                             " is pinned, so it stays: \"remove --pinned\" takes it\n  " + failure.what());
    }
    if (isPinned)
        throw CommandFailure(kExitFailure, Quoted(name) + " is pinned, and stays: \"remove --pinned\" takes it too")
            .At(store.path() + "/" + name);
}

std::vector<std::string> RemoveAll(const Store &store, const std::vector<std::string> &names, bool pinnedToo,
                                   Problems &problems)
{
    if (names.empty()) return {};
    std::set<std::string> failed;
    try {
        store.Remove(names, pinnedToo);
    } catch (const CommandFailure &failure) {
        // One by one, the user hears which can't be removed. Those that went are passed over.
        for (const std::string &name : names) {
            if (WaitWatch::GaveUp()) break;
            problems.Note([&] {
                failed.insert(name);
                store.Remove({name}, pinnedToo);
                failed.erase(name);
            });
        }
        if (WaitWatch::GaveUp()) {
            problems.Note([&] { throw failure; });
            failed.insert(names.begin(), names.end());
        }
    }
    std::vector<std::string> gone;
    problems.Note([&] {
        const std::set<std::string> left = PeekAtNames(store.path());
        for (const std::string &name : names) {
            if (!left.contains(name))
                gone.push_back(name);
            else
                problems.Note([&] {
                    RefuseLink(store, name, ": it stays"); // which the library takes for nothing if it dangles
                    if (pinnedToo || failed.contains(name)) return;
                    _RefusePinned(store, name);
                    throw CommandFailure(kExitFailure, Quoted(name) + " stays: a moment ago it was pinned or unpinned");
                });
        }
    });
    return gone;
}
