// See removal.h.

#include "removal.h"

#include "text.h"

// The library takes a dangling link for nothing. Only another program can have put one there.
static void _RefuseLink(const Store &store, const std::string &name)
{
    struct stat status {};
    if (IsThere(store.path() + "/" + name, &status) && S_ISLNK(status.st_mode))
        throw CommandFailure(kExitFailure, Quoted(name) + " is a link, and no generation: it stays");
}

std::vector<std::string> RemoveAll(const Store &store, const std::vector<std::string> &names, Problems &problems)
{
    if (names.empty()) return {};
    try {
        store.Remove(names);
    } catch (const CommandFailure &) {
        // One by one, the user hears which can't be removed. Those that went are passed over.
        for (const std::string &name : names) problems.Note([&] { store.Remove({name}); });
    }
    std::vector<std::string> gone;
    problems.Note([&] {
        const std::set<std::string> left = PeekAtNames(store.path());
        for (const std::string &name : names) {
            if (left.contains(name))
                problems.Note([&] { _RefuseLink(store, name); });
            else
                gone.push_back(name);
        }
    });
    return gone;
}
