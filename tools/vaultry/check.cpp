// vaultry check: whether a store is as it should be, and what to do where it is not.

#include "commands.h"
#include "entries.h"
#include "failure.h"
#include "json.h"
#include "location.h"
#include "rot.h"
#include "text.h"

#include <vaultry/number.h>
#include <vaultry/storage.h>

static void _Print(const TQDictionary *finding, bool json)
{
    const std::string_view path = BytesOf(finding, "path"), home = BytesOf(finding, "home"),
                           note = BytesOf(finding, "note"), host = BytesOf(finding, "host");
    const bool mended = TQNumberGetTruth(EntryOf(finding, "mended"));
    if (!json) {
        const std::string belongs = home.empty() ? "" : " It belongs at " + Printable(home) + ".",
                          machine = host.empty() ? "" : " The machine " + Printable(host) + " left it.";
        printf("%s: %s%s%s%s\n", Printable(path).c_str(), TextOf(finding, "meaning").c_str(), belongs.c_str(),
               machine.c_str(), mended ? " (mended)" : "");
        return;
    }
    Json object;
    PutBytes(object, "path", path);
    if (!home.empty()) PutBytes(object, "home", home);
    if (!note.empty()) PutBytes(object, "note", note);
    if (!host.empty()) PutBytes(object, "host", host);
    object["kind"] = TextOf(finding, "kind");
    object["meaning"] = TextOf(finding, "meaning");
    object["mended"] = mended;
    PrintLine(object);
}

static void _PrintRot(const Rot &rot, bool json)
{
    if (!json) {
        printf("%s: %s\n", Printable(rot.path).c_str(), rot.meaning.c_str());
    } else {
        Json object;
        PutBytes(object, "path", rot.path);
        PutBytes(object, "generation", rot.generation);
        object["kind"] = rot.kind;
        object["meaning"] = rot.meaning;
        object["mended"] = false;
        PrintLine(object);
    }
    fflush(stdout); // the next may be hours away
}

// How much of a store is sealed. One in which nothing is has no line unless it was to be read.
static void _PrintCount(const SealCount &count, const Arguments &arguments)
{
    const size_t rest = count.all - count.sealed;
    if (arguments.json && (arguments.readAll || count.sealed > 0)) {
        Json object = {{"generations", count.all}, {"unsealed", rest}};
        if (arguments.readAll) object["read"] = count.read;
        return PrintLine(object);
    }
    if (arguments.readAll)
        printf("generations read: %zu, not sealed: %zu\n", count.read, rest);
    else if (count.sealed > 0 && rest > 0)
        printf("generations: %zu, not sealed: %zu\n", count.all, rest);
}

static SealCount _LookAtSeals(const std::string &path, const Arguments &arguments, bool &isWell, Problems &problems)
{
    // What keeps a place from being a store is among the findings.
    if (LookAtPlace(path) != PlaceKind::Store) {
        if (arguments.readAll)
            throw CommandFailure(kExitFailure,
                                 "nothing of " + Quoted(path) +
                                     " was read: it is no whole store, and \"check --repair\" comes first")
                .At(path);
        return {};
    }
    const Store store = Store::Require(path);
    if (!arguments.readAll) return CountSealed(store);
    const auto show = [&](const Rot &rot) {
        isWell = false;
        _PrintRot(rot, arguments.json);
    };
    return ReadSealed(store, show, problems);
}

int RunCheck(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.checked ? arguments.checked : arguments.store);
    switch (LookAtPlace(path)) {
    case PlaceKind::Missing:
        throw CommandFailure(kExitNoSuchGeneration, "there is no store at " + Quoted(path)).At(path);
    case PlaceKind::Other:
        throw CommandFailure(kExitFailure, Quoted(path) + " is no store").At(path);
    case PlaceKind::Free: // may hold one of the store's own two files; the library tells
    case PlaceKind::Damaged:
    case PlaceKind::Store:
        break;
    }
    Owned<TQError> error;
    const Owned<TQArray> findings(TQClientManagedStorageCopyFindings(path.c_str(), arguments.repair, error.out()));
    if (!findings) throw CommandFailure::Library("can't check " + Quoted(path), error.get()).At(path);

    const size_t count = TQArrayGetCount(findings.get());
    for (size_t i = 0; i < count; ++i)
        _Print(static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(findings.get(), i)), arguments.json);
    bool isWell = count == 0;
    Problems problems;
    const SealCount seals = _LookAtSeals(path, arguments, isWell, problems);
    if (isWell && problems.none() && !arguments.json) printf("the store %s is well\n", Quoted(path).c_str());
    _PrintCount(seals, arguments);
    problems.SayAll();
    return isWell ? problems.exitCode() : kExitFailure;
}
