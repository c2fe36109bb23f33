// vaultry remove: takes generations out of the store.

#include "commands.h"
#include "failure.h"
#include "store.h"
#include "text.h"

int RunRemove(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const std::optional<Store> store = Store::OpenExisting(path);
    if (!store) throw CommandFailure(kExitNoSuchGeneration, "there is no store at " + Quoted(path));

    int exitCode = kExitSuccess;
    std::set<std::string> present = store->Names();
    for (const std::string &name : arguments.names) {
        try {
            // The library passes over a name without a generation; somebody who mistyped one has to know.
            if (present.erase(name) == 0)
                throw CommandFailure(kExitNoSuchGeneration,
                                     "there is no generation " + Quoted(name) + " in the store " + Quoted(path));
            // One name a call: when one can't be removed, the others still are, and the user hears which it was.
            store->Remove(name);
        } catch (const CommandFailure &failure) {
            Say(failure.what());
            if (exitCode == kExitSuccess) exitCode = failure.exitCode();
        }
    }
    return exitCode;
}
