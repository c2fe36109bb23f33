// See generation.h.

#include "generation.h"

#include "document.h"
#include "failure.h"
#include "history.h"
#include "naming.h"
#include "nearest.h"
#include "text.h"
#include "times.h"
#include "typed_time.h"

#include <algorithm>
#include <cmath>
#include <tuple>

static constexpr size_t kShownCandidates = 5;

// A document's name where it may be typed as it stands, else the word for it.
static std::string _AsTyped(const std::string &document)
{
    static constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./,:+@-";
    const bool isPlain = document.find_first_not_of(kPlain) == document.npos && document.front() != '-';
    return isPlain ? document : "DOCUMENT";
}

std::optional<CommandFailure> RefusalOfDocument(const Store &store, const std::string &given)
{
    if (given.empty()) return std::nullopt;
    const std::string document = DocumentPathIfKnown(given), typed = _AsTyped(given);
    Problems problems; // are said when one of these generations is wanted
    const std::vector<Kept> history = ReadHistory(store, problems);
    const auto count =
        std::count_if(history.begin(), history.end(), [&](const Kept &kept) { return kept.info.document == document; });
    if (count == 0) return std::nullopt;
    return CommandFailure(kExitNoSuchGeneration,
                          Quoted(given) + " is a document, and no generation; kept of it: " + std::to_string(count) +
                              "\n  \"--latest " + typed + "\" stands for the newest, and \"vaultry list " + typed +
                              "\" names all");
}

CommandFailure NoSuchGeneration(const Store &store, const std::set<std::string> &present, const std::string &given)
{
    if (const auto document = RefusalOfDocument(store, given)) return *document;
    const auto nearest = NearestTo(given, {present.begin(), present.end()}, Match::Beginning);
    return CommandFailure(kExitNoSuchGeneration, "there is no generation " + Quoted(given) + " in the store " +
                                                     Quoted(store.path()) + DidYouMean(nearest));
}

std::string ResolveGeneration(const Store &store, const std::string &given)
{
    const std::set<std::string> names = store.Names();
    if (names.contains(given)) return given;
    std::vector<std::string> candidates;
    if (!given.empty())
        for (auto name = names.lower_bound(given); name != names.end() && name->rfind(given, 0) == 0; ++name)
            candidates.push_back(*name);
    if (candidates.size() == 1) return candidates.front();
    if (candidates.empty()) throw NoSuchGeneration(store, names, given);
    if (const auto document = RefusalOfDocument(store, given)) throw *document;

    std::string message = Quoted(given) + " is the beginning of " + std::to_string(candidates.size()) + " generations:";
    for (size_t i = 0; i < candidates.size() && i < kShownCandidates; ++i) message += "\n  " + Printable(candidates[i]);
    if (candidates.size() > kShownCandidates) message += "\n  ...";
    throw CommandFailure(kExitFailure, message);
}

enum class Wanted { Versions, Backups, Both };

// The newest generation of a document that was kept no later than the limit; among equals, the last by name. What a
// restore put aside is no version: the user did not ask for it.
static std::optional<std::string> _NewestOf(const std::vector<Kept> &history, const std::string &document,
                                            std::optional<double> limit, Wanted wanted)
{
    const Kept *newest = nullptr;
    for (const Kept &kept : history) {
        const GenerationInfo &info = kept.info;
        if (info.document != document || !info.time || (limit && *info.time > *limit)) continue;
        if (wanted != Wanted::Both && info.backupOf.has_value() != (wanted == Wanted::Backups)) continue;
        if (!newest || std::tie(*newest->info.time, newest->name) < std::tie(*info.time, kept.name)) newest = &kept;
    }
    return newest ? std::optional(newest->name) : std::nullopt;
}

// The last moment that a choice admits.
static std::optional<double> _LimitOf(const Choice &choice)
{
    if (choice.latest) return std::nullopt;
    const char *option = choice.at ? "--at " : "--before ";
    const std::string &text = choice.at ? *choice.at : *choice.before;
    const std::optional<TypedTime> time = ParseTime(text, PresentTime());
    if (!time)
        throw CommandFailure(kExitUsage, option + Quoted(text) +
                                             " is no time: one is 2026-03-01, \"2026-03-01 10:15\", yesterday, "
                                             "\"2 hours ago\" or @1767225600");
    const double limit = choice.at ? time->last : std::nextafter(time->first, -INFINITY);
    if (time->clock == TypedTime::Clock::Twice)
        Say(option + Quoted(text) + " comes twice, when clocks are put back: the " + (choice.at ? "later" : "earlier") +
            " one is meant, " + ZoneAt(limit));
    if (time->clock == TypedTime::Clock::Skipped)
        Say(option + Quoted(text) + " is skipped, when clocks are put forward: " + HumanTime(time->first) +
            " is meant");
    return limit;
}

// Another document of the same folder, whose name is the nearest.
static std::optional<std::string> _NearestDocument(const std::vector<Kept> &history, const std::string &document)
{
    const std::string name = BaseName(document), folder = document.substr(0, document.size() - name.size());
    std::set<std::string> others;
    for (const Kept &kept : history) {
        const std::string other = kept.info.document.value_or("");
        if (folder + BaseName(other) == other) others.insert(BaseName(other));
    }
    return NearestTo(name, {others.begin(), others.end()}, Match::Whole);
}

// Why nothing of the document was found: it has nothing, or nothing so early.
static CommandFailure _NothingOf(const Store &store, const std::vector<Kept> &history, const std::string &document)
{
    const Kept *oldest = nullptr;
    for (const Kept &kept : history) {
        if (kept.info.document != document || !kept.info.time || kept.info.backupOf) continue;
        if (!oldest || *kept.info.time < *oldest->info.time) oldest = &kept;
    }
    const std::string what = "the store " + Quoted(store.path()) + " holds no generation of " + Quoted(document);
    if (!oldest && _NewestOf(history, document, std::nullopt, Wanted::Backups))
        return {kExitNoSuchGeneration, what + ", only what a restore put aside: \"vaultry undo\" brings that back"};
    if (!oldest) return {kExitNoSuchGeneration, what + DidYouMean(_NearestDocument(history, document))};
    return {kExitNoSuchGeneration, what + " that was kept by then: the first is of " + HumanTime(*oldest->info.time)};
}

std::string ChosenGeneration(const Store &store, const Choice &choice, const std::string &given)
{
    if (!choice.isMade()) return ResolveGeneration(store, given);
    const std::optional<double> limit = _LimitOf(choice);
    const std::string document = DocumentPathIfKnown(given);
    Problems problems;
    const std::vector<Kept> history = ReadHistory(store, problems);
    problems.SayAll();
    if (const auto newest = _NewestOf(history, document, limit, Wanted::Versions)) return *newest;
    throw _NothingOf(store, history, document);
}

std::optional<std::string> NewestBackupOf(const Store &store, const std::string &document)
{
    Problems problems;
    const std::vector<Kept> history = ReadHistory(store, problems);
    problems.SayAll();
    return _NewestOf(history, document, std::nullopt, Wanted::Backups);
}

std::optional<std::string> BaseFor(const Store &store, const std::string &document)
try {
    Problems problems; // the check names them
    return _NewestOf(ReadHistory(store, problems), document, std::nullopt, Wanted::Both);
} catch (const CommandFailure &) {
    return std::nullopt; // adding says what is wrong with the store
}
