// vaultry check: whether a store is as it should be, and what to do where it is not.

#include "commands.h"
#include "entries.h"
#include "failure.h"
#include "json.h"
#include "location.h"
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

int RunCheck(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.checked ? arguments.checked : arguments.store);
    switch (LookAtPlace(path)) {
    case PlaceKind::Missing:
        throw CommandFailure(kExitFailure, "there is no store at " + Quoted(path)).At(path);
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
    if (count == 0 && !arguments.json) printf("the store %s is well\n", Quoted(path).c_str());
    return count == 0 ? kExitSuccess : kExitFailure;
}
