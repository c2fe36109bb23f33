// vaultry remove: takes generations out of the store.
//
// Only by their whole names, all looked at before the first goes: a beginning that named several generations a moment
// ago may name one, and another one, when some are gone.

#include "commands.h"
#include "failure.h"
#include "store.h"
#include "text.h"

static void _Require(const std::set<std::string> &present, const std::string &name)
{
    if (present.count(name) != 0) return;
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
    const std::set<std::string> present = store.Names();
    for (const std::string &name : arguments.names) {
        try {
            // The library passes over a name without a generation; somebody who mistyped one has to know.
            _Require(present, name);
            // One name a call: when one can't be removed, the others still are, and the user hears which it was.
            store.Remove(name);
        } catch (const CommandFailure &failure) {
            Say(failure.what());
            if (exitCode == kExitSuccess) exitCode = failure.exitCode();
        }
    }
    return exitCode;
}
