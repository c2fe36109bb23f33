// vaultry destroy: removes a store with everything in it.

#include "asking.h"
#include "commands.h"
#include "entries.h"
#include "failure.h"
#include "json.h"
#include "location.h"
#include "owned.h"
#include "store.h"
#include "text.h"

#include <vaultry/storage.h>

#include <set>
#include <unistd.h>

// If an interrupted move left an item in staging, it is not an earlier version: it is the document. Any item there that
// a check can't read may be a document too. If a restore left the document beside its path, only the store has a note.
static void _RequireNoDocument(const std::string &path)
{
    static const std::set<std::string> harmless = {"staging-litter", "staging-recent", "staging-missing",
                                                   "staging-mode"},
                                       documents = {"document-in-staging", "document-lifted"};
    Owned<TQError> error;
    const Owned<TQArray> findings(TQClientManagedStorageCopyFindings(path.c_str(), /*repair=*/false, error.out()));
    if (!findings) throw CommandFailure::Library("not destroying " + Quoted(path) + " unseen", error.get()).At(path);
    for (size_t i = 0; i < TQArrayGetCount(findings.get()); ++i) {
        const auto *finding = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(findings.get(), i));
        const std::string item(BytesOf(finding, "path")), kind = TextOf(finding, "kind");
        const std::string note(BytesOf(finding, "note")); // in this store; else what lies there is another's matter
        const bool isDocument = documents.contains(kind) || (kind == "document-aside" && !note.empty());
        if (!isDocument && (!IsInStaging(path, item) || harmless.contains(kind))) continue;
        throw CommandFailure(
            kExitFailure, "not destroying the store " + Quoted(path) + ": " + Quoted(item) + ": " +
                              TextOf(finding, "meaning") +
                              (!isDocument    ? "\n  look at it first, and remove it yourself if it may go"
                               : note.empty() ? "\n  \"vaultry check --repair\" gives it back where it can"
                                              : "\n  \"vaultry check --repair\" gives it back where it can; else move "
                                                "it away yourself, and remove its note " +
                                                    Quoted(note)))
            .At(item);
    }
}

// What would be removed.
struct Doomed {
    size_t count; // of generations
    std::string words;
};

// Throws if it must not be removed.
static Doomed _LookAt(const std::string &path)
{
    switch (LookAtPlace(path)) {
    case PlaceKind::Missing:
        throw CommandFailure(kExitNoSuchGeneration, "there is no store at " + Quoted(path)).At(path);
    case PlaceKind::Other:
        throw CommandFailure(kExitFailure, Quoted(path) + " is no store; nothing was removed").At(path);
    case PlaceKind::Damaged: // also the rest of a store whose destruction was cut short
        if (!HasLockFile(path)) throw NoStore(path, PlaceKind::Damaged);
        break;
    case PlaceKind::Free:
    case PlaceKind::Store:
        break;
    }
    if (IsEmpty(path)) return {0, "the empty directory " + Quoted(path)};
    _RequireNoDocument(path);
    const size_t count = PeekAtNames(path).size();
    return {count, "the store " + Quoted(path) + " with " + std::to_string(count) +
                       (count == 1 ? " generation" : " generations")};
}

int RunDestroy(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const auto [count, what] = _LookAt(path);
    if (!arguments.yes) {
        if (arguments.json || !isatty(STDIN_FILENO))
            throw CommandFailure(kExitUsage, "not destroying " + what + ": nobody can be asked; give --yes").At(path);
        if (!Confirmed("Destroy " + what + "? They can't be brought back."))
            throw CommandFailure(kExitFailure, "nothing was removed").At(path);
        // The user takes time to answer, and the answer holds only for the store as it was then.
        if (const Doomed now = _LookAt(path); now.words != what)
            throw CommandFailure(kExitFailure, "nothing was removed: by now it is " + now.words).At(path);
    }

    Owned<TQError> error;
    if (!TQClientManagedStorageDestroy(path.c_str(), error.out()))
        throw CommandFailure::Library("can't remove all of " + what, error.get()).At(path);
    if (arguments.json) {
        Json object;
        PutBytes(object, "store", path);
        object["generations"] = count;
        PrintLine(object);
    } else {
        printf("destroyed %s\n", what.c_str());
    }
    return kExitSuccess;
}
