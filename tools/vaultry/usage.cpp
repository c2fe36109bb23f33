// vaultry usage: what takes the store's room, and what would free it.
//
// This takes no lock, since it may read for long. What comes or goes meanwhile may be counted or not.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "room.h"
#include "store.h"
#include "text.h"
#include "times.h"

#include <algorithm>
#include <cerrno>
#include <sys/statvfs.h>
#include <tuple>

struct UsedBy {
    std::string name;
    GenerationInfo info;
    Room::Tree tree;
    bool isWhole;                      // whether all of the tree could be read
    std::vector<std::string> problems; // with reading it
};

struct Volume {
    uint64_t size, free; // free for this user
};

static Volume _VolumeOf(const std::string &path)
{
    struct statvfs volume {};
    if (statvfs(path.c_str(), &volume) != 0)
        throw CommandFailure::Errno("can't tell the free room of " + Quoted(path), errno);
    return {volume.f_blocks * volume.f_frsize, volume.f_bavail * volume.f_frsize};
}

// Measures the generations of a document, or all. Says what can't be read of each; the first exit code.
static int _Measure(const Store &store, const std::string &document, Room &room, std::vector<UsedBy> &used)
{
    int exitCode = kExitSuccess;
    const std::set<std::string> links = PeekAtLinks(store.path());
    for (const std::string &name : store.Names()) {
        Problems problems;
        if (links.contains(name)) {
            problems.Note([&] { RefuseLink(store, name); });
            problems.SayAll();
            if (exitCode == kExitSuccess) exitCode = problems.exitCode();
            continue;
        }
        UsedBy one{name, {}, {}, true, {}};
        problems.Note([&] { one.info = store.PeekAtInfoOf(name); });
        const size_t before = problems.texts().size();
        const bool isWanted = document.empty() || one.info.document == document;
        if (isWanted) one.tree = room.Add(store.path() + "/" + name, problems);
        one.isWhole = problems.texts().size() == before;
        if (!problems.none() && store.Lacks(name)) continue; // it went meanwhile
        problems.SayAll();
        if (exitCode == kExitSuccess) exitCode = problems.exitCode();
        one.problems = problems.texts();
        if (isWanted) used.push_back(std::move(one));
    }
    std::sort(used.begin(), used.end(), [](const UsedBy &a, const UsedBy &b) {
        return std::tuple(a.info.time.value_or(0), a.name) < std::tuple(b.info.time.value_or(0), b.name);
    });
    return exitCode;
}

static void _PrintTable(const std::vector<UsedBy> &used)
{
    using Align = Table::Align;
    Table table({{"NAME", Align::Left},
                 {"TIME", Align::Left},
                 {"SIZE", Align::Right},
                 {"FREES", Align::Right},
                 {"DOCUMENT", Align::Path}});
    for (const UsedBy &one : used) {
        const std::string atLeast = one.isWhole ? "" : ">";
        table.AddRow({Printable(one.name), one.info.time ? HumanTime(*one.info.time) : "-",
                      atLeast + HumanSize(one.tree.size), atLeast + HumanSize(one.tree.frees),
                      one.info.document ? Printable(*one.info.document) : "-"});
    }
    table.Print();
}

static void _PrintAsJson(const UsedBy &one)
{
    Json object;
    PutBytes(object, "name", one.name);
    if (one.info.document) PutBytes(object, "document", *one.info.document);
    if (one.info.time) object["kept"] = IsoTime(*one.info.time);
    object["size"] = one.tree.size;
    object["frees"] = one.tree.frees;
    if (!one.problems.empty()) object["problems"] = one.problems;
    PrintLine(object);
}

static void _PrintSums(const std::vector<UsedBy> &used, Room &room, const Volume &volume, bool asJson)
{
    uint64_t size = 0;
    for (const UsedBy &one : used) size += one.tree.size;
    if (asJson) {
        Json object;
        object["generations"] = used.size();
        object["size"] = size;
        object["taken"] = room.Taken();
        object["knows_clones"] = room.knowsClones();
        object["volume_size"] = volume.size;
        object["volume_free"] = volume.free;
        return PrintLine(object);
    }
    printf("%zu generation%s of %s take %s; %s of %s are free\n", used.size(), used.size() == 1 ? "" : "s",
           HumanSize(size).c_str(), HumanSize(room.Taken()).c_str(), HumanSize(volume.free).c_str(),
           HumanSize(volume.size).c_str());
    if (!room.knowsClones())
        puts("the volume does not tell what clones share: if there are any, that is counted each time");
}

int RunUsage(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string document = arguments.document.empty() ? "" : DocumentPathIfKnown(arguments.document);
    Room room;
    std::vector<UsedBy> used;
    const int exitCode = _Measure(store, document, room, used);
    const Volume volume = _VolumeOf(store.path());
    if (arguments.json)
        for (const UsedBy &one : used) _PrintAsJson(one);
    else
        _PrintTable(used);
    _PrintSums(used, room, volume, arguments.json);
    if (used.empty() && !document.empty() && exitCode == kExitSuccess)
        Say("the store " + Quoted(store.path()) + " holds no generations of " + Quoted(document));
    return exitCode;
}
