// vaultry add: keeps documents as they are now.

#include "add_progress.h"
#include "addition.h"
#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "naming.h"
#include "output.h"
#include "sealing.h"
#include "text.h"
#include "unchanged.h"
#include "waiting.h"

#include <memory>
#include <unistd.h>

// If it is still what its newest version holds, says so and returns an exit code.
static std::optional<int> _PassOverUnchanged(const Store &store, const std::string &document,
                                             const Arguments &arguments)
{
    const auto name = UnchangedSince(store, document);
    if (!name) return std::nullopt;
    if (arguments.json) {
        Json object;
        PutBytes(object, "document", document);
        PutBytes(object, "unchanged_since", *name);
        PrintLine(object);
        RequireOutput();
    } else {
        Say(Quoted(document) + " is unchanged since " + Quoted(*name));
    }
    if (arguments.pin || !arguments.tags.empty()) Say(Quoted(*name) + " gets neither tag nor pin: it was there before");
    ProgressBar bar(Printable(BaseName(document)));
    return arguments.seal ? SealKept(store, *name, bar) : kExitSuccess;
}

// What was kept first goes only when there is a better one. Returns an exit code, and in `tried` what counts.
static int _ReadOnceMore(const Store &store, const Document &document, const Arguments &arguments, ProgressBar &bar,
                         std::unique_ptr<Addition> &tried)
{
    const std::string first = tried->name();
    const auto complain = [&](const CommandFailure &failure) {
        bar.Clear();
        Say(failure.Saying(Quoted(first) + ", which may hold parts of an old state and of a new one of " +
                           Quoted(document.path) + ", stays: " + failure.what()));
        return kExitChanged;
    };
    auto second = std::make_unique<Addition>(store, document, arguments, bar);
    try {
        const int exitCode = second->Run(/*mayRetry=*/false);
        tried = std::move(second);
        store.Remove({first}, /*pinnedToo=*/true);
        return exitCode;
    } catch (const CommandFailure &failure) {
        return complain(failure);
    }
}

static int _AddDocument(const Store &store, const std::string &given, const Arguments &arguments)
{
    const Document document = ResolveDocument(given);
    if (arguments.ifChanged)
        if (const auto exitCode = _PassOverUnchanged(store, document.path, arguments)) return *exitCode;
    if (document.wasLink)
        Say(Quoted(given) + " is a link: " + (arguments.move ? "moving " : "keeping ") + Quoted(document.path));

    AddProgress progress(Printable(BaseName(document.path)));
    const InterruptGuard interrupts(progress.get());
    auto tried = std::make_unique<Addition>(store, document, arguments, progress.bar());
    int exitCode = tried->Run(/*mayRetry=*/arguments.retry);
    if (exitCode == kExitChanged && arguments.retry)
        exitCode = _ReadOnceMore(store, document, arguments, progress.bar(), tried);
    const Addition &addition = *tried;
    const int sealing = arguments.seal ? SealKept(store, addition.name(), progress.bar()) : kExitSuccess;
    if (exitCode == kExitSuccess) exitCode = sealing;
    if (const std::string restored = RestoredPath(document.path, addition.name()); restored != document.path)
        Say("a restore from " + Quoted(addition.name()) + " will turn " + Quoted(document.path) + " into " +
            Quoted(BaseName(restored)) + ", since it gives a document the extension of the generation");
    if (arguments.json) {
        Json object;
        PutBytes(object, "generation", addition.name());
        PutBytes(object, "document", document.path);
        if (arguments.seal) object["sealed"] = sealing == kExitSuccess;
        PrintLine(object);
    } else {
        // A script gets the name as it is, a terminal in a form that can't harm it.
        puts(isatty(STDOUT_FILENO) ? Printable(addition.name()).c_str() : addition.name().c_str());
    }
    RequireOutput(Quoted(document.path) + " is kept as " + Quoted(addition.name()));
    return exitCode;
}

int RunAdd(const Arguments &arguments)
{
    if (arguments.newName) CheckGenerationName("--name", *arguments.newName);
    (void)ParseTags(arguments); // before anything is made
    const std::string place = LocateStore(arguments.store);
    if (arguments.documents.size() == 1)
        (void)ResolveDocument(arguments.documents.front()); // or no store is made for it
    // Where a named store is missing, its volume may not be mounted, and another store must not hide there.
    const Store store = IsStoreNamed(arguments.store) ? Store::RequireMade(place) : Store::OpenOrMake(place);
    int exitCode = kExitSuccess;
    for (const std::string &document : arguments.documents) {
        if (WaitWatch::GaveUp()) {
            Say(CommandFailure(kExitInUse, Quoted(document) + " was not tried: another program has the store")
                    .At(document));
            if (exitCode == kExitSuccess) exitCode = kExitInUse;
            continue;
        }
        int one = kExitSuccess;
        try {
            one = _AddDocument(store, document, arguments);
        } catch (const CommandFailure &failure) {
            Say(failure.At(document));
            one = failure.exitCode();
        }
        if (InterruptGuard::Came()) return InterruptGuard::ExitCode();
        if (exitCode == kExitSuccess) exitCode = one;
    }
    return exitCode;
}
