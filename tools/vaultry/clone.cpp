// vaultry clone: a second store that is a copy of the first.

#include "add_progress.h"
#include "commands.h"
#include "entries.h"
#include "failure.h"
#include "history.h"
#include "interrupt.h"
#include "json.h"
#include "naming.h"
#include "rot.h"
#include "store.h"
#include "text.h"

#include <vaultry/number.h>

static constexpr char kCloneIsRemoved[] = "stopping: what was copied is removed; once more ends at once and leaves it";

static uint64_t _NumberOf(const TQDictionary *report, const char *key)
{
    return static_cast<uint64_t>(TQNumberGetInt64(EntryOf(report, key)));
}

static std::string _Counted(uint64_t count, const std::string &word)
{
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

static Owned<TQDictionary> _Clone(const Store &store, const std::string &target)
{
    AddProgress progress(Printable(BaseName(store.path())));
    const InterruptGuard interrupts(progress.get(), kCloneIsRemoved);
    Owned<TQError> error;
    Owned<TQDictionary> report(TQClientManagedStorageCopyStore(store.handle(), target.c_str(), error.out()));
    progress.bar().Clear();
    if (!report && InterruptGuard::Came() && UnderlyingErrno(error.get()) == ECANCELED)
        throw CommandFailure(InterruptGuard::ExitCode(), "stopped: nothing was copied");
    if (!report)
        throw CommandFailure::Library("can't clone the store " + Quoted(store.path()) + " to " + Quoted(target),
                                      error.get());
    return report;
}

// What is not in the clone as it is in the store.
static void _NoteFailures(const TQDictionary *report, Problems &problems)
{
    const auto *array = static_cast<const TQArray *>(EntryOf(report, "failures"));
    for (size_t i = 0; i < TQArrayGetCount(array); ++i) {
        const auto *failure = static_cast<const TQDictionary *>(TQArrayGetValueAtIndex(array, i));
        const bool isKept = TQNumberGetTruth(EntryOf(failure, "kept"));
        const std::string what = Quoted(BytesOf(failure, "name")) +
                                 (isKept ? " is in the clone, but not quite the same" : " is not in the clone");
        problems.Note(
            [&] { throw CommandFailure::Library(what, static_cast<const TQError *>(EntryOf(failure, "error"))); });
    }
}

static void _PrintReport(const TQDictionary *report, const std::string &store, const std::string &target)
{
    printf("cloned %s to %s: %s\nread back and compared: %s, %s\n", Quoted(store).c_str(), Quoted(target).c_str(),
           _Counted(_NumberOf(report, "generations"), "generation").c_str(),
           _Counted(_NumberOf(report, "items"), "item").c_str(), HumanSize(_NumberOf(report, "bytes")).c_str());
    fflush(stdout); // reading what is sealed may take long
}

static void _PrintAsJson(const TQDictionary *report, const std::string &store, const std::string &target,
                         const SealCount &seals, const Problems &problems)
{
    Json object;
    PutBytes(object, "store", store);
    PutBytes(object, "clone", target);
    for (const char *key : {"generations", "items", "bytes", "links"}) object[key] = _NumberOf(report, key);
    object["seals"] = seals.read;
    if (!problems.none()) object["problems"] = problems.texts();
    PrintLine(object);
}

// What had rotted before it was copied is the same in the clone: only seals tell.
static SealCount _ReadSeals(const std::string &target, Problems &problems)
try {
    Problems ofSeals, ofInfo;
    const Store clone = Store::Require(target);
    (void)ReadHistory(clone, ofInfo); // of one whose info can't be read, nobody knows whether it is sealed
    if (!ofInfo.none()) problems.Note([&] { throw ofInfo.first(); });
    const auto note = [&](const Rot &rot) {
        problems.Note([&] { throw CommandFailure(kExitFailure, Quoted(rot.path) + ": " + rot.meaning); });
    };
    const SealCount count = ReadSealed(clone, note, ofSeals);
    if (!ofSeals.none()) problems.Note([&] { throw ofSeals.first(); });
    return count;
} catch (const CommandFailure &failure) {
    problems.Note([&] {
        throw failure.Saying("the clone is there, but was not all held against its seals: " +
                             std::string(failure.what()));
    });
    return {};
}

int RunClone(const Arguments &arguments)
{
    const std::string &given = arguments.names.back();
    if (given.empty()) throw CommandFailure(kExitUsage, "the target is empty");
    const bool isNamed = arguments.names.size() == 2;
    if (isNamed && arguments.store) throw CommandFailure(kExitUsage, "the store is named twice, by --store too");
    const Store store = Store::Require(LocateStore(isNamed ? arguments.names.front() : arguments.store));
    const std::string target = AbsolutePath(WithoutTrailingSlashes(given));

    const Owned<TQDictionary> report = _Clone(store, target);
    Problems problems;
    _NoteFailures(report.get(), problems);
    if (!arguments.json) _PrintReport(report.get(), store.path(), target);
    const SealCount seals = _ReadSeals(target, problems);
    if (arguments.json)
        _PrintAsJson(report.get(), store.path(), target, seals, problems);
    else if (seals.sealed > 0)
        printf("held against their seals: %s\n", _Counted(seals.read, "generation").c_str());
    problems.SayAll();
    return problems.exitCode();
}
