// vaultry seal: notes what generations hold, so that a check can tell what has rotted.
//
// What is sealed stays so: sealed anew, what has rotted would count as well.

#include "commands.h"
#include "failure.h"
#include "generation.h"
#include "history.h"
#include "interrupt.h"
#include "json.h"
#include "progress_bar.h"
#include "sealing.h"
#include "text.h"
#include "waiting.h"

#include <cstdio>

static void _Show(const Arguments &arguments, const std::string &name, bool isNew)
{
    if (arguments.json) {
        Json object;
        PutBytes(object, "generation", name);
        object["sealed"] = true;
        object["digest_kind"] = kDigestKind;
        return PrintLine(object);
    }
    printf("%s is sealed%s\n", Quoted(name).c_str(), isNew ? "" : " already");
}

// Those that are meant, with what is known of them.
static std::vector<Kept> _Wanted(const Store &store, const Arguments &arguments, Problems &problems)
{
    if (arguments.all) return ReadHistory(store, problems);
    std::vector<Kept> wanted;
    for (const std::string &given : arguments.names)
        problems.Note([&] {
            const std::string name = ChosenGeneration(store, arguments.choice, given);
            wanted.push_back({name, store.InfoOf(name)});
        });
    return wanted;
}

// Whether it was not sealed before; none if it went meanwhile, and may.
static std::optional<bool> _Seal(const Store &store, const std::string &name, TreeReader &reader, bool mayGo)
try {
    if (store.PeekAtInfoOf(name).isSealed) return false;
    SealGeneration(store, name, reader);
    return true;
} catch (const CommandFailure &) {
    if (mayGo && !InterruptGuard::Came() && store.Lacks(name)) return std::nullopt;
    throw;
}

int RunSeal(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    Problems problems;
    const std::vector<Kept> wanted = _Wanted(store, arguments, problems);
    uint64_t total = 0, done = 0;
    size_t now = 0, before = 0; // sealed
    for (const Kept &kept : wanted) total += kept.info.isSealed ? 0 : kept.info.size.value_or(0);

    ProgressBar bar("sealing");
    TreeReader reader(TreeReader::From::Memory, [&](uint64_t bytes) {
        done += bytes;
        bar.Update(static_cast<int64_t>(done), static_cast<int64_t>(total));
    });
    const InterruptGuard interrupts("");
    for (const Kept &kept : wanted) {
        problems.Note([&] {
            const std::optional<bool> isNew = _Seal(store, kept.name, reader, /*mayGo=*/arguments.all);
            if (!isNew) return;
            ++(*isNew ? now : before);
            bar.Clear();
            if (arguments.json || !arguments.all) _Show(arguments, kept.name, *isNew);
        });
        if (InterruptGuard::Came()) {
            problems.ForgetStop();
            problems.SayAll();
            throw CommandFailure(InterruptGuard::ExitCode(), "stopped: not all is sealed");
        }
        if (WaitWatch::GaveUp()) break;
    }
    bar.Clear();
    if (arguments.all && !arguments.json) printf("generations sealed: %zu, sealed before: %zu\n", now, before);
    problems.SayAll();
    return problems.exitCode();
}
