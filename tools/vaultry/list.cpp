// vaultry list: what the store holds, oldest first, so that the newest stands next to the prompt.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "store.h"
#include "text.h"

#include <vaultry/archive.h>

#include <algorithm>

struct Entry {
    std::string name;
    GenerationInfo info;
    int64_t size; // -1 if it can't be told
};

// Reads one generation; none if it went meanwhile or is not the one looked for.
static std::optional<Entry> _ReadEntry(const Store &store, const std::string &name, const std::string &document)
{
    try {
        Entry entry{name, store.InfoOf(name), -1};
        if (!document.empty() && entry.info.document != document) return std::nullopt;
        entry.size = TQComputeTreeSize(store.PathOf(name).c_str(), nullptr);
        return entry;
    } catch (const CommandFailure &) {
        if (store.Lacks(name)) return std::nullopt;
        throw;
    }
}

int RunList(const Arguments &arguments)
{
    const std::string path = LocateStore(arguments.store);
    const std::optional<Store> store = Store::OpenExisting(path);
    if (!store) {
        Say("there is no store at " + Quoted(path) + " yet: add or init makes one");
        return kExitSuccess;
    }

    const std::string document = arguments.document.empty() ? "" : DocumentPath(arguments.document);
    std::vector<Entry> entries;
    int exitCode = kExitSuccess;
    for (const std::string &name : store->Names()) {
        try {
            if (auto entry = _ReadEntry(*store, name, document)) entries.push_back(std::move(*entry));
        } catch (const CommandFailure &failure) {
            Say(failure.what());
            exitCode = failure.exitCode();
        }
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry &a, const Entry &b) { return a.info.time.value_or(0) < b.info.time.value_or(0); });

    using Align = Table::Align;
    Table table({{"NAME", Align::Left}, {"TIME", Align::Left}, {"SIZE", Align::Right}, {"DOCUMENT", Align::Left}});
    for (const Entry &entry : entries)
        table.AddRow({Printable(entry.name), entry.info.time ? HumanTime(*entry.info.time) : "-",
                      entry.size < 0 ? "?" : HumanSize(static_cast<uint64_t>(entry.size)),
                      entry.info.document ? Printable(*entry.info.document) : "-"});
    table.Print(stdout);
    if (entries.empty() && exitCode == kExitSuccess)
        Say(document.empty() ? "the store " + Quoted(path) + " holds no generations"
                             : "the store " + Quoted(path) + " holds no generations of " + Quoted(document));
    return exitCode;
}
