// vaultry undo: brings back what the last restore of a document put aside.
//
// What the document is now is put aside in turn, so that undoing once more brings that back.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "restoring.h"
#include "text.h"

int RunUndo(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string document = DocumentPath(arguments.document);
    TellOfLink(arguments.document, document);
    const auto backup = NewestBackupOf(store, document);
    if (!backup)
        throw CommandFailure(kExitNoSuchGeneration, "the store " + Quoted(store.path()) + " holds nothing that a " +
                                                        "restore of " + Quoted(document) + " put aside")
            .At(document);
    return BringBack(store, {*backup, {}}, document, arguments);
}
