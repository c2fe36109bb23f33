// vaultry prune: thins out what is kept, a document at a time, by rules.
//
// What goes is decided by a plan, before anything goes. Nothing goes of what the command does not understand: a
// generation that can't be read, or, unless that is asked for, of another program.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "history.h"
#include "json.h"
#include "prune_plan.h"
#include "removal.h"
#include "text.h"
#include "times.h"
#include "typed_time.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>

// The generations that are thinned out together: those of a document, or foreign ones that seem to be of the same one.
struct Pile {
    std::optional<std::string> document = {};
    bool isPutAside = false;
    std::vector<PrunePlan::Generation> generations = {};
};

struct Row {
    std::optional<std::string> document;
    std::string name;
    std::optional<double> time;
    RuleSet keptBy;
    bool isGone = false;
    bool isPutAside = false;
};

static PruneRules _RulesOf(const Arguments &arguments)
{
    PruneRules rules = arguments.keep;
    if (arguments.keepWithin) {
        const double now = PresentTime();
        rules.within = BeginningOfSpan(*arguments.keepWithin, now);
        if (!rules.within)
            throw CommandFailure(kExitUsage, "--keep-within " + Quoted(*arguments.keepWithin) +
                                                 " is no span of time: one is 36h, 30d, 8w, 6m or 1y6m");
        if (*rules.within >= now)
            throw CommandFailure(kExitUsage, "--keep-within " + Quoted(*arguments.keepWithin) + " keeps nothing");
    }
    if (rules.areSome()) return rules;
    throw CommandFailure(kExitUsage, "prune wants a rule for what it keeps, such as --keep-daily 7; "
                                     "\"vaultry prune --help\" tells which there are");
}

// None for one that the calendar can't tell.
static std::optional<double> _TimeOf(const GenerationInfo &info)
{
    return info.time && std::fabs(*info.time) < 1e11 ? info.time : std::nullopt;
}

// What a store holds, sorted for a prune.
class Sorting {
public:
    Sorting(const Store &store, const Arguments &arguments) : store_(store), foreignToo_(arguments.foreign)
    {
        for (const std::string &given : arguments.documents) {
            const std::string document = DocumentPathIfKnown(given);
            TellOfLink(given, document);
            wanted_.emplace(document, false);
        }
    }

    void Take(const Kept &kept)
    {
        const GenerationInfo &info = kept.info;
        if (!wanted_.empty()) {
            const auto wanted = wanted_.find(info.document.value_or(""));
            if (wanted == wanted_.end()) return;
            wanted->second = true;
        }
        const std::optional<double> time = _TimeOf(info);
        const bool isForeign = !info.document || !time;
        // Some clock was wrong. It would pass for the newest for as long as that is ahead.
        if (time && *time > now_) return LeaveAlone(kept, time, Rule::Future);
        if (isForeign && !foreignToo_) return LeaveAlone(kept, time, Rule::Foreign);
        // What is guessed of a foreign one must not make others go, so it never shares a pile with those.
        // What restores put aside is no version, and must not take a version's place.
        const bool isPutAside = !isForeign && info.backupOf;
        const std::string pile = isPutAside      ? std::string(4, '\0') + *info.document
                                 : !isForeign    ? *info.document
                                 : info.document ? '\0' + *info.document
                                                 : GuessedPile(kept.name);
        piles_[pile].document = info.document;
        piles_[pile].isPutAside = isPutAside;
        piles_[pile].generations.push_back(
            {kept.name, time ? *time : TimeInStore(kept.name), info.isPinned, time.has_value()});
    }

    std::vector<Row> Planned(const PruneRules &rules)
    {
        std::vector<Row> rows;
        for (auto &[key, pile] : piles_) {
            const PrunePlan plan(rules, std::move(pile.generations));
            for (const PrunePlan::Generation &generation : plan.generations())
                rows.push_back({pile.document, generation.name,
                                generation.isTimeNoted ? std::optional(generation.time) : std::nullopt,
                                generation.keptBy, /*isGone=*/false, pile.isPutAside});
        }
        rows.insert(rows.end(), untouched_.begin(), untouched_.end());
        return rows;
    }

    void RequireAll(Problems &problems) const
    {
        for (const auto &wanted : wanted_)
            if (!wanted.second)
                problems.Note([&] {
                    throw CommandFailure(kExitNoSuchGeneration, "the store " + Quoted(store_.path()) +
                                                                    " holds no generation of " + Quoted(wanted.first))
                        .At(wanted.first);
                });
    }

private:
    void LeaveAlone(const Kept &kept, std::optional<double> time, Rule why)
    {
        RuleSet keptBy;
        keptBy.set(static_cast<size_t>(why)).set(static_cast<size_t>(Rule::Pinned), kept.info.isPinned);
        untouched_.push_back({kept.info.document, kept.name, time, keptBy});
    }

    // One that is shown under no name is alone.
    std::string GuessedPile(const std::string &name) const
    {
        const std::string shown = store_.DisplayNameOf(name);
        return shown.empty() ? std::string(3, '\0') + name : std::string(2, '\0') + shown;
    }

    // When it was last changed there, that is, when it was kept, or its info or its protection were written.
    double TimeInStore(const std::string &name) const
    {
        struct stat status {};
        const std::string path = store_.PathOf(name);
        if (!IsThere(path, &status)) throw CommandFailure::Errno("can't look at " + Quoted(path), ENOENT).At(path);
        return ToSeconds(status.st_ctim);
    }

    const Store &store_;
    const bool foreignToo_;
    const double now_ = PresentTime();
    std::map<std::string, bool> wanted_; // documents, and whether there is anything of them; if there are none, all
    std::map<std::string, Pile> piles_;
    std::vector<Row> untouched_;
};

static std::string _Joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

static void _PrintAsJson(const std::vector<Row> &rows, bool isDry)
{
    for (const Row &row : rows) {
        Json object;
        PutBytes(object, "generation", row.name);
        if (row.document) PutBytes(object, "document", *row.document);
        if (row.time) object["kept"] = IsoTime(*row.time);
        object["plan"] = row.keptBy.any() ? "keep" : "remove";
        object["rules"] = RuleWords(row.keptBy);
        if (row.isPutAside) object["put_aside"] = true;
        if (!isDry && row.keptBy.none()) object["removed"] = row.isGone;
        PrintLine(object);
    }
}

static void _PrintPlan(const std::vector<Row> &rows)
{
    using Align = Table::Align;
    Table table({{"PLAN", Align::Left},
                 {"NAME", Align::Left},
                 {"TIME", Align::Left},
                 {"KEPT BY", Align::Left},
                 {"DOCUMENT", Align::Path}});
    for (const Row &row : rows)
        table.AddRow({row.keptBy.any() ? "keep" : "remove", Printable(row.name), row.time ? HumanTime(*row.time) : "-",
                      row.keptBy.any() ? _Joined(RuleWords(row.keptBy)) : "-",
                      row.document ? Printable(*row.document) + (row.isPutAside ? " (put aside)" : "") : "-"});
    table.Print();
}

static void _RemovePlanned(const Store &store, std::vector<Row> &rows, Problems &problems)
{
    std::vector<std::string> names;
    for (const Row &row : rows)
        if (row.keptBy.none()) names.push_back(row.name);
    const std::vector<std::string> gone = RemoveAll(store, names, /*pinnedToo=*/false, problems);
    const std::set<std::string_view> areGone(gone.begin(), gone.end());
    for (Row &row : rows) row.isGone = areGone.contains(row.name);
}

int RunPrune(const Arguments &arguments)
{
    const PruneRules rules = _RulesOf(arguments);
    const Store store = Store::Require(LocateStore(arguments.store));
    Problems problems;
    Sorting sorting(store, arguments);
    for (const Kept &kept : ReadHistory(store, problems)) problems.Note([&] { sorting.Take(kept); });
    sorting.RequireAll(problems);
    std::vector<Row> rows = sorting.Planned(rules);
    if (!arguments.isDryRun) _RemovePlanned(store, rows, problems);

    if (arguments.json) {
        _PrintAsJson(rows, arguments.isDryRun);
    } else if (arguments.isDryRun) {
        _PrintPlan(rows);
        const auto going = std::count_if(rows.begin(), rows.end(), [](const Row &row) { return row.keptBy.none(); });
        printf("generations that would be removed: %td, kept: %td\n", going,
               static_cast<ptrdiff_t>(rows.size()) - going);
    } else {
        const auto gone = std::count_if(rows.begin(), rows.end(), [](const Row &row) { return row.isGone; });
        printf("generations removed: %td, kept: %td%s\n", gone, static_cast<ptrdiff_t>(rows.size()) - gone,
               arguments.documents.empty() ? ", of all documents" : "");
    }
    problems.SayAll();
    return problems.exitCode();
}
