// vaultry show NAME/item: what is known of one item of a folder, and what a folder holds.

#include "show_item.h"

#include "description.h"
#include "document.h"
#include "failure.h"
#include "json.h"
#include "location.h"
#include "text.h"
#include "times.h"

#include <cerrno>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

static const char *_KindOf(const struct stat &status)
{
    return S_ISDIR(status.st_mode)   ? "directory"
           : S_ISREG(status.st_mode) ? "file"
           : S_ISLNK(status.st_mode) ? "link"
                                     : "other";
}

static std::string _TargetOf(const std::string &link)
{
    std::error_code error;
    const fs::path target = fs::read_symlink(link, error);
    if (error) throw CommandFailure::Errno("can't read the link " + Quoted(link), error.value());
    return target.native();
}

// A link has neither rights nor a size of its own.
static void _DescribeLink(const std::string &path, const struct stat &status, Json &object)
{
    object["kind"] = _KindOf(status);
    PutBytes(object, "target", _TargetOf(path));
    object["owner"] = status.st_uid;
    object["group"] = status.st_gid;
    object["modified"] = IsoTime(ToSeconds(status.st_mtim));
}

// By name.
static Json _EntriesOf(const std::string &folder, Problems &problems)
{
    std::set<std::string> names;
    std::error_code error;
    fs::directory_iterator item(folder, error);
    for (const fs::directory_iterator end; !error && item != end; item.increment(error))
        names.insert(item->path().filename().native());
    problems.Note([&] {
        if (error) throw CommandFailure::Errno("can't read the directory " + Quoted(folder), error.value());
    });
    Json entries = Json::array();
    for (const std::string &name : names) {
        problems.Note([&] {
            const std::string path = folder + "/" + name;
            struct stat status {};
            if (!IsThere(path, &status) || IsSidecar(path)) return;
            Json entry;
            PutBytes(entry, "name", name);
            entry["kind"] = _KindOf(status);
            if (S_ISREG(status.st_mode)) entry["size"] = status.st_size;
            if (S_ISLNK(status.st_mode)) PutBytes(entry, "target", _TargetOf(path));
            entries.push_back(std::move(entry));
        });
    }
    return entries;
}

static constexpr size_t kSizeWidth = 10; // no size is wider

static std::vector<std::string> _LinesOf(const Json &entries)
{
    std::vector<std::string> lines;
    for (const Json &entry : entries) {
        const std::string kind = entry["kind"], name = Printable(entry["name"].get<std::string>());
        std::string size = kind == "file" ? HumanSize(entry["size"].get<uint64_t>()) : kind == "directory" ? "" : kind;
        size.resize(kSizeWidth, ' ');
        lines.push_back("  " + size + " " + name + (kind == "directory" ? "/" : ""));
        if (kind == "link") lines.back() += " -> " + Printable(entry["target"].get<std::string>());
    }
    return lines;
}

int ShowItem(const Store &store, const GenerationItem &item, bool json)
{
    Problems problems;
    const std::string path = item.PathIn(store);
    struct stat status {};
    if (!IsThere(path, &status)) throw CommandFailure::Errno("can't look at " + Quoted(path), ENOENT);
    Json object, entries = Json::array();
    PutBytes(object, "generation", item.name);
    if (item.isInner()) PutBytes(object, "item", *item.inner);
    if (S_ISLNK(status.st_mode))
        problems.Note([&] { _DescribeLink(path, status, object); });
    else
        problems.Note([&] { DescribeStored(path, object, problems); });
    PutBytes(object, "path", path);
    if (S_ISDIR(status.st_mode)) entries = _EntriesOf(path, problems);
    if (!problems.none()) object["problems"] = problems.texts();
    if (json) {
        if (S_ISDIR(status.st_mode)) object["entries"] = entries;
        PrintLine(object);
    } else {
        PrintDescription(object, _LinesOf(entries));
    }
    problems.SayAll();
    return problems.exitCode();
}
