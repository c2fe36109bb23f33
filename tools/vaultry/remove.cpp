// vaultry remove: takes generations out of the store.
//
// It takes only whole names, and looks at all of them before it removes the first. Once some generations are gone, a
// beginning that named several may name a single one, and perhaps the wrong one.

#include "commands.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "removal.h"
#include "store.h"
#include "text.h"

#include <algorithm>
#include <cstdio>

static void _Require(const Store &store, const std::set<std::string> &present, const std::string &name)
{
    if (present.contains(name)) return;
    const auto next = name.empty() ? present.end() : present.lower_bound(name);
    const bool isBeginning = next != present.end() && next->rfind(name, 0) == 0;
    if (!isBeginning) throw NoSuchGeneration(store, present, name);
    if (const auto document = RefusalOfDocument(store, name)) throw *document;
    throw CommandFailure(kExitNoSuchGeneration, "there is no generation " + Quoted(name) +
                                                    ", and what is removed has to be named whole, as " + Quoted(*next))
        .At(store.path());
}

int RunRemove(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const bool isChosen = arguments.choice.isMade();
    // The library passes over a name without a generation, but a user who mistyped a name has to know.
    const std::set<std::string> present = store.Names();
    std::vector<std::string> names;
    Problems problems;
    Chooser chooser(store, arguments.choice);
    for (const std::string &given : arguments.names) {
        problems.Note([&] {
            const std::string name = isChosen ? chooser.ChosenFor(given) : given;
            _Require(store, present, name);
            if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
        });
    }
    const std::vector<std::string> gone = RemoveAll(store, names, arguments.pinnedToo, problems);
    for (const std::string &name : gone) {
        Json object;
        PutBytes(object, "generation", name);
        if (arguments.json)
            PrintLine(object);
        else if (isChosen)
            printf("%s is removed\n", Quoted(name).c_str());
    }
    problems.SayAll();
    return problems.exitCode();
}
