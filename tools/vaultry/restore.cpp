// vaultry restore: brings a document back in place, and keeps what it was.
//
// It asks before it does what is easily a slip: replacing a document with what was never a version of it, or giving up
// its present state.

#include "asking.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "inner_item.h"
#include "restoring.h"
#include "text.h"

#include <sys/stat.h>
#include <unistd.h>

static GenerationItem _Item(const Store &store, const Arguments &arguments)
{
    if (!arguments.name.empty()) return ChosenItem(store, arguments);
    if (const auto known = RefusalOfDocument(store, arguments.document)) throw known->ExitingWith(kExitUsage);
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

static const char *_KindOf(const struct stat &status)
{
    return S_ISDIR(status.st_mode)   ? "a folder"
           : S_ISLNK(status.st_mode) ? "a link"
           : S_ISREG(status.st_mode) ? "a file"
                                     : "neither a file nor a folder";
}

// The present item, none if it is missing. Only a folder has items.
static std::optional<struct stat> _PresentItem(const GenerationItem &item, const std::string &document)
{
    if (!IsDocumentThere(document))
        throw CommandFailure(kExitFailure, Quoted(document) + " is not there; \"vaultry copy\" brings " +
                                               Quoted(item.asTyped()) + " out elsewhere");
    return LookForItem(document, document, *item.inner);
}

static void _RequireSameKind(const Store &store, const GenerationItem &item, const std::string &document,
                             const std::optional<struct stat> &present)
{
    struct stat kept {};
    if (!present || !IsThere(item.PathIn(store), &kept) || ((kept.st_mode ^ present->st_mode) & S_IFMT) == 0) return;
    throw CommandFailure(kExitFailure, Quoted(item.In(document)) + " is " + _KindOf(*present) + ", and " +
                                           Quoted(item.asTyped()) + " " + _KindOf(kept) +
                                           ": --replace brings it back here all the same");
}

static void _RequireVersionOf(const Store &store, const std::string &name, const std::string &document)
{
    const std::string way = ": --replace brings it back here all the same";
    const bool isFolder = _IsFolder(document);
    if (_IsFolder(store.PathOf(name)) != isFolder)
        throw CommandFailure(kExitFailure, Quoted(document) + (isFolder ? " is a folder" : " is a file") + ", and " +
                                               Quoted(name) + (isFolder ? " a file" : " a folder") + way)
            .At(document);
    const auto own = _DocumentOf(store, name);
    if (own && *own != document)
        throw CommandFailure(kExitFailure, Quoted(name) + " is a version of " + Quoted(*own) + ", and not of " +
                                               Quoted(document) + way)
            .At(document);
}

// The answer holds only for the document as it was then.
static void _Ask(const std::string &document)
{
    const Fingerprint before = FingerprintOf(document);
    if (!Confirmed("Give up what " + Quoted(document) + " is now?"))
        throw CommandFailure(kExitFailure, Quoted(document) + " is as it was").At(document);
    if (FingerprintOf(document) != before)
        throw CommandFailure(kExitFailure, Quoted(document) + " was changed meanwhile, and stays as it is")
            .At(document);
}

int RunRestore(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string document = DocumentPath(arguments.document);
    const GenerationItem item = _Item(store, arguments);
    if (!arguments.choice.isMade()) TellOfLink(arguments.document, document); // otherwise it is told already
    const auto present = item.isInner() ? _PresentItem(item, document) : std::nullopt;
    if (IsDocumentThere(document)) {
        if (!arguments.replace) _RequireVersionOf(store, item.name, document);
        if (!arguments.replace) _RequireSameKind(store, item, document, present);
        if (arguments.noBackup && (present || !item.isInner()) && !arguments.json && isatty(STDIN_FILENO))
            _Ask(item.In(document));
    }
    return BringBack(store, item, document, arguments);
}
