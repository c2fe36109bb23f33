// vaultry restore: brings a document back in place, and keeps what it was.
//
// It asks before it does what is easily a slip: replacing a document with what was never a version of it, or giving up
// its present state.

#include "asking.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "restoring.h"
#include "text.h"

#include <sys/stat.h>
#include <unistd.h>

static std::string _Generation(const Store &store, const Arguments &arguments)
{
    if (!arguments.name.empty()) return ChosenGeneration(store, arguments.choice, arguments.name);
    if (const auto known = RefusalOfDocument(store, arguments.document))
        throw CommandFailure(kExitUsage, known->what());
    throw CommandFailure(kExitUsage, "restore wants a NAME and a DOCUMENT, or --latest, --at or --before");
}

// What nobody noted can't be told to be another document's.
static std::optional<std::string> _DocumentOf(const Store &store, const std::string &name)
{
    try {
        return store.PeekAtInfoOf(name).document;
    } catch (const CommandFailure &) {
        return std::nullopt;
    }
}

static bool _IsFolder(const std::string &path)
{
    struct stat status {};
    return IsThere(path, &status) && S_ISDIR(status.st_mode);
}

static void _RequireVersionOf(const Store &store, const std::string &name, const std::string &document)
{
    const std::string way = ": --replace brings it back here all the same";
    const bool isFolder = _IsFolder(document);
    if (_IsFolder(store.PathOf(name)) != isFolder)
        throw CommandFailure(kExitFailure, Quoted(document) + (isFolder ? " is a folder" : " is a file") + ", and " +
                                               Quoted(name) + (isFolder ? " a file" : " a folder") + way);
    const auto own = _DocumentOf(store, name);
    if (own && *own != document)
        throw CommandFailure(kExitFailure, Quoted(name) + " is a version of " + Quoted(*own) + ", and not of " +
                                               Quoted(document) + way);
}

// The answer holds only for the document as it was then.
static void _Ask(const std::string &document)
{
    const Fingerprint before = FingerprintOf(document);
    if (!Confirmed("Give up what " + Quoted(document) + " is now?"))
        throw CommandFailure(kExitFailure, Quoted(document) + " is as it was");
    if (FingerprintOf(document) != before)
        throw CommandFailure(kExitFailure, Quoted(document) + " was changed meanwhile, and stays as it is");
}

int RunRestore(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string document = DocumentPath(arguments.document);
    const std::string name = _Generation(store, arguments);
    if (!arguments.choice.isMade()) TellOfLink(arguments.document, document); // otherwise it is told already
    if (IsDocumentThere(document)) {
        if (!arguments.replace) _RequireVersionOf(store, name, document);
        if (arguments.noBackup && isatty(STDIN_FILENO)) _Ask(document);
    }
    return BringBack(store, name, document, arguments);
}
