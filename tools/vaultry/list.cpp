// vaultry list: what the store holds, oldest first, so that the newest stands next to the prompt.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "history.h"
#include "json.h"
#include "store.h"
#include "text.h"
#include "times.h"

#include <vaultry/number.h>
#include <vaultry/url.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

// The two groups of clients, which info queries tell apart by a bit of the options word.
static constexpr uint64_t kSecondClientBit = 0x4;
static constexpr char kSecondClient[] = "nimbusync";

struct Entry {
    std::string name;
    GenerationInfo info;
    uint64_t options;
    std::string displayName;
    std::optional<uint64_t> size = {};      // none if it can't be read
    std::vector<std::string> problems = {}; // with reading this generation
    bool isKnown = true;                    // whether the info could be read
};

// The user's conditions, except for the document.
class Filter {
public:
    explicit Filter(const Arguments &arguments)
        : client_(arguments.client), with_(Word(arguments.withOptions)), without_(Word(arguments.withoutOptions))
    {
    }

    bool Admits(uint64_t options) const
    {
        const bool second = (options & kSecondClientBit) != 0;
        return (!client_ || second == (*client_ == kSecondClient)) && (with_ == 0 || (options & with_) != 0) &&
               (options & without_) == 0;
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
};

static const TQValue *_Lookup(const TQDictionary *dictionary, const std::string &key)
{
    return TQDictionaryGetValue(dictionary, MakeString(key).get());
}

static Entry _ToEntry(const TQDictionary *record)
{
    return {ToText(static_cast<const TQString *>(_Lookup(record, "name"))),
            ToGenerationInfo(static_cast<const TQDictionary *>(_Lookup(record, "info"))),
            static_cast<uint64_t>(TQNumberGetInt64(_Lookup(record, "options"))),
            ToText(static_cast<const TQString *>(_Lookup(record, "ODN")))};
}

// Reads all wanted generations in one go. False if that fails, as it does for a single damaged one; or if there are
// more, since the query ends without an error if the store's directory can't be read any further.
static bool _ReadAll(const Store &store, const std::string &document, const Filter &filter, std::vector<Entry> &entries)
try {
    std::set<std::string> found;
    const bool areRead = ForEachRecord(store, [&](const TQDictionary *record) {
        Entry entry = _ToEntry(record);
        found.insert(entry.name);
        if (!filter.Admits(entry.options) || (!document.empty() && entry.info.document != document)) return;
        entry.size = entry.info.size;
        if (!entry.size) entry.size = SizeOfTree(TQURLGetPath(static_cast<const TQURL *>(_Lookup(record, "URL"))));
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

static void _PrintJson(const std::vector<Entry> &entries)
{
    for (const Entry &entry : entries) {
        Json object;
        PutBytes(object, "name", entry.name);
        if (entry.info.document) PutBytes(object, "document", *entry.info.document);
        if (entry.info.time) object["kept"] = IsoTime(*entry.info.time);
        if (entry.size) object["size"] = *entry.size;
        object["options"] = entry.options;
        if (!entry.displayName.empty()) PutBytes(object, "display_name", entry.displayName);
        if (entry.info.backupOf) PutBytes(object, "backup_of", *entry.info.backupOf);
        if (!entry.problems.empty()) object["problems"] = entry.problems;
        PrintLine(object);
    }
}

static void _PrintTable(const std::vector<Entry> &entries, bool isLong)
{
    using Align = Table::Align;
    std::vector<Table::Column> columns = {{"NAME", Align::Left}, {"TIME", Align::Left}, {"SIZE", Align::Right}};
    if (isLong) columns.insert(columns.end(), {{"OPTIONS", Align::Right}, {"SHOWN AS", Align::Left}});
    columns.push_back({"DOCUMENT", Align::Left});
    Table table(columns);
    for (const Entry &entry : entries) {
        char options[32];
        snprintf(options, sizeof options, "0x%llx", static_cast<unsigned long long>(entry.options));
        const std::string none = entry.isKnown ? "-" : "?";
        std::vector<std::string> cells = {Printable(entry.name), entry.info.time ? HumanTime(*entry.info.time) : none,
                                          entry.size ? HumanSize(*entry.size) : "?"};
        if (isLong) {
            cells.push_back(options);
            cells.push_back(entry.displayName.empty() ? "-" : Printable(entry.displayName));
        }
        const std::string backup = entry.info.backupOf ? " (put aside)" : "";
        cells.push_back(entry.info.document ? Printable(*entry.info.document) + backup : none);
        table.AddRow(std::move(cells));
    }
    table.Print(stdout);
}

int RunList(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const Filter filter(arguments);
    const std::optional<Store> store = Store::OpenExisting(path);
    if (!store) {
        Say("there is no store at " + Quoted(path) +
            " yet: " + (IsStoreNamed(arguments.store) ? "\"init --store DIR\" makes one" : "add or init makes one"));
        return kExitSuccess;
    }

    const std::string document = arguments.document.empty() ? "" : DocumentPathIfKnown(arguments.document);
    std::vector<Entry> entries;
    int exitCode = kExitSuccess;
    if (!_ReadAll(*store, document, filter, entries)) exitCode = _ReadOneByOne(*store, document, filter, entries);
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return std::tuple(a.info.time.value_or(0), a.name) < std::tuple(b.info.time.value_or(0), b.name);
    });
    if (arguments.json) {
        _PrintJson(entries);
        return exitCode;
    }
    _PrintTable(entries, arguments.longList);
    if (entries.empty() && exitCode == kExitSuccess)
        Say(document.empty() ? "the store " + Quoted(path) + " holds no generations"
                             : "the store " + Quoted(path) + " holds no generations of " + Quoted(document));
    return exitCode;
}
