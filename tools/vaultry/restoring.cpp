// See restoring.h.

#include "restoring.h"

#include "add_progress.h"
#include "carrying_over.h"
#include "copy_watch.h"
#include "copying_out.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "interrupt.h"
#include "json.h"
#include "naming.h"
#include "output.h"
#include "text.h"
#include "times.h"

#include <vaultry/library.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

static constexpr unsigned kMaximumAttempts = 1000;

// The generation that the document's present state becomes.
struct Backup {
    std::optional<std::string> name; // none if it is not kept
    bool isNew = false;              // nothing had that name
    std::optional<std::string> base; // the generation that it shares unchanged files with
    Owned<TQDictionary> notes{};     // of document and time, and that it is a backup
};

static std::optional<std::string> _BackupName(const Store &store, const Arguments &arguments,
                                              const std::string &document, double now)
{
    if (arguments.noBackup) return std::nullopt;
    if (arguments.backup) {
        CheckGenerationName("--backup", *arguments.backup);
        return arguments.backup;
    }
    const std::set<std::string> names = store.Names();
    for (unsigned attempt = 0; attempt < kMaximumAttempts; ++attempt)
        if (std::string name = DefaultGenerationName(document, static_cast<time_t>(now), attempt);
            !names.contains(name))
            return name;
    throw CommandFailure(kExitExists, "there is no free name for the backup of " + Quoted(document)).At(document);
}

// None if it isn't known, which doesn't matter to a restore.
static std::optional<double> _TimeOf(const Store &store, const std::string &name)
try {
    return store.PeekAtInfoOf(name).time;
} catch (const CommandFailure &) {
    return std::nullopt;
}

static Backup _PlanBackup(const Store &store, const Arguments &arguments, const std::string &document,
                          const std::string &name)
{
    const double now = PresentTime(); // before anything is done, since the backup is of this moment
    Backup backup;
    backup.name = _BackupName(store, arguments, document, now);
    backup.isNew = backup.name && !store.Names().contains(*backup.name);
    struct stat status {};
    if (backup.name && IsThere(document, &status) && S_ISDIR(status.st_mode)) backup.base = BaseFor(store, document);
    backup.notes = MakeNotes(document, now, name, _TimeOf(store, name));
    return backup;
}

static bool _Restore(TQLibrary *library, const GenerationItem &item, const std::string &document, const Backup &backup,
                     TQError **error)
{
    const Owned<TQURL> url(TQURLCreateWithFileSystemPath(document.c_str(), false));
    const Owned<TQString> backupName = MakeString(backup.name.value_or("")),
                          base = MakeString(backup.base.value_or("")), sizeKey = MakeString(kSizeKey);
    TQRestoreRequest request{};
    request.size = sizeof request;
    request.flags = kTQRestoreKeepLinks | kTQRestoreInfoIsOptional;
    request.backupName = backup.name ? backupName.get() : nullptr;
    request.backupBase = backup.base ? base.get() : nullptr;
    request.backupInfo = backup.notes.get();
    request.backupSizeKey = sizeKey.get();
    request.item = item.isInner() ? item.inner->c_str() : nullptr;
    return TQLibraryRestoreGenerationWithFlags(library, MakeString(item.name).get(), url.get(), &request, error);
}

// The document is safe by then, so it is only said if the notes have no room.
static void _NoteBackup(const Store &store, const Backup &backup)
{
    if (!store.HasNotes(*backup.name, backup.notes.get()) &&
        !store.SetInfoOf(*backup.name, backup.notes.get(), nullptr))
        Say("list may not show " + Quoted(*backup.name) +
            " with its document, and undo does not know it: that could not be written");
}

// Asked when the store may be somebody else's again, so without its lock.
static bool _IsKept(const Store &store, const Backup &backup)
{
    try {
        return PeekAtNames(store.path()).contains(*backup.name);
    } catch (const CommandFailure &) {
        return false;
    }
}

// Whether what has the backup's name is the backup. Another program may have taken the name meanwhile. Without room for
// notes, a backup has none.
static bool _IsOurs(const Store &store, const Backup &backup)
{
    if (!backup.name || !backup.isNew || !_IsKept(store, backup)) return false;
    if (store.HasNotes(*backup.name, backup.notes.get())) return true;
    try {
        return !store.PeekAtInfoOf(*backup.name).document;
    } catch (const CommandFailure &) {
        return false;
    }
}

// After a failed restore the backup is gone, unless a part of the old state is gone or somebody saved the document
// meanwhile.
static void _NameBackup(const Store &store, const std::string &document, const Backup &backup)
{
    if (!_IsOurs(store, backup)) return;
    _NoteBackup(store, backup);
    Say("what " + Quoted(document) + " was is kept as " + Quoted(*backup.name));
}

// What Ctrl-C does. The backup can be cancelled, and then the document is not touched. Without a backup nothing looks
// at the signal before the exchange. The exchange is over at once, and the first Ctrl-C does not cut it short.
static constexpr char kStopsAtBackup[] = "stopping, unless the document is being replaced already; "
                                         "once more ends at once";
static constexpr char kReplacesFirst[] = "the document is replaced as soon as the generation is copied out; "
                                         "once more ends at once";
static constexpr char kCopiesFirst[] = "the document is there as soon as the generation is copied out; "
                                       "once more ends at once and leaves what is there";

static Owned<TQLibrary> _OpenLibrary(const Store &store)
{
    Owned<TQError> error;
    const Owned<TQURL> root(TQURLCreateWithFileSystemPath(store.path().c_str(), true));
    Owned<TQLibrary> library(TQLibraryCreateClientManaged(nullptr, root.get(), error.out()));
    if (!library)
        throw CommandFailure::Library("can't open the store " + Quoted(store.path()), error.get()).At(store.path());
    return library;
}

// The copies in the staging area that were not there when this was called.
static CopyWatch::Places _StagedFromNowOn(const Store &store)
{
    const auto list = [staging = store.path() + "/.vaultry_staging"] {
        std::set<std::string> places;
        std::error_code error;
        for (fs::directory_iterator item(staging, error), end; !error && item != end; item.increment(error))
            places.insert(item->path().native() + "/staged");
        return places;
    };
    return [list, before = list()] {
        const std::set<std::string> now = list();
        std::vector<std::string> places;
        std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(places));
        return places;
    };
}

static void _Replace(const Store &store, const GenerationItem &item, const std::string &document, const Backup &backup)
{
    const Owned<TQLibrary> library = _OpenLibrary(store);
    const std::string source = item.PathIn(store), label = Printable(BaseName(item.isInner() ? *item.inner : document));
    Owned<TQError> error;
    bool restored = false;
    {
        std::optional<CopyWatch> watch(std::in_place, source, label, _StagedFromNowOn(store));
        AddProgress progress(label, [&] { watch.reset(); });
        const InterruptGuard interrupts(progress.get(), backup.name ? kStopsAtBackup : kReplacesFirst);
        restored = _Restore(library.get(), item, document, backup, error.out());
        progress.bar().Clear();
    }
    if (restored) return;
    _NameBackup(store, document, backup);
    if (InterruptGuard::Came() && UnderlyingErrno(error.get()) == ECANCELED)
        throw CommandFailure(InterruptGuard::ExitCode(), "stopped: " + Quoted(document) + " is as it was").At(document);
    const CommandFailure failure =
        CommandFailure::Library("can't restore " + Quoted(item.In(document)) + " from " + Quoted(item.asTyped()),
                                error.get())
            .At(document);
    const std::string why = backup.name ? ExplainRefusal(error.get(), store.path(), document, /*keepsLinks=*/true) : "";
    throw failure.Saying(failure.what() + why);
}

// A document that appears meanwhile is kept under the name of a backup, and replaced. The item at its path is never
// removed again afterwards.
static void _CopyBack(const Store &store, const GenerationItem &item, const std::string &document, const Backup &backup)
try {
    const Owned<TQLibrary> library = _OpenLibrary(store);
    const InterruptGuard interrupts(kCopiesFirst);
    CopyOut(item.PathIn(store), document, "can't restore " + Quoted(document) + " from " + Quoted(item.name),
            [&](TQError **error) { return _Restore(library.get(), item, document, backup, error); });
} catch (const CommandFailure &) {
    _NameBackup(store, document, backup);
    throw;
}

// The document has another extension by now, and its history follows it; returns how many generations that are. If
// there is another history at that path, only the backup goes there, so that the restore can still be undone.
static size_t _CarryOver(const Store &store, const std::string &document, const std::string &restored,
                         const Backup &backup, Problems &problems)
{
    const std::vector<Kept> history = ReadHistory(store, problems);
    std::vector<std::string> names = NamesOf(history, document);
    if (!NamesOf(history, restored).empty()) {
        Say(Quoted(restored) + " has a history of its own, so that of " + Quoted(document) +
            " stays apart: \"vaultry moved --anyway\" joins them");
        std::erase_if(names, [&](const std::string &name) { return name != backup.name; });
        (void)CarryOver(store, names, restored, problems);
        return 0;
    }
    return CarryOver(store, names, restored, problems);
}

bool IsDocumentThere(const std::string &document)
{
    struct stat status {};
    if (stat(document.c_str(), &status) == 0) return true;
    if (errno != ENOENT)
        throw CommandFailure::Errno("can't look at the document " + Quoted(document), errno).At(document);
    if (IsThere(document, &status))
        throw CommandFailure(kExitFailure, Quoted(document) + " is a link to what is not there").At(document);
    return false;
}

int BringBack(const Store &store, const GenerationItem &item, const std::string &document, const Arguments &arguments)
{
    const std::string &name = item.name;
    const bool isThere = IsDocumentThere(document);
    Backup backup = _PlanBackup(store, arguments, document, name);
    if (!isThere && arguments.backup) Say(Quoted(document) + " is not there, so there is nothing to back up");

    for (bool isDone = false; !isDone;) {
        try {
            isThere ? _Replace(store, item, document, backup) : _CopyBack(store, item, document, backup);
            isDone = true;
        } catch (const CommandFailure &failure) {
            const bool isTaken = failure.exitCode() == kExitExists && backup.isNew && !arguments.backup &&
                                 _IsKept(store, backup) && !_IsOurs(store, backup);
            if (!isTaken || InterruptGuard::Came()) throw;
            backup = _PlanBackup(store, arguments, document, name); // under the next free name
        }
    }
    // The document may have come or gone meanwhile.
    if (!_IsOurs(store, backup)) backup.name.reset();
    if (backup.name) _NoteBackup(store, backup);
    const bool mayBeRenamed = !item.isInner() && (isThere || backup.name);
    const std::string restored = mayBeRenamed ? RestoredPath(document, name) : item.In(document);
    Problems problems;
    size_t carried = 0;
    if (mayBeRenamed && restored != document)
        problems.Note([&] {
            try {
                carried = _CarryOver(store, document, restored, backup, problems);
            } catch (const CommandFailure &failure) {
                throw failure.Saying("the history of " + Quoted(document) + " stays there: " + failure.what() +
                                     "\n  \"vaultry moved\" carries it over to " + Quoted(restored));
            }
        });
    if (arguments.json) {
        Json object;
        PutBytes(object, "document", item.isInner() ? document : restored);
        PutBytes(object, "generation", name);
        if (item.isInner()) PutBytes(object, "item", *item.inner);
        if (backup.name) PutBytes(object, "backup", *backup.name);
        if (carried > 0) object["carried_over"] = carried;
        PrintLine(object);
    } else {
        printf("%s is restored from %s\n", Quoted(restored).c_str(), Quoted(item.asTyped()).c_str());
        const std::string what = item.isInner() ? Quoted(document) : "it";
        if (backup.name) printf("what %s was is kept as %s\n", what.c_str(), Quoted(*backup.name).c_str());
        if (carried > 0) printf("its history, %zu in all, is that of %s now\n", carried, Quoted(restored).c_str());
    }
    problems.Note([&] {
        RequireOutput(Quoted(restored) + " is restored from " + Quoted(item.asTyped()) +
                      (backup.name ? ", what it was is kept as " + Quoted(*backup.name) : ""));
    });
    problems.SayAll();
    return problems.exitCode();
}
