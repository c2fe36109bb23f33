// vaultry remove: takes generations out of the store.

#include "commands.h"
#include "failure.h"
#include "generation.h"

int RunRemove(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    int exitCode = kExitSuccess;
    std::set<std::string> present = store.Names();
    for (const std::string &given : arguments.names) {
        try {
            // The library passes over a name without a generation; somebody who mistyped one has to know.
            const std::string name = ResolveAmong(present, store, given);
            // One name a call: when one can't be removed, the others still are, and the user hears which it was.
            store.Remove(name);
            present.erase(name);
        } catch (const CommandFailure &failure) {
            Say(failure.what());
            if (exitCode == kExitSuccess) exitCode = failure.exitCode();
        }
    }
    return exitCode;
}
