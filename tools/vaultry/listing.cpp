// See listing.h.

#include "listing.h"

#include "json.h"
#include "text.h"
#include "times.h"

#include <algorithm>
#include <cstdio>
#include <map>

static void _PrintAsJson(const std::vector<Entry> &entries)
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
        if (entry.info.isPinned) object["pinned"] = true;
        if (!entry.problems.empty()) object["problems"] = entry.problems;
        PrintLine(object);
    }
}

static std::string _MarksOf(const GenerationInfo &info)
{
    return std::string(info.backupOf ? " (put aside)" : "") + (info.isPinned ? " (pinned)" : "");
}

static void _PrintAsTable(const std::vector<Entry> &entries, bool isLong)
{
    using Align = Table::Align;
    std::vector<Table::Column> columns = {{"NAME", Align::Left}, {"TIME", Align::Left}, {"SIZE", Align::Right}};
    if (isLong) columns.insert(columns.end(), {{"OPTIONS", Align::Right}, {"SHOWN AS", Align::Left}});
    columns.push_back({"DOCUMENT", Align::Path});
    Table table(columns);
    for (const Entry &entry : entries) {
        const std::string none = entry.isKnown ? "-" : "?";
        std::vector<std::string> cells = {Printable(entry.name), entry.info.time ? HumanTime(*entry.info.time) : none,
                                          entry.size ? HumanSize(*entry.size) : "?"};
        if (isLong) {
            cells.push_back(OptionsText(entry.options));
            cells.push_back(entry.displayName.empty() ? "-" : Printable(entry.displayName));
        }
        const std::string marks = _MarksOf(entry.info);
        cells.push_back((entry.info.document ? Printable(*entry.info.document) : none) + marks);
        table.AddRow(std::move(cells));
    }
    table.Print();
}

void PrintEntries(const std::vector<Entry> &entries, bool asJson, bool isLong)
{
    if (asJson)
        _PrintAsJson(entries);
    else
        _PrintAsTable(entries, isLong);
}

// What is kept of one document, or of none that is known.
struct History {
    std::optional<std::string> document;
    size_t count = 0;
    std::optional<double> first = {}, last = {};
    uint64_t size = 0; // of all, as if nothing were shared
};

static std::vector<History> _HistoriesOf(const std::vector<Entry> &entries)
{
    std::vector<History> histories;
    std::map<std::optional<std::string>, size_t> places;
    for (const Entry &entry : entries) {
        const auto [place, isNew] = places.emplace(entry.info.document, histories.size());
        if (isNew) histories.push_back({entry.info.document});
        History &history = histories[place->second];
        ++history.count;
        history.size += entry.size.value_or(0);
        if (const auto &time = entry.info.time) {
            history.first = std::min(history.first.value_or(*time), *time);
            history.last = std::max(history.last.value_or(*time), *time);
        }
    }
    return histories;
}

static void _PrintDocumentAsJson(const History &history)
{
    Json object;
    if (history.document) PutBytes(object, "document", *history.document);
    object["count"] = history.count;
    if (history.first) object["first"] = IsoTime(*history.first);
    if (history.last) object["last"] = IsoTime(*history.last);
    object["size"] = history.size;
    PrintLine(object);
}

void PrintDocuments(const std::vector<Entry> &entries, bool asJson)
{
    using Align = Table::Align;
    Table table({{"COUNT", Align::Right},
                 {"FIRST", Align::Left},
                 {"LAST", Align::Left},
                 {"SIZE", Align::Right},
                 {"DOCUMENT", Align::Path}});
    const auto shown = [](const std::optional<double> &time) { return time ? HumanTime(*time) : "-"; };
    for (const History &history : _HistoriesOf(entries))
        if (asJson)
            _PrintDocumentAsJson(history);
        else
            table.AddRow({std::to_string(history.count), shown(history.first), shown(history.last),
                          HumanSize(history.size), history.document ? Printable(*history.document) : "-"});
    if (!asJson) table.Print();
}
