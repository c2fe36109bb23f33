// See inner_item.h.

#include "inner_item.h"

#include "document.h"
#include "failure.h"
#include "location.h"
#include "naming.h"
#include "nearest.h"
#include "text.h"

#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

// How far the way leads.
struct Way {
    std::string last; // the item itself, or the first that is missing
    bool isThere = false;
    struct stat status {};
};

static Way _Follow(const std::string &top, const std::string &label, const std::string &inner)
{
    Way way;
    way.isThere = IsThere(top, &way.status);
    for (size_t start = 0, end = 0; way.isThere && end != inner.npos; start = end + 1) {
        const std::string shown = Quoted(start == 0 ? label : label + "/" + way.last);
        if (S_ISLNK(way.status.st_mode))
            throw CommandFailure(kExitFailure, shown + " is a link, and no way to " + Quoted(inner));
        if (!S_ISDIR(way.status.st_mode))
            throw CommandFailure(kExitNoSuchGeneration, shown + " is a file, and holds no items");
        end = inner.find('/', start);
        way.last = inner.substr(0, end);
        way.isThere = IsThere(top + "/" + way.last, &way.status);
    }
    return way;
}

std::string CheckedInnerPath(const std::string &given)
{
    const std::string path = WithoutTrailingSlashes(given);
    for (size_t start = 0, end = 0; end != path.npos; start = end + 1) {
        end = path.find('/', start);
        const std::string component = path.substr(start, end - start);
        if (component.empty() || component == "." || component == "..")
            throw CommandFailure(kExitUsage, Quoted(given) + " is no path of an item: one is like chapters/one.txt");
    }
    return path;
}

std::optional<struct stat> LookForItem(const std::string &top, const std::string &label, const std::string &inner)
{
    const Way way = _Follow(top, label, inner);
    return way.isThere ? std::optional(way.status) : std::nullopt;
}

struct stat RequireItem(const std::string &top, const std::string &name, const std::string &inner)
{
    const Way way = _Follow(top, name, inner);
    if (way.isThere && IsSidecar(top + "/" + inner))
        throw CommandFailure(kExitNoSuchGeneration,
                             Quoted(name + "/" + inner) + " can't be copied out: files named \"._...\" are left out");
    if (way.isThere) return way.status;
    const std::string own = BaseName(way.last), folder = way.last.substr(0, way.last.size() - own.size());
    std::vector<std::string> others;
    std::error_code error; // then none is the nearest
    for (fs::directory_iterator item(top + "/" + folder, error), end; !error && item != end; item.increment(error))
        others.push_back(item->path().filename().native());
    const auto nearest = NearestTo(own, others, Match::Whole);
    throw CommandFailure(kExitNoSuchGeneration, "there is no item " + Quoted(way.last) + " in the generation " +
                                                    Quoted(name) +
                                                    DidYouMean(nearest ? std::optional(folder + *nearest) : nearest));
}
