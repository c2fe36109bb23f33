// vaultry list: what the store holds, oldest first, so that the newest stands next to the prompt.

#include "commands.h"
#include "document.h"
#include "entries.h"
#include "failure.h"
#include "history.h"
#include "listing.h"
#include "store.h"
#include "text.h"
#include "time_option.h"

#include <vaultry/number.h>
#include <vaultry/url.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

// The two groups of clients, which info queries tell apart by a bit of the options word.
static constexpr uint64_t kSecondClientBit = 0x4;
static constexpr char kSecondClient[] = "nimbusync";

// The user's conditions, except for the document.
class Filter {
public:
    explicit Filter(const Arguments &arguments)
        : client_(arguments.client), with_(Word(arguments.withOptions)), without_(Word(arguments.withoutOptions))
    {
        if (arguments.since) since_ = FirstMomentOf("--since", *arguments.since);
        if (arguments.until) until_ = LastMomentOf("--until", *arguments.until);
    }

    bool Admits(uint64_t options) const
    {
        const bool second = (options & kSecondClientBit) != 0;
        return (!client_ || second == (*client_ == kSecondClient)) && (with_ == 0 || (options & with_) != 0) &&
               (options & without_) == 0;
    }

    bool isAny() const { return client_ || with_ != 0 || without_ != 0 || since_ || until_; }

    // One without a time is of no span.
    bool Admits(const std::optional<double> &time) const
    {
        return (!since_ && !until_) || (time && (!since_ || *time >= *since_) && (!until_ || *time <= *until_));
    }

private:
    static uint64_t Word(const std::optional<std::string> &text)
    {
        if (!text) return 0;
        char *end = nullptr;
        errno = 0;
        const uint64_t word = strtoull(text->c_str(), &end, 0);
        if (text->empty() || text->front() == '-' || *end != '\0' || errno != 0)
            throw CommandFailure(kExitUsage, Quoted(*text) + " is no number of 64 bits");
        return word;
    }

    const std::optional<std::string> client_;
    const uint64_t with_, without_;
    std::optional<double> since_, until_;
};

static Entry _ToEntry(const TQDictionary *record)
{
    return {TextOf(record, "name"), ToGenerationInfo(static_cast<const TQDictionary *>(EntryOf(record, "info"))),
            static_cast<uint64_t>(TQNumberGetInt64(EntryOf(record, "options"))), TextOf(record, "ODN")};
}

// Reads all wanted generations in one go. False if that fails, as it does for a single damaged one; or if there are
// more, since the query ends without an error if the store's directory can't be read any further.
static bool _ReadAll(const Store &store, const std::string &document, const Filter &filter, std::vector<Entry> &entries)
try {
    std::set<std::string> found;
    const bool areRead = ForEachRecord(store, [&](const TQDictionary *record) {
        Entry entry = _ToEntry(record);
        found.insert(entry.name);
        if (!filter.Admits(entry.options) || !filter.Admits(entry.info.time)) return;
        if (!document.empty() && entry.info.document != document) return;
        entry.size = entry.info.size;
        if (!entry.size) entry.size = SizeOfTree(TQURLGetPath(static_cast<const TQURL *>(EntryOf(record, "URL"))));
        entries.push_back(std::move(entry));
    });
    const std::set<std::string> names = PeekAtNames(store.path());
    return areRead && std::includes(found.begin(), found.end(), names.begin(), names.end());
} catch (const CommandFailure &) {
    return false; // reading one by one tells which
}

// Reads one generation as far as possible; none if it went meanwhile or is not wanted. If its document can't be read,
// it does not count as a generation of any document.
static std::optional<Entry> _ReadEntry(const Store &store, const std::string &name, const std::string &document,
                                       const Filter &filter, Problems &problems)
{
    const uint64_t options = TQClientManagedStorageGetGenerationOptions(store.handle(), name.c_str(), nullptr);
    if (!filter.Admits(options)) return std::nullopt;
    Entry entry{name, {}, options, ""};
    problems.Note([&] { entry.info = store.InfoOf(name); });
    entry.isKnown = problems.none();
    problems.Note([&] { entry.displayName = store.DisplayNameOf(name); });
    problems.Note([&] { entry.size = entry.info.size ? *entry.info.size : SizeOfTree(store.PathOf(name)); });
    entry.problems = problems.texts();
    if (!problems.none() && store.Lacks(name)) {
        problems = {};
        return std::nullopt;
    }
    if (!document.empty() && entry.info.document != document) return std::nullopt;
    if (entry.isKnown && !filter.Admits(entry.info.time)) return std::nullopt;
    return entry;
}

// Reads each by itself, so that a damaged one does not hide the others. Says what is wrong with each.
static int _ReadOneByOne(const Store &store, const std::string &document, const Filter &filter,
                         std::vector<Entry> &entries)
{
    int exitCode = kExitSuccess;
    entries.clear();
    for (const std::string &name : store.Names()) {
        Problems problems;
        if (auto entry = _ReadEntry(store, name, document, filter, problems)) entries.push_back(std::move(*entry));
        problems.SayAll();
        if (exitCode == kExitSuccess) exitCode = problems.exitCode();
    }
    return exitCode;
}

int RunList(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const Filter filter(arguments);
    const std::optional<Store> store = Store::OpenExisting(path);
    if (!store && IsStoreNamed(arguments.store)) (void)Store::RequireMade(path); // says what is missing
    if (!store) {
        Say("there is no store at " + Quoted(path) + " yet: add or init makes one");
        return kExitSuccess;
    }

    const std::string document = arguments.document.empty() ? "" : DocumentPathIfKnown(arguments.document);
    std::vector<Entry> entries;
    int exitCode = kExitSuccess;
    if (!_ReadAll(*store, document, filter, entries)) exitCode = _ReadOneByOne(*store, document, filter, entries);
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return std::tuple(a.info.time.value_or(0), a.name) < std::tuple(b.info.time.value_or(0), b.name);
    });
    if (arguments.limit && entries.size() > *arguments.limit)
        entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(*arguments.limit));
    if (arguments.reverse) std::reverse(entries.begin(), entries.end());
    if (arguments.byDocument)
        PrintDocuments(entries, arguments.json);
    else
        PrintEntries(entries, arguments.json, arguments.longList);
    if (arguments.json) return exitCode;
    if (entries.empty() && exitCode == kExitSuccess)
        Say("the store " + Quoted(path) + " holds no " + (filter.isAny() ? "such " : "") + "generations" +
            (document.empty() ? "" : " of " + Quoted(document)));
    return exitCode;
}
