// vaultry moved: tells that a document has another path now, so that its history is found there.
//
// What it notes can be noted back, but two histories that were joined can't be told apart again. So it asks for a word
// where the two paths do not look like those of one document that was moved.

#include "carrying_over.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "location.h"
#include "naming.h"
#include "nearest.h"
#include "text.h"

static std::string _Count(size_t count)
{
    return std::to_string(count) + (count == 1 ? " generation" : " generations");
}

// The paths that a document may have had: a link may stand in its place by now, or in that of a folder on the way.
static std::vector<std::string> _FormerPaths(const std::string &given)
{
    const std::string path = AbsolutePath(WithoutTrailingSlashes(given)), name = BaseName(path);
    const std::string folder = DocumentPathIfKnown(path.substr(0, path.size() - name.size()));
    return {(folder == "/" ? "" : folder) + "/" + name, DocumentPathIfKnown(given), path};
}

static bool _IsDocument(const std::string &path)
{
    struct stat status {};
    return IsThere(path, &status) && !S_ISLNK(status.st_mode);
}

static void _RequireMove(const std::string &from, const std::string &to, size_t alreadyThere)
{
    std::string doubts;
    const auto doubt = [&](const std::string &what) { doubts += (doubts.empty() ? "" : ", and ") + what; };
    // Where a folder on the way is a link by now, it is the same document.
    if (_IsDocument(from) && DocumentPathIfKnown(from) != to) doubt(Quoted(from) + " is still there");
    if (!_IsDocument(to)) doubt(Quoted(to) + " is not there");
    if (alreadyThere > 0) doubt(Quoted(to) + " has a history of its own, " + _Count(alreadyThere));
    if (!doubts.empty())
        throw CommandFailure(kExitFailure, doubts + ": --anyway carries the history over all the same").At(to);
}

int RunMoved(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    if (arguments.document.empty()) throw CommandFailure(kExitUsage, "the name of a document is empty");
    const std::string to = DocumentPath(arguments.other);
    Problems problems; // what can't be read may be of the document
    const std::vector<Kept> history = ReadHistory(store, problems);
    std::vector<std::string> names;
    std::string from;
    for (const std::string &path : _FormerPaths(arguments.document)) {
        if (!names.empty() || path == to) continue;
        from = path;
        names = NamesOf(history, from);
    }
    if (from.empty()) throw CommandFailure(kExitUsage, Quoted(to) + " is the path of both");
    if (names.empty()) {
        problems.SayAll();
        throw CommandFailure(kExitNoSuchGeneration, "the store " + Quoted(store.path()) + " holds no generation of " +
                                                        Quoted(from) + DidYouMean(NearestDocument(history, from)))
            .At(from);
    }
    TellOfLink(arguments.other, to);
    if (!arguments.anyway) _RequireMove(from, to, NamesOf(history, to).size());
    const size_t carried = CarryOver(store, names, to, problems);
    if (arguments.json) {
        Json object;
        PutBytes(object, "from", from);
        PutBytes(object, "document", to);
        object["generations"] = carried;
        PrintLine(object);
    } else {
        printf("%s of %s %s of %s now\n", _Count(carried).c_str(), Quoted(from).c_str(), carried == 1 ? "is" : "are",
               Quoted(to).c_str());
    }
    problems.SayAll();
    return problems.exitCode();
}
