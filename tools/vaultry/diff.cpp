// vaultry diff: what has changed between a generation and its document, or another generation.
//
// comparing.h says what counts as a difference, and differences.h how each is shown.

#include "commands.h"
#include "differences.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "inner_item.h"
#include "output.h"
#include "pager.h"
#include "text.h"

#include <filesystem>

namespace fs = std::filesystem;

// As with diff(1), items that can't be compared do not count as different. A failure with an exit code of its own keeps
// that.
static constexpr int kExitDiffers = 1;
static constexpr int kExitTrouble = 2;

// A document if it exists, else a generation; without an argument, the document that the generation was made from.
static ComparedTree _OtherSide(const Store &store, const std::string &name, const std::string &given)
{
    const std::string document = given.empty() ? store.InfoOf(name).document.value_or("") : DocumentPath(given);
    std::error_code error;
    const fs::file_type type = document.empty() ? fs::file_type::not_found : fs::symlink_status(document, error).type();
    if (type == fs::file_type::none) throw CommandFailure::Errno("can't look at " + Quoted(document), error.value());
    if (type != fs::file_type::not_found) return {.path = document, .label = document, .isKept = false};
    if (given.empty())
        throw CommandFailure(kExitFailure,
                             "the document of " + Quoted(name) +
                                 (document.empty() ? " is not known" : ", " + Quoted(document) + ", is not there"));
    const std::string other = ResolveGeneration(store, given);
    return {.path = store.PathOf(other), .label = other, .isKept = true};
}

// The same item of it, if one is compared.
static ComparedTree _ItemOf(const ComparedTree &whole, const GenerationItem &item)
{
    if (!item.isInner()) return whole;
    if (!LookForItem(whole.path, whole.label, *item.inner))
        throw CommandFailure(kExitFailure, "there is no item " + Quoted(*item.inner) + " in " + Quoted(whole.label));
    return {.path = whole.path + "/" + *item.inner,
            .label = whole.label + "/" + *item.inner,
            .isKept = whole.isKept,
            .isItem = true};
}

static int _ExitCodeOf(int ofFailure)
{
    return ofFailure == kExitDiffers ? kExitTrouble : ofFailure;
}

static int _Compare(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const GenerationItem item = ChosenItem(store, arguments);
    const std::string &name = item.name;
    const ComparedTree first = _ItemOf({.path = store.PathOf(name), .label = name, .isKept = true}, item);
    const ComparedTree second = _ItemOf(_OtherSide(store, name, arguments.other), item);
    DifferencePrinter printer(first, second, arguments);
    Problems problems;
    {
        const Pager pager(arguments.json ? 0 : SIZE_MAX);
        problems = CompareTrees(first, second, {.times = arguments.times}, [&](const Difference &difference) {
                       printer.Show(difference);
                       return ferror(stdout) == 0; // or who reads has seen enough
                   }).problems;
        if (problems.none() || !printer.none()) printer.Finish();
    }
    problems.SayAll();
    RequireOutput(); // or else it would pass for a difference
    if (!problems.none()) return _ExitCodeOf(problems.exitCode());
    return printer.none() ? kExitSuccess : kExitDiffers;
}

int RunDiff(const Arguments &arguments)
{
    try {
        return _Compare(arguments);
    } catch (const CommandFailure &failure) {
        throw failure.ExitingWith(_ExitCodeOf(failure.exitCode()));
    }
}
