// The library's functions as words of the shell, for transcripts: `probe archive-item FILE`.
//
// A function that succeeds prints its result, or nothing. A failure is printed as it reaches a client and the log:
// "error 104 ENOENT: …", or "refused 105: …" if it is logged as the caller's fault. Other lines of the log are printed
// as "logged 3: …", quiet ones only for `probe -v`.

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Platform/SystemLog.h"
#include "Platform/TreeWalk.h"
#include "Platform/UniqueFd.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage.h"
#include "TQLibrary.h"
#include "support/Disk.h"
#include "support/Library.h"

#include <vaultry/vaultry.hpp>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <linux/fs.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// Sets the volume's clock ahead by $AHEAD seconds, since nobody can set the change times that it is compared with. The
// library reads the clock from a file without a name.
extern "C" int statx(int directory, const char *name, int flags, unsigned mask, struct statx *out) noexcept
{
    const auto result = static_cast<int>(syscall(SYS_statx, directory, name, flags, mask, out));
    const char *const ahead = getenv("AHEAD");
    if (result == 0 && ahead && out->stx_nlink == 0) out->stx_ctime.tv_sec += atol(ahead);
    return result;
}

// Ends an operation of another process while the library waits for that: removes its directory $ENDS.
extern "C" int nanosleep(const struct timespec *time, struct timespec *rest)
{
    const char *const ends = getenv("ENDS");
    if (!ends) return clock_nanosleep(CLOCK_REALTIME, 0, time, rest) == 0 ? 0 : -1;
    std::filesystem::remove_all(ends);
    return 0;
}

namespace {

struct Words {
    std::vector<std::string> words;
    const char *operator[](size_t i) const { return i < words.size() ? words[i].c_str() : nullptr; }
    bool Say(const char *word) const { return std::find(words.begin(), words.end(), word) != words.end(); }
    const char *After(const char *word) const
    {
        const auto found = std::find(words.begin(), words.end(), word);
        return found == words.end() ? nullptr : (*this)[static_cast<size_t>(found - words.begin()) + 1];
    }
};

bool Say(const auto &...said)
{
    (std::cout << ... << said) << '\n';
    return true;
}

// Prints a value that was made for this, and releases it; false if it could not be made.
bool SayMade(TQValue *made)
{
    const vaultry::Value value(made, vaultry::adopt);
    return value && Say(value.description());
}

// The bytes as text that fits in a line.
std::string Shown(const std::string &bytes)
{
    const bool isText = std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= ' ' && c < '\x7f'; });
    if (bytes.size() > 60) return "(" + std::to_string(bytes.size()) + " bytes)";
    if (isText) return '"' + bytes + '"';
    std::ostringstream hex;
    for (const char byte : bytes) hex << std::hex << std::setw(2) << std::setfill('0') << (byte & 0xff);
    return hex.str();
}

// An item and everything below it: mode, flags, the library's attributes and an application's own, contents.
void Show(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return void(Say(path, ": ", strerror(errno)));
    if (S_ISLNK(status.st_mode)) return void(Say(path, " -> ", std::filesystem::read_symlink(path).native()));
    std::cout << path << (S_ISDIR(status.st_mode) ? "/ " : " ") << std::oct << (status.st_mode & 07777U) << std::dec;
    const std::pair<int, char> letters[] = {
        {FS_IMMUTABLE_FL, 'i'}, {FS_APPEND_FL, 'a'}, {FS_COMPR_FL, 'c'}, {FS_NODUMP_FL, 'd'}};
    std::string flags = " +";
    for (const auto &[flag, letter] : letters)
        if ((disk::Flags(path) & flag) != 0) flags.push_back(letter);
    std::cout << (flags.size() > 2 ? flags : "");
    std::vector<const char *> names(std::begin(kStoreAttributes), std::end(kStoreAttributes));
    names.push_back("own");
    for (const char *name : names)
        if (const auto value = disk::Attribute(path, name))
            std::cout << ' ' << name + (strrchr(name, '.') ? strrchr(name, '.') - name + 1 : 0) << '=' << Shown(*value);
    if (S_ISREG(status.st_mode) && status.st_size > 0) std::cout << " holds " << Shown(disk::Read(path));
    std::cout << '\n';
    if (!S_ISDIR(status.st_mode)) return;
    for (const std::string &name : disk::List(path)) Show(path + "/" + name);
}

// Prints what a walk reports, line by line. At the line that equals the second word, it runs the third, a command of
// the shell.
bool Walk(const Words &w, TQError **)
{
    constexpr const char *kinds[] = {"folder", "folder-done", "unreadable", "file",
                                     "link",   "other",       "no-status",  "error"};
    TreeWalk walk;
    if (!walk.Open(w[0])) return !Say(strerrorname_np(errno));
    for (const TreeWalk::Entry *entry; errno = 0, (entry = walk.Next());) {
        if (errno != entry->error) Say(strerrorname_np(errno), " in errno");
        const std::string line = std::string(kinds[static_cast<int>(entry->kind)]) + " " + entry->item.path;
        Say(line, entry->error ? " " : "", entry->error ? strerrorname_np(entry->error) : "");
        struct stat above {
        }, held{};
        const std::string parent(entry->item.path, entry->parentPathLength);
        if (fstat(entry->item.directory, &held) == 0 && stat(parent.c_str(), &above) == 0 &&
            held.st_ino != above.st_ino)
            Say(parent, " is not what is held");
        if (w[1] && line == w[1] && system(w[2]) != 0) return !Say("the command failed");
    }
    return true;
}

// Prints what the copy service tells its client, line by line. At the line that equals the third word, it does the
// fourth: "skip" and "quit" are answers, "umask" takes all rights from new items, anything else is a command of the
// shell.
bool Copy(const Words &w, TQError **)
{
    const auto hear = [](int what, int stage, DuplixState *, const char *source, const char *, void *context) {
        const Words &words = *static_cast<const Words *>(context);
        constexpr const char *kinds[] = {"walk", "file", "folder", "folder-done", "data", "attribute"},
                             *stages[] = {"", "start", "finish", "error", "progress"};
        std::string line = std::string(kinds[what]) + " " + stages[stage] + (source + strlen(words[0]));
        if (stage == duplix_stage::Error) line += std::string(" ") + strerrorname_np(errno);
        Say(line);
        errno = stage == duplix_stage::Error ? EIO : 0; // a client may leave anything here
        const std::string act = words[3] && line == words[2] ? words[3] : "";
        if (act == "skip") return int{duplix_answer::Skip};
        if (act == "quit") return int{duplix_answer::Quit};
        if (act == "umask") return (void)umask(0777), int{duplix_answer::Continue};
        return act.empty() || system(act.c_str()) == 0 ? int{duplix_answer::Continue} : int{duplix_answer::Quit};
    };
    Words words = w;
    const bool isTold = w.words.size() > 2;
    return platform::duplix(w[0], w[1], isTold ? +hear : nullptr, &words) == 0 || !Say(strerrorname_np(errno));
}

using Function = std::function<bool(const Words &, TQError **)>;

// A function of a store, which is opened first; its words begin after the store's path.
Function OnStore(bool (*function)(const TQClientManagedStorage *, const Words &, TQError **))
{
    return [function](const Words &w, TQError **error) {
        TQClientManagedStorage *const store = TQClientManagedStorageCreate(w[0], error);
        const ScopeExit free([&] { TQClientManagedStorageFree(store); });
        return store && function(store, {{w.words.begin() + 1, w.words.end()}}, error);
    };
}

// Prints the result of a query: the record of one generation, or the client and the record of each, in order.
bool SayRecords(const Words &w, TQError **error)
{
    const vaultry::Data bytes(disk::Read(w[1]));
    const auto spec = vaultry::Value(TQPropertyListCreateWithData(bytes.get(), false, nullptr), vaultry::adopt);
    const auto *asked = static_cast<const TQDictionary *>(spec.get());
    const auto library = Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(w[0]).get(), error));
    TQLibrary *const l = library.get();
    const TQValue *const unread = asked ? asked : static_cast<const TQValue *>(l);
    if (w[2]) return SayMade(TQLibraryCopyGenerationInfos(l, unread, unread, String(w[2]).get(), asked, error));

    const vaultry::Dictionary all(TQLibraryCopyAllGenerationsInfos(l, unread, asked, error), vaultry::adopt);
    std::set<std::string> records;
    for (const char *client : {"draftline", "nimbusync"}) {
        const auto list = all[std::string("com.corvane.") + client].as<vaultry::Array>();
        for (const vaultry::Value &record : list) records.insert(client + (" " + record.description()));
        if (list && list.empty()) records.insert(client + std::string(" empty"));
    }
    for (const std::string &record : records) Say(record);
    return static_cast<bool>(all);
}

// Prints each finding as "kind path", followed by "mended" if it was, in order.
bool SayFindings(const Words &w, TQError **error)
{
    const auto found = vaultry::Store::findings(w[0], w.Say("repair"));
    if (!found) return *error = vaultry::Error(found.error()).detach(), false;
    std::set<std::string> lines;
    for (const auto &[path, kind, meaning, mended, home, host] : *found)
        lines.insert(kind + " " + path.native() + (home.empty() ? "" : " of " + home.native()) +
                     (host.empty() ? "" : " on " + host) + (mended ? " mended" : "") +
                     (meaning.size() > 20 ? "" : " unexplained"));
    for (const std::string &line : lines) Say(line);
    return true;
}

const std::map<std::string, Function> kFunctions = {
    {"show",
     [](const Words &w, TQError **) {
         for (const std::string &path : w.words) Show(path);
         return true;
     }},
    {"make-package", [](const Words &w, TQError **) { return !disk::MakePackage(w[0]).empty(); }},
    {"same", // in everything; "but-for-holes" ignores holes, which differ on other types of volume
     [](const Words &w, TQError **) {
         const unsigned what = Snapshot::kWhole | (w.Say("but-for-holes") ? 0U : Snapshot::kHoles);
         const auto same = Same(Snapshot::Of(w[0], what), Snapshot::Of(w[1], what));
         return Say(same ? "the same" : same.message());
     }},
    // --- words
    {"parts",
     [](const Words &w, TQError **) {
         const auto shown = [](const char *text) { return text ? text : "-"; };
         char apart[1024], within[2048];
         const char *const child = separate_path_parent_child(w[0], apart);
         const char *const again = separate_path_parent_child(strcpy(within, w[0]), within);
         if (!child != !again || (child && (strcmp(child, again) != 0 || strcmp(apart, within) != 0)))
             Say("not the same in place");
         Say("parent ", child ? apart : "-", " child ", shown(child));
         char *const above = _CopyParentDirectoryPath(w[0]);
         Say("above ", shown(above), " name ", shown(TQGetFileNameForPath(w[0])), " extension ",
             shown(TQGetFileNameExtensionForPath(w[0])));
         return free(above), true;
     }},
    {"validate-name", [](const Words &w, TQError **error) { return validateTQName(String(w[0]).get(), error); }},
    {"generation-name",
     [](const Words &w, TQError **error) {
         char buffer[kGenerationNameLimit + 1];
         const bool done = TQStringGetGenName(String(w[0]).get(), buffer, error);
         return Say(TQValidateGenerationName(w[0]) ? "valid " : "invalid ", done ? buffer : "-") && done;
     }},
    {"absolute-path", // of a path, below another one, or of a URL
     [](const Words &w, TQError **error) {
         const DeferredScope scope;
         TQURL *const base = w[1] ? tq_fileURLWithFileSystemRepresentation(w[1]) : nullptr;
         const auto url = Ref<TQURL>::Adopt(
             strchr(w[0], ':') ? TQURLCreateWithString(String(w[0]).get(), nullptr)
                               : TQURLCreateWithFileSystemPathRelativeToBase(w[0], false, base));
         char path[1024];
         return TQURLGetAbsPath(url.get(), path, sizeof path, error) && Say(path);
     }},
    {"status", // a status as an error, and the status that the error gives back
     [](const Words &w, TQError **) {
         const DeferredScope scope;
         const int32_t status = std::stoi(w[0]);
         OwnedError below, made;
         *below.out() = _TQCreateError(kTQPOSIXErrorDomain, EIO, nullptr, nullptr);
         if (_TQCreateErrorForStatus(made.out(), status, "why", below.get()) || !made.get()) return Say("none");
         TQError *const other = _TQErrorForStatus(status, String("why").get(), below.get());
         return Say(Text(TQErrorGetDomain(made.get())), ' ', TQErrorGetCode(made.get()), " -> ", made.status(),
                    TQEqual(made.get(), other) ? " " : " differs ", made.description(), " ", made.underlying());
     }},
    {"errors", // the status of every error number, except the many that have 101
     [](const Words &, TQError **) {
         const DeferredScope scope;
         for (int number = -1; number < 140; ++number) {
             OwnedError made;
             const int32_t status = TQGetStatusForErrno(number);
             const bool none = !_TQCreateErrorUseErrno(made.out(), number, "why");
             const TQError *const other = _TQErrorForErrno(number, String("why").get());
             if (!none || !TQEqual(made.get(), other) || made.underlying() != number ||
                 vaultry::Error(TQErrorGetUnderlying(other), vaultry::retain).description() != strerror(number))
                 Say(number, " makes a wrong error");
             if (status != 101 || made.status() != 101) Say(strerrorname_np(number), ' ', status, ' ', made.status());
         }
         return true;
     }},
    // --- a path
    {"make-directories", // PATH [MODE]
     [](const Words &w, TQError **) {
         const auto mode = static_cast<mode_t>(std::stoul(w[1] ? w[1] : "750", nullptr, 8));
         return TQRecursiveMkdir(w[0], mode) == 0 || !Say(strerrorname_np(errno));
     }},
    {"tell",
     [](const Words &w, TQError **) {
         TQVolumeStatus volume{};
         return Say(w[0], _PathExists(w[0]) ? " exists" : "", _PathNotExists(w[0]) ? " is not there" : "",
                    _IsDirectory(w[0], nullptr) ? " directory" : "", _HasAttribute(w[0], "own") ? " has own" : "",
                    TQFSFilenameExtensionIsHidden(w[0]) ? " hides its extension" : "",
                    _SafeStatFS(w[0], &volume) == 0 && volume.blockCount > 0 ? "" : " on no volume");
     }},
    {"volume", // the volume of a path
     [](const Words &w, TQError **) {
         TQVolumeStatus volume{};
         return _SafeStatFS(w[0], &volume) == 0 && Say(volume.typeName, ' ', volume.blockCount * volume.blockSize);
     }},
    {"hide-extension",
     [](const Words &w, TQError **) { return TQFSSetFileNameExtensionHiding(w[0], !w.Say("not")), true; }},
    {"birth-time", [](const Words &w, TQError **) { return _TransferBirthTime(w[0], w[1]); }},
    {"copy-on-write", [](const Words &w, TQError **) { return _SetCopyOnWrite(w[0]) || !Say(strerrorname_np(errno)); }},
    {"no-copy-on-write",
     [](const Words &w, TQError **) { return _UnsetCopyOnWrite(w[0]) || !Say(strerrorname_np(errno)); }},
    {"flags", // reads or sets an item's flags; its birth time is known on every file system here
     [](const Words &w, TQError **) {
         const Item item = Item::AtPath(w[0]);
         const auto flags = static_cast<uint32_t>(w[1] ? std::stoul(w[1], nullptr, 0) : 0);
         errno = 0;
         if (w[1] && platform::SetFlags(item, Links::NoFollow, flags) != 0) return !Say(strerrorname_np(errno));
         TQFileStatus status{};
         const bool known = platform::GetStatus(item, Links::NoFollow, &status) == 0;
         return known && Say("flags ", status.flags, status.hasBirthTime ? "" : ", not born");
     }},
    {"stored-status", // a stored item as its document was
     [](const Words &w, TQError **) {
         TQFileStatus status{};
         errno = EDOM; // is kept
         const bool done = TQLibraryInternalStatGeneration(w[0], &status) == 0;
         return Say(strerrorname_np(errno), std::oct, " mode ", status.mode, " flags ", status.flags, std::dec) && done;
     }},
    // --- a tree
    {"walk", Walk}, // ROOT [AT ACT]
    {"copy", Copy}, // FROM TO [AT ACT]
    {"copy-into",   // FROM TO OTHER; TO may be the empty item OTHER, or not
     [](const Words &w, TQError **) {
         TQFileStatus other;
         platform::DuplixMade made;
         const platform::DuplixOptions options{.made = &made, .into = &other};
         const bool done = platform::GetStatus(Item::AtPath(w[2]), Links::NoFollow, &other) == 0 &&
                           platform::duplix(w[0], w[1], nullptr, nullptr, options) == 0;
         return done || !Say(strerrorname_np(errno), made.something ? " in the middle" : "");
     }},
    {"copy-over", // FROM TO, an existing file
     [](const Words &w, TQError **) {
         const UniqueFd from(open(w[0], O_RDONLY | O_CLOEXEC)), to(open(w[1], O_RDWR | O_CLOEXEC));
         return platform::fduplix(from.get(), to.get()) == 0 || !Say(strerrorname_np(errno));
     }},
    {"remove-tree", // PATH [the ITEM that it must be]
     [](const Words &w, TQError **error) {
         TQFileStatus expected{};
         bool begun = false;
         const bool asked = w[1] && platform::GetStatus(Item::AtPath(w[1]), Links::NoFollow, &expected) == 0;
         const TreeRemoval how{.expected = asked ? &expected : nullptr, .begun = &begun};
         const bool done = _RemoveTreeAt(Item::AtPath(w[0]), how, error);
         return done || !begun ? done : !Say("a part has gone");
     }},
    {"remove-below", [](const Words &w, TQError **error) { return _RemoveSubTrees(w[0], 0, error); }},
    {"tree-size",
     [](const Words &w, TQError **error) {
         const int64_t size = TQComputeTreeSize(w[0], error);
         return size >= 0 && Say(size);
     }},
    // --- archiving; words after the paths: move, readable, as-it-is
    {"add",
     [](const Words &w, TQError **error) {
         return TQAddPathAsGeneration(w[0], w[1], !w.Say("move"), w.Say("readable"), !w.Say("as-it-is"), error);
     }},
    {"archive-item",
     [](const Words &w, TQError **error) { return _ArchiveItem(w[0], nullptr, w.Say("readable"), error); }},
    {"archive-tree",
     [](const Words &w, TQError **error) {
         uint64_t size = 2; // is added to
         return TQArchiveTree(w[0], w.Say("readable"), &size, error) && Say(size - 2);
     }},
    {"copy-out",
     [](const Words &w, TQError **error) {
         uint16_t mode = 0xffff;
         uint32_t flags = 0xffffffff;
         const bool done = TQCopyOutGeneration(w[0], w[1], &mode, &flags, error);
         std::cout << std::oct << "mode " << mode << " flags " << flags << std::dec << '\n';
         return done;
     }},
    // --- a store
    {"make-store", OnStore([](const TQClientManagedStorage *, const Words &, TQError **) { return true; })},
    {"is-store",
     [](const Words &w, TQError **error) {
         const bool isStore = TQClientManagedStorageIsStore(w[0], error);
         return !*error && Say(isStore ? "yes" : "no");
     }},
    {"keep", // NAME DOCUMENT [OPTIONS] [move]
     OnStore([](const TQClientManagedStorage *store, const Words &w, TQError **error) {
         const uint64_t options = w[2] && isdigit(*w[2]) ? std::stoull(w[2], nullptr, 0) : 0;
         return TQClientManagedStorageAdd(store, w[0], w[1], options, error, !w.Say("move"));
     })},
    {"add-with", // NAME DOCUMENT [move] [links] [base NAME] [note TEXT] [size] [flags N] [longer]
     OnStore([](const TQClientManagedStorage *store, const Words &w, TQError **error) {
         const auto base = String(w.After("base") ? w.After("base") : "");
         const auto note = vaultry::Dictionary::of({{"note", w.After("note") ? w.After("note") : ""}});
         struct {
             TQAddRequest request{};
             bool more = false;
         } asked;
         asked.request.size = w.Say("longer") ? sizeof asked : sizeof asked.request;
         asked.request.flags = w.Say("move") ? kTQAddByMoving : 0;
         if (w.Say("links")) asked.request.flags |= kTQAddKeepLinks;
         if (w.After("flags")) asked.request.flags = std::stoull(w.After("flags"), nullptr, 0);
         asked.request.base = w.After("base") ? base.get() : nullptr;
         asked.request.info = w.After("note") ? note.get() : nullptr;
         const auto sizeKey = String("size");
         asked.request.sizeKey = w.Say("size") ? sizeKey.get() : nullptr;
         asked.more = w.Say("longer") && w.Say("more");
         return TQClientManagedStorageAddWithFlags(store, w[0], w[1], &asked.request, error);
     })},
    {"remove-unless", // KEY NAME...
     [](const Words &w, TQError **error) {
         const auto store = vaultry::Store::open(w[0]);
         const std::vector<std::string> names(w.words.begin() + 2, w.words.end());
         const auto removed = store->remove_unless(names, vaultry::String(w[1]));
         return removed ? true : (*error = vaultry::Error(removed.error()).detach(), false);
     }},
    {"remove", // NAME...
     OnStore([](const TQClientManagedStorage *store, const Words &w, TQError **error) {
         return TQClientManagedStorageRemoveGenerations(store, Names(w.words).get(), error);
     })},
    {"list",
     OnStore([](const TQClientManagedStorage *store, const Words &, TQError **error) {
         const auto names = Ref<TQArray>::Adopt(TQClientManagedStorageCopyGenerationNames(store, error));
         for (const std::string &name : Texts(names.get())) Say(name);
         return static_cast<bool>(names);
     })},
    {"take-out", // NAME DESTINATION
     OnStore([](const TQClientManagedStorage *store, const Words &w, TQError **error) {
         return TQClientManagedStorageCopyGeneration(store, w[0], w[1], error);
     })},
    {"destroy", [](const Words &w, TQError **error) { return TQClientManagedStorageDestroy(w[0], error); }},
    {"restore", // NAME DOCUMENT [BACKUP [links] [base NAME]], by the library
     [](const Words &w, TQError **error) {
         const auto library =
             Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(w[0]).get(), error));
         const auto backup = String(w[3] ? w[3] : ""), base = String(w.After("base") ? w.After("base") : "");
         TQRestoreRequest request{};
         request.size = sizeof request;
         request.flags = w.Say("links") ? kTQRestoreKeepLinks : 0;
         request.backupName = w[3] ? backup.get() : nullptr;
         request.backupBase = w.After("base") ? base.get() : nullptr;
         return library && TQLibraryRestoreGenerationWithFlags(library.get(), String(w[1]).get(), FileURL(w[2]).get(),
                                                               &request, error);
     }},
    {"findings", SayFindings}, // [repair]
    {"operations",             // STORE
     [](const Words &w, TQError **error) {
         const auto all = vaultry::Store::operations(w[0]);
         if (!all) return *error = vaultry::Error(all.error()).detach(), false;
         for (const auto &[work, process, host, here, document, since] : *all)
             Say(work + (process > 1 ? " " : " by nobody ") + (here ? "here" : "on " + host) +
                 (since ? " " + document.native() : ""));
         return true;
     }},
    {"query", SayRecords},       // SPEC, a property list's file, [NAME], by the library
    {"safe-save", // two URLs, or "-" for none: the answer is always no
     [](const Words &w, TQError **) {
         const auto url = [&](size_t i) {
             return Ref<TQURL>::Adopt(*w[i] == '-' ? nullptr : TQURLCreateWithString(String(w[i]).get(), nullptr));
         };
         const auto document = url(0), replacement = url(1);
         TQLibraryDocumentDidSafeSave(document.get(), replacement.get());
         TQValue *generations = document.get();
         return TQLibraryDocumentWillSafeSave(document.get(), replacement.get()) ||
                TQLibraryHasGenerationsForPaths(nullptr, Names({w[0]}).get(), &generations) || generations;
     }},
    // --- a generation's metadata
    {"set-attribute",
     [](const Words &w, TQError **error) {
         return _SetEAOnGeneration(w[0], w[1], w[2], w[2] ? strlen(w[2]) : 5, error);
     }},
    {"options", [](const Words &w, TQError **) { return Say(TQGetGenerationOptions(w[0])); }},
    {"set-options", [](const Words &w,
                       TQError **error) { return TQSetGenerationOptions(w[0], std::stoull(w[1], nullptr, 0), error); }},
    {"name",
     [](const Words &w, TQError **error) {
         errno = EDOM; // stays if nothing fails below
         return SayMade(TQCopyOriginalDisplayName(w[0], error));
     }},
    {"set-name",
     [](const Words &w, TQError **error) {
         return TQSetOriginalDisplayName(w[0], w[1] ? String(w[1]).get() : nullptr, error);
     }},
    {"info",
     [](const Words &w, TQError **error) {
         return SayMade(w[1] ? TQCopyInfoValue(w[0], String(w[1]).get(), error)
                             : TQCopyMutableInfoDictionary(w[0], error));
     }},
    {"set-info",
     [](const Words &w, TQError **error) {
         const auto set = Ref<TQValue>::Adopt(TQSetCreate(nullptr, 0)); // a property list can't hold it
         const auto text = w[2] ? String(w[2]) : Ref<TQString>();
         return TQSetInfoValue(w[0], String(w[1]).get(), w.Say("(set)") ? set.get() : text.get(), error);
     }},
};

std::vector<std::pair<int, std::string>> lines; // logged

} // namespace

int main(int count, char **arguments)
{
    Words words{{arguments + 1, arguments + count}};
    const bool verbose = words.Say("-v");
    std::erase(words.words, "-v");
    const auto function = kFunctions.find(words.words.empty() ? "" : words.words.front());
    if (function == kFunctions.end()) return Say("probe: no such function"), 2;
    words.words.erase(words.words.begin());
    (void)tq_log_set_level(7);
    platform::SetLogSink([](int level, const char *line) {
        const std::string text = strchr(line, ' ') + 1; // after the place in the source
        lines.emplace_back(level, text.substr(0, text.rfind(" (on ")));
    });

    OwnedError error;
    const bool done = function->second(words, error.out());
    const std::string reason = done || !error.get() ? "" : error.description();
    int level = 0;
    for (const auto &[at, text] : lines)
        if (!reason.empty() && (reason.starts_with(text) || text.starts_with(reason)))
            level = at;
        else if (at < 7 || verbose)
            Say("logged ", at, ": ", text);
    if (done || !error.get()) return done ? 0 : 1;
    const int below = static_cast<int>(error.underlying());
    const std::string suffix = "; error " + std::to_string(below) + " (" + strerror(below) + ")";
    Say(level == 7   ? "refused "
        : level == 0 ? "unlogged "
                     : "error ",
        error.status(), below ? " " : "", below ? strerrorname_np(below) : "", ": ",
        below && reason.ends_with(suffix) ? reason.substr(0, reason.size() - suffix.size()) : reason);
    return 1;
}
