// vaultry destroy: removes a store with everything in it.

#include "commands.h"
#include "failure.h"
#include "location.h"
#include "owned.h"
#include "store.h"
#include "text.h"

#include <vaultry/storage.h>

#include <unistd.h>

static bool _Confirmed(const std::string &question)
{
    fprintf(stderr, "%s They can't be brought back. [y/N] ", question.c_str());
    char answer[16];
    if (!fgets(answer, sizeof answer, stdin)) {
        fputc('\n', stderr);
        return false;
    }
    const std::string_view text = answer;
    return text == "y\n" || text == "Y\n" || text == "yes\n";
}

int RunDestroy(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    switch (LookAtPlace(path)) {
    case PlaceKind::Missing:
        throw CommandFailure(kExitFailure, "there is no store at " + Quoted(path));
    case PlaceKind::Damaged:
        throw NoStore(path, PlaceKind::Damaged);
    case PlaceKind::Free:
    case PlaceKind::Other:
        throw CommandFailure(kExitFailure, Quoted(path) + " is no store; nothing was removed");
    case PlaceKind::Store:
        break;
    }

    const size_t count = PeekAtNames(path).size();
    const std::string what =
        "the store " + Quoted(path) + " with " + std::to_string(count) + (count == 1 ? " generation" : " generations");
    if (!arguments.yes) {
        if (!isatty(STDIN_FILENO))
            throw CommandFailure(kExitUsage, "not destroying " + what + ": nobody can be asked; give --yes");
        if (!_Confirmed("Destroy " + what + "?")) throw CommandFailure(kExitFailure, "nothing was removed");
    }

    Owned<TQError> error;
    if (!TQClientManagedStorageDestroy(path.c_str(), error.out()))
        throw CommandFailure::Library("can't remove all of " + what, error.get());
    printf("destroyed %s\n", what.c_str());
    return kExitSuccess;
}
