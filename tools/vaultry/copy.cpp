// vaultry copy: brings a generation back as an ordinary, writable document.

#include "commands.h"
#include "copying_out.h"
#include "document.h"
#include "failure.h"
#include "generation.h"
#include "interrupt.h"
#include "json.h"
#include "naming.h"
#include "output.h"
#include "store.h"
#include "text.h"

#include <vaultry/filesystem.h>

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

// The message of Ctrl-C while the copy is made, which can't be stopped half-way.
static constexpr char kCopyIsRemoved[] = "stopping: the copy is removed as soon as it is through; "
                                         "once more ends at once and leaves what is there";

// The item's name; or the document's, if the store knows it; else the generation's own name.
static std::string _OwnName(const Store &store, const GenerationItem &item)
{
    const std::string &name = item.name;
    if (item.isInner()) return BaseName(*item.inner);
    std::string own;
    try {
        own = BaseName(store.InfoOf(name).document.value_or(""));
    } catch (const CommandFailure &failure) { // the generation can still be copied
        Say(failure);
    }
    // Any client may have written it, so it is checked before it becomes part of a path.
    return own.empty() || own == "." || own == ".." || own.find('\0') != own.npos ? name : own;
}

// As with cp: into an existing directory, else under exactly this name.
static std::string _DestinationPath(const Store &store, const GenerationItem &item, const std::string &given)
{
    if (given.empty()) throw CommandFailure(kExitUsage, "the destination is empty");
    const std::string path = WithoutTrailingSlashes(given);
    struct stat status {};
    const bool isThere = stat(path.c_str(), &status) == 0;
    if (!isThere && errno != ENOENT) throw CommandFailure::Errno("can't copy to " + Quoted(given), errno).At(path);
    if (isThere && S_ISDIR(status.st_mode)) return path + "/" + _OwnName(store, item);
    if (given.back() == '/') throw CommandFailure(kExitFailure, "there is no directory " + Quoted(given)).At(path);
    return path;
}

// The destination's absolute path, free of links except for an item at the destination itself.
static std::string _FreeDestination(const Store &store, const std::string &given)
{
    const size_t slash = given.rfind('/');
    const std::string parent = slash == given.npos ? "." : given.substr(0, slash + 1);
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(parent.c_str(), nullptr), free);
    if (!resolved) throw CommandFailure::Errno("can't copy to the directory " + Quoted(parent), errno).At(parent);
    const std::string folder = std::string(resolved.get()) == "/" ? "" : resolved.get();
    const std::string destination = folder + "/" + BaseName(given);

    struct stat status {};
    // The library takes a dangling link for nothing, and would remove it after failing on it.
    if (lstat(destination.c_str(), &status) == 0)
        throw CommandFailure(kExitExists, Quoted(destination) + " is there already, and nothing is ever replaced")
            .At(destination);
    if (errno != ENOENT) throw CommandFailure::Errno("can't copy to " + Quoted(destination), errno).At(destination);

    // Root could write there, and would make an unprotected generation.
    if (destination.rfind(store.path() + "/", 0) == 0)
        throw CommandFailure(kExitFailure, Quoted(destination) + " is inside the store " + Quoted(store.path()))
            .At(destination);
    return destination;
}

// Whether the item at `destination` is still the copy: the copy has the generation's time, and anybody who saves there
// leaves another. Volumes keep times to two seconds at worst. Nothing tells which inode the copy got.
static bool _IsCopyOf(const std::string &generation, const std::string &destination)
{
    struct stat kept {
    }, copy{};
    const bool areThere = IsThere(generation, &kept) && IsThere(destination, &copy);
    const bool isRounded = copy.st_mtim.tv_nsec == 0;
    return areThere && ((kept.st_mode ^ copy.st_mode) & S_IFMT) == 0 &&
           (S_ISDIR(copy.st_mode) || kept.st_size == copy.st_size) &&
           (isRounded ? std::abs(kept.st_mtim.tv_sec - copy.st_mtim.tv_sec) <= 2
                      : kept.st_mtim.tv_sec == copy.st_mtim.tv_sec && kept.st_mtim.tv_nsec == copy.st_mtim.tv_nsec);
}

// Removes the copy after a signal that came too late to stop it. Leaves alone what somebody else has put in its place.
static void _TakeBack(const std::string &generation, const std::string &destination)
{
    if (!_IsCopyOf(generation, destination))
        throw CommandFailure(InterruptGuard::ExitCode(),
                             "stopped, but what is at " + Quoted(destination) + " stays: it was changed meanwhile")
            .At(destination);
    Owned<TQError> error;
    if (!_RemoveTree(destination.c_str(), 0, error.out()))
        throw CommandFailure::Library("stopped, but can't remove " + Quoted(destination), error.get())
            .At(destination)
            .ExitingWith(InterruptGuard::ExitCode());
    throw CommandFailure(InterruptGuard::ExitCode(), "stopped: nothing was copied");
}

static std::string _CopyTo(const Arguments &arguments, GenerationItem &item, std::string &kept)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    item = ChosenItem(store, arguments);
    const std::string destination = _FreeDestination(store, _DestinationPath(store, item, arguments.destination));
    CopyOut(item.PathIn(store), destination, "can't copy " + Quoted(item.asTyped()) + " to " + Quoted(destination),
            [&](TQError **error) {
                const char *const name = item.name.c_str(), *const to = destination.c_str();
                return item.isInner() ? TQClientManagedStorageCopyGenerationItem(store.handle(), name,
                                                                                 item.inner->c_str(), to, error)
                                      : TQClientManagedStorageCopyGeneration(store.handle(), name, to, error);
            });
    if (InterruptGuard::Came()) kept = item.PathIn(store);
    return destination;
}

int RunCopy(const Arguments &arguments)
{
    const InterruptGuard interrupts(kCopyIsRemoved);
    GenerationItem item;
    std::string destination, kept;
    try {
        destination = _CopyTo(arguments, item, kept);
    } catch (const CommandFailure &) {
        if (!InterruptGuard::Came()) throw; // otherwise it failed because it was stopped
        throw CommandFailure(InterruptGuard::ExitCode(), "stopped: nothing was copied");
    }
    if (InterruptGuard::Came()) _TakeBack(kept, destination);
    if (arguments.json) {
        Json object;
        PutBytes(object, "generation", item.name);
        if (item.isInner()) PutBytes(object, "item", *item.inner);
        PutBytes(object, "destination", destination);
        PrintLine(object);
    } else {
        const std::string shown = isatty(STDOUT_FILENO) ? Printable(destination) : destination;
        puts(shown.c_str());
    }
    RequireOutput(Quoted(item.asTyped()) + " is copied to " + Quoted(destination));
    return kExitSuccess;
}
