// vaultry diff: what has changed between a generation and its document, or another generation.
//
// The trees are compared here, so that only files that differ are named; the system's diff shows changes inside a text.

#include "commands.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "output.h"
#include "pager.h"
#include "text.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

// As with diff(1), items that can't be compared do not count as different. A failure with an exit code of its own keeps
// that.
static constexpr int kExitDiffers = 1;
static constexpr int kExitTrouble = 2;

struct Side {
    std::string path;
    std::string label;
};

struct CloseFile {
    void operator()(FILE *file) const { (void)fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, CloseFile>;

static std::string _Join(const std::string &root, const std::string &below)
{
    return below.empty() ? root : root + "/" + below;
}

// Every item below a root by its relative path; "" is the root itself.
using Items = std::map<std::string, fs::file_type>;

static void _Collect(const std::string &root, const std::string &below, Items &items)
{
    const std::string path = _Join(root, below);
    std::error_code error;
    const fs::file_type type = fs::symlink_status(path, error).type();
    if (error) throw CommandFailure::Errno("can't look at " + Quoted(path), error.value());
    items[below] = type;
    if (type != fs::file_type::directory) return;
    fs::directory_iterator item(path, error);
    for (const fs::directory_iterator end; !error && item != end; item.increment(error)) {
        if (!IsSidecar(item->path())) _Collect(root, fs::path(below) / item->path().filename(), items);
    }
    if (error) throw CommandFailure::Errno("can't read the directory " + Quoted(path), error.value());
}

static Items _ItemsOf(const std::string &root)
{
    Items items;
    _Collect(root, "", items);
    return items;
}

static UniqueFile _Open(const std::string &path)
{
    UniqueFile file(fopen(path.c_str(), "rbe"));
    if (!file) throw CommandFailure::Errno("can't read " + Quoted(path), errno);
    return file;
}

static size_t _Read(FILE *file, const std::string &path, char *buffer, size_t size)
{
    const size_t count = fread(buffer, 1, size, file);
    if (ferror(file)) throw CommandFailure::Errno("can't read " + Quoted(path), errno);
    return count;
}

static bool _SameBytes(const std::string &a, const std::string &b)
{
    const UniqueFile first = _Open(a), second = _Open(b);
    char one[65536], other[65536];
    for (;;) {
        const size_t count = _Read(first.get(), a, one, sizeof one);
        if (_Read(second.get(), b, other, sizeof other) != count || memcmp(one, other, count) != 0) return false;
        if (count == 0) return true;
    }
}

// The system's diff shows the changed lines of a text, or says that binary files differ.
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
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) return; // whoever reads has seen enough
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1)
        throw CommandFailure(kExitFailure, "diff could not compare " + Quoted(first) + " with " + Quoted(second));
}

class Comparison {
public:
    Comparison(Side a, Side b, bool json) : a_(std::move(a)), b_(std::move(b)), json_(json) {}

    bool Differs()
    {
        const Items first = _ItemsOf(a_.path), second = _ItemsOf(b_.path);
        for (const auto &[below, type] : first) {
            const auto other = second.find(below);
            if (other == second.end())
                Report(below, "removed", "only in " + Printable(a_.label));
            else
                CompareItem(below, type, other->second);
        }
        for (const auto &[below, type] : second)
            if (!first.contains(below)) Report(below, "added", "only in " + Printable(b_.label));
        return differs_;
    }

private:
    void CompareItem(const std::string &below, fs::file_type first, fs::file_type second)
    {
        if (first != second) return Report(below, "kind", "another kind of item");
        if (first == fs::file_type::symlink) return CompareLinks(below);
        if (first != fs::file_type::regular || _SameBytes(_Join(a_.path, below), _Join(b_.path, below))) return;
        if (json_) return Report(below, "content", "");
        differs_ = true;
        _ShowContents(a_, b_, below);
    }

    void CompareLinks(const std::string &below)
    {
        std::error_code error, otherError;
        const fs::path first = fs::read_symlink(_Join(a_.path, below), error);
        const fs::path second = fs::read_symlink(_Join(b_.path, below), otherError);
        if (error || otherError)
            throw CommandFailure::Errno("can't read the link " + Quoted(below), (error ? error : otherError).value());
        if (first != second)
            Report(below, "content", "a link to " + Quoted(first.native()) + ", now to " + Quoted(second.native()));
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

// A document if it exists, else a generation; without an argument, the document that the generation was made from.
static Side _OtherSide(const Store &store, const std::string &name, const std::string &given)
{
    const std::string document = given.empty() ? store.InfoOf(name).document.value_or("") : DocumentPath(given);
    std::error_code error;
    const fs::file_type type = document.empty() ? fs::file_type::not_found : fs::symlink_status(document, error).type();
    if (type == fs::file_type::none) throw CommandFailure::Errno("can't look at " + Quoted(document), error.value());
    if (type != fs::file_type::not_found) return {document, document};
    if (given.empty())
        throw CommandFailure(kExitFailure,
                             "the document of " + Quoted(name) +
                                 (document.empty() ? " is not known" : ", " + Quoted(document) + ", is not there"));
    const std::string other = ResolveGeneration(store, given);
    return {store.PathOf(other), other};
}

static bool _Differs(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const std::string name = ChosenGeneration(store, arguments.choice, arguments.name);
    Comparison comparison({store.PathOf(name), name}, _OtherSide(store, name, arguments.other), arguments.json);
    bool differs = false;
    {
        const Pager pager(arguments.json ? 0 : SIZE_MAX);
        differs = comparison.Differs();
    }
    RequireOutput(); // or else it would pass for a difference
    return differs;
}

int RunDiff(const Arguments &arguments)
{
    try {
        return _Differs(arguments) ? kExitDiffers : kExitSuccess;
    } catch (const CommandFailure &failure) {
        if (failure.exitCode() != kExitDiffers) throw;
        throw failure.ExitingWith(kExitTrouble);
    }
}
