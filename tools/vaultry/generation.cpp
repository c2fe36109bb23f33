// See generation.h.

#include "generation.h"

#include "document.h"
#include "failure.h"
#include "inner_item.h"
#include "naming.h"
#include "nearest.h"
#include "text.h"
#include "time_option.h"
#include "times.h"

#include <algorithm>
#include <tuple>
#include <unistd.h>

static constexpr size_t kShownCandidates = 5;

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
    const bool hasVersion = _NewestOf(history, document, std::nullopt, Wanted::Versions).has_value();
    return CommandFailure(kExitNoSuchGeneration,
                          Quoted(given) + " is a document, not a generation; " + std::to_string(count) +
                              (count == 1 ? " generation of it is kept" : " generations of it are kept") + "\n  " +
                              (hasVersion ? "\"--latest " + typed + "\" stands for the newest, and " : "") +
                              "\"vaultry list " + typed + "\" names all")
        .At(document);
}

// Those that begin so.
static std::vector<std::string> _CandidatesFor(const std::set<std::string> &names, const std::string &beginning)
{
    std::vector<std::string> candidates;
    if (!beginning.empty())
        for (auto name = names.lower_bound(beginning); name != names.end() && name->rfind(beginning, 0) == 0; ++name)
            candidates.push_back(*name);
    return candidates;
}

// What stands before the path of an item, which begins at the first "/": no name has one.
static std::string _HeadOf(const std::string &given)
{
    return given.substr(0, given.find('/'));
}

CommandFailure NoSuchGeneration(const Store &store, const std::set<std::string> &present, const std::string &given)
{
    const std::string head = _HeadOf(given);
    const auto owners = head == given ? std::vector<std::string>() : _CandidatesFor(present, head);
    if (!owners.empty() && (owners.size() == 1 || owners.front() == head))
        return CommandFailure(kExitUsage, Quoted(given) + " is an item of the generation " + Quoted(owners.front()) +
                                              ", and only a whole generation can be meant here");
    if (const auto document = RefusalOfDocument(store, given)) return *document;
    const auto nearest = NearestTo(given, {present.begin(), present.end()}, Match::Beginning);
    return CommandFailure(kExitNoSuchGeneration, "there is no generation " + Quoted(given) + " in the store " +
                                                     Quoted(store.path()) + DidYouMean(nearest))
        .At(store.path());
}

void RefuseLink(const Store &store, const std::string &name, const std::string &outcome)
{
    struct stat status {};
    if (IsThere(store.path() + "/" + name, &status) && S_ISLNK(status.st_mode))
        throw CommandFailure(kExitFailure, Quoted(name) + " is a link, and no generation" + outcome)
            .At(store.path() + "/" + name);
}

// The name that was given, or the only one that it is the beginning of.
static std::string _NameFor(const Store &store, const std::string &given)
{
    const std::set<std::string> names = store.Names();
    if (names.contains(given)) return given;
    const std::vector<std::string> candidates = _CandidatesFor(names, given);
    // A document of that name may be meant, where there is one.
    if (candidates.size() == 1 && access(given.c_str(), F_OK) == 0) {
        if (const auto document = RefusalOfDocument(store, given);
            document && store.PeekAtInfoOf(candidates.front()).document != DocumentPathIfKnown(given))
            throw *document;
    }
    if (candidates.size() == 1) return candidates.front();
    if (candidates.empty()) throw NoSuchGeneration(store, names, given);
    if (const auto document = RefusalOfDocument(store, given)) throw *document;

    std::string message = Quoted(given) + " is the beginning of " + std::to_string(candidates.size()) + " generations:";
    for (size_t i = 0; i < candidates.size() && i < kShownCandidates; ++i) message += "\n  " + Printable(candidates[i]);
    if (candidates.size() > kShownCandidates) message += "\n  ...";
    throw CommandFailure(kExitFailure, message).At(store.path());
}

std::string ResolveGeneration(const Store &store, const std::string &given)
{
    const std::string name = _NameFor(store, given);
    RefuseLink(store, name);
    return name;
}

std::string GenerationItem::PathIn(const Store &store) const
{
    return store.path() + "/" + name + (isInner() ? "/" + *inner : "");
}

// The generation of which `given` names an item.
static std::string _OwnerOf(const Store &store, const std::string &given)
{
    const std::string head = _HeadOf(given);
    const std::set<std::string> names = store.Names();
    if (!names.contains(head)) {
        if (const auto document = RefusalOfDocument(store, given)) throw *document;
        if (_CandidatesFor(names, head).empty()) throw NoSuchGeneration(store, names, given);
    }
    return ResolveGeneration(store, head);
}

GenerationItem ChosenItem(const Store &store, const Arguments &arguments)
{
    const std::string &given = arguments.name;
    GenerationItem item{"", arguments.item};
    if (item.inner) item.inner = CheckedInnerPath(*item.inner);
    if (arguments.choice.isMade() || given.find('/') == given.npos) {
        item.name = ChosenGeneration(store, arguments.choice, given);
    } else {
        item.name = _OwnerOf(store, given);
        if (item.inner) throw CommandFailure(kExitUsage, Quoted(given) + " has a path already, beside that of --path");
        const std::string path = given.substr(_HeadOf(given).size() + 1);
        item.inner = path.empty() ? path : CheckedInnerPath(path);
    }
    if (item.inner) RequireItem(store.path() + "/" + item.name, item.name, *item.inner);
    return item;
}

// The last moment that a choice admits.
static std::optional<double> _LimitOf(const Choice &choice)
{
    if (choice.latest) return std::nullopt;
    return choice.at ? LastMomentOf("--at", *choice.at) : LastMomentBefore("--before", *choice.before);
}

std::optional<std::string> NearestDocument(const std::vector<Kept> &history, const std::string &document)
{
    const std::string name = BaseName(document), folder = document.substr(0, document.size() - name.size());
    std::set<std::string> others;
    for (const Kept &kept : history) {
        const std::string other = kept.info.document.value_or("");
        if (other != document && folder + BaseName(other) == other) others.insert(BaseName(other));
    }
    return NearestTo(name, {others.begin(), others.end()}, Match::Whole);
}

// Why nothing of the document was found: it has nothing, or nothing so early.
static CommandFailure _NothingOf(const Store &store, const std::vector<Kept> &history, const std::string &document,
                                 const Choice &choice)
{
    const Kept *oldest = nullptr;
    bool isTimeless = false;
    for (const Kept &kept : history) {
        if (kept.info.document != document || kept.info.backupOf) continue;
        isTimeless |= !kept.info.time;
        if (!kept.info.time) continue;
        if (!oldest || *kept.info.time < *oldest->info.time) oldest = &kept;
    }
    const std::string what = "the store " + Quoted(store.path()) + " holds no generation of " + Quoted(document);
    if (!oldest && isTimeless)
        return {kExitNoSuchGeneration, what + " with a time: \"vaultry list\" names those without"};
    if (!oldest && _NewestOf(history, document, std::nullopt, Wanted::Backups))
        return {kExitNoSuchGeneration, what + ", only what a restore put aside: \"vaultry undo\" brings that back"};
    if (!oldest) return {kExitNoSuchGeneration, what + DidYouMean(NearestDocument(history, document))};
    return {kExitNoSuchGeneration, what + " that was kept " + (choice.before ? "before that" : "by then") +
                                       ": the first is of " + HumanTime(*oldest->info.time)};
}

std::string ChosenGeneration(const Store &store, const Choice &choice, const std::string &given)
{
    return Chooser(store, choice).ChosenFor(given);
}

std::string Chooser::ChosenFor(const std::string &given)
{
    if (!choice_.isMade()) return ResolveGeneration(store_, given);
    if (!history_) limit_ = _LimitOf(choice_);
    const std::string document = DocumentPathIfKnown(given);
    TellOfLink(given, document);
    if (!history_) {
        Problems problems;
        history_ = ReadHistory(store_, problems);
        problems.SayAll();
    }
    if (const auto newest = _NewestOf(*history_, document, limit_, Wanted::Versions)) return *newest;
    throw _NothingOf(store_, *history_, document, choice_).At(document);
}

std::optional<std::string> NewestVersionOf(const Store &store, const std::string &document)
{
    Problems problems;
    const std::vector<Kept> history = ReadHistory(store, problems);
    const auto newest = _NewestOf(history, document, std::nullopt, Wanted::Versions);
    if (!newest || problems.none()) return newest;
    std::set<std::string> unread = store.Names();
    for (const Kept &kept : history) unread.erase(kept.name);
    const double since = *store.PeekAtInfoOf(*newest).time;
    for (const std::string &name : unread) {
        struct stat status {};
        // Nothing is kept later than it was last changed.
        if (IsThere(store.path() + "/" + name, &status) && ToSeconds(status.st_ctim) >= since) throw problems.first();
    }
    return newest;
}

std::optional<std::string> NewestBackupOf(const Store &store, const std::string &document)
{
    Problems problems;
    std::vector<Kept> history = ReadHistory(store, problems);
    problems.SayAll();
    // One that an undo brought back has had its turn, whatever its clock said. Another one may have its name by now.
    std::set<std::pair<std::string, std::optional<double>>> used;
    for (const Kept &kept : history)
        if (kept.info.document == document && kept.info.backupOf)
            used.emplace(*kept.info.backupOf, kept.info.backupOfTime);
    std::erase_if(history, [&](const Kept &kept) {
        return used.contains({kept.name, std::nullopt}) || used.contains({kept.name, kept.info.time});
    });
    return _NewestOf(history, document, std::nullopt, Wanted::Backups);
}

std::optional<std::string> BaseFor(const Store &store, const std::string &document)
try {
    Problems problems; // the check names them
    return _NewestOf(ReadHistory(store, problems), document, std::nullopt, Wanted::Both);
} catch (const CommandFailure &) {
    return std::nullopt; // adding says what is wrong with the store
}
