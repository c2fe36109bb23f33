// vaultry pin, vaultry unpin: whether a generation may go without being asked for.
//
// A pin is a value of the info dictionary, so it belongs to the generation, whatever that is called, and other clients
// can read and set it.

#include "commands.h"
#include "failure.h"
#include "generation.h"
#include "info_value.h"
#include "json.h"
#include "text.h"

#include <vaultry/number.h>

#include <cstdio>

// False if it was so already.
static bool _SetPin(const Store &store, const std::string &name, bool isPinned)
{
    if (store.InfoOf(name).isPinned == isPinned) return false;
    if (isPinned)
        SetInfoValue(store, name, kPinnedKey, TQBooleanGet(true));
    else
        RemoveInfoValue(store, name, kPinnedKey);
    return true;
}

int RunPin(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const bool isPinned = arguments.command == Command::Pin;
    Problems problems;
    Chooser chooser(store, arguments.choice);
    for (const std::string &given : arguments.names) {
        problems.Note([&] {
            const std::string name = chooser.ChosenFor(given);
            const bool isNew = _SetPin(store, name, isPinned);
            if (arguments.json) {
                Json object;
                PutBytes(object, "generation", name);
                object["pinned"] = isPinned;
                return PrintLine(object);
            }
            const char *words = isPinned ? (isNew ? "is pinned" : "is pinned already")
                                         : (isNew ? "is pinned no longer" : "is not pinned");
            printf("%s %s\n", Quoted(name).c_str(), words);
        });
    }
    problems.SayAll();
    return problems.exitCode();
}
