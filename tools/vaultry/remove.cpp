// vaultry remove: takes generations out of the store.
//
// It takes only whole names, and looks at all of them before it removes the first. Once some generations are gone, a
// beginning that named several may name a single one, and perhaps the wrong one.

#include "commands.h"
#include "failure.h"
#include "store.h"
#include "text.h"

static void _Require(const std::set<std::string> &present, const std::string &name)
{
    if (present.contains(name)) return;
    const auto next = name.empty() ? present.end() : present.lower_bound(name);
    const bool isBeginning = next != present.end() && next->rfind(name, 0) == 0;
    throw CommandFailure(kExitNoSuchGeneration,
                         "there is no generation " + Quoted(name) +
                             (isBeginning ? ", and what is removed has to be named whole, as " + Quoted(*next) : ""));
}

int RunRemove(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    int exitCode = kExitSuccess;
    const auto attempt = [&exitCode](const auto &step) {
        try {
            step();
        } catch (const CommandFailure &failure) {
            Say(failure.what());
            if (exitCode == kExitSuccess) exitCode = failure.exitCode();
        }
    };

    // The library passes over a name without a generation, but a user who mistyped a name has to know.
    const std::set<std::string> present = store.Names();
    std::vector<std::string> names;
    for (const std::string &name : arguments.names) {
        attempt([&] {
            _Require(present, name);
            names.push_back(name);
        });
    }
    try {
        store.Remove(names);
    } catch (const CommandFailure &) {
        // Try one by one: the others still go, and the user hears which can't be removed. Those that went are passed
        // over.
        for (const std::string &name : names) attempt([&] { store.Remove({name}); });
    }
    // The library takes a dangling link for nothing. Only another program can have put one there.
    attempt([&] {
        const std::set<std::string> left = names.empty() ? std::set<std::string>() : PeekAtNames(store.path());
        for (const std::string &name : names) {
            struct stat status {};
            if (left.contains(name) && IsThere(store.path() + "/" + name, &status) && S_ISLNK(status.st_mode))
                throw CommandFailure(kExitFailure, Quoted(name) + " is a link, and no generation: it stays");
        }
    });
    return exitCode;
}
