// vaultry diff: what has changed between a generation and its document, or another generation.
//
// The trees are compared here, so that only files that differ are named; what changed inside a text is shown by the
// system's diff.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "text.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

struct Side {
    std::string path;
    std::string label;
};

// Every item below `root` by its relative path; "" is the root itself.
static std::map<std::string, fs::file_status> _ItemsOf(const std::string &root)
{
    std::map<std::string, fs::file_status> items{{"", fs::symlink_status(root)}};
    if (!fs::is_directory(items[""])) return items;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        const fs::file_status status = entry.symlink_status();
        if (!IsSidecar(entry.path())) items[entry.path().native().substr(root.size() + 1)] = status;
    }
    return items;
}

static bool _SameBytes(const std::string &a, const std::string &b)
{
    if (fs::file_size(a) != fs::file_size(b)) return false;
    std::ifstream first(a, std::ios::binary), second(b, std::ios::binary);
    char one[65536], other[65536];
    while (first && second) {
        first.read(one, sizeof one);
        second.read(other, sizeof other);
        if (first.gcount() != second.gcount() || !std::equal(one, one + first.gcount(), other)) return false;
    }
    return first.eof() && second.eof();
}

static std::string _Join(const std::string &root, const std::string &below)
{
    return below.empty() ? root : root + "/" + below;
}

// The system's diff says what it can: the lines of a text, or that binary files differ.
static void _ShowContents(const Side &a, const Side &b, const std::string &below)
{
    fflush(stdout);
    const std::string first = _Join(a.path, below), second = _Join(b.path, below);
    const std::string firstLabel = "--label=" + Printable(_Join(a.label, below));
    const std::string secondLabel = "--label=" + Printable(_Join(b.label, below));
    const char *arguments[] = {"diff", "--unified",   firstLabel.c_str(), secondLabel.c_str(),
                               "--",   first.c_str(), second.c_str(),     nullptr};
    pid_t child = -1;
    const int error = posix_spawnp(&child, "diff", nullptr, nullptr, const_cast<char **>(arguments), environ);
    if (error != 0) throw CommandFailure::Errno("can't run diff", error);
    (void)waitpid(child, nullptr, 0);
}

class Comparison {
public:
    Comparison(Side a, Side b, bool json) : a_(std::move(a)), b_(std::move(b)), json_(json) {}

    bool Differs()
    {
        const auto first = _ItemsOf(a_.path), second = _ItemsOf(b_.path);
        for (const auto &[below, status] : first) {
            const auto other = second.find(below);
            if (other == second.end())
                Report(below, "removed", "only in " + Printable(a_.label));
            else
                CompareItem(below, status, other->second);
        }
        for (const auto &[below, status] : second)
            if (first.count(below) == 0) Report(below, "added", "only in " + Printable(b_.label));
        return differs_;
    }

private:
    void CompareItem(const std::string &below, const fs::file_status &first, const fs::file_status &second)
    {
        if (first.type() != second.type()) return Report(below, "kind", "another kind of item");
        if (!fs::is_regular_file(first) || _SameBytes(_Join(a_.path, below), _Join(b_.path, below))) return;
        if (json_) return Report(below, "content", "");
        differs_ = true;
        _ShowContents(a_, b_, below);
    }

    void Report(const std::string &below, const char *change, const std::string &words)
    {
        differs_ = true;
        if (!json_) {
            printf("%s: %s\n", below.empty() ? "." : Printable(below).c_str(), words.c_str());
            return;
        }
        Json object;
        PutBytes(object, "path", below);
        object["change"] = change;
        PrintLine(object);
    }

    const Side a_, b_;
    const bool json_;
    bool differs_ = false;
};

// A document that is there, else a generation; without either, the document that the generation was made of.
static Side _OtherSide(const Store &store, const std::string &name, const std::string &given)
{
    const std::string document = given.empty() ? store.InfoOf(name).document.value_or("") : DocumentPath(given);
    if (!document.empty() && fs::exists(fs::symlink_status(document))) return {document, document};
    if (given.empty())
        throw CommandFailure(kExitFailure,
                             "the document of " + Quoted(name) +
                                 (document.empty() ? " is not known" : ", " + Quoted(document) + ", is not there"));
    const std::string other = ResolveGeneration(store, given);
    return {store.PathOf(other), other};
}

int RunDiff(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string name = ResolveGeneration(store, arguments.name);
    Comparison comparison({store.PathOf(name), name}, _OtherSide(store, name, arguments.other), arguments.json);
    return comparison.Differs() ? kExitFailure : kExitSuccess;
}
