// While the library works, another process swaps files and directories there for links to a place outside, or for other
// directories, and back, at every level and as fast as it can. An operation may fail; it never reads, changes or
// removes anything outside. During a repair the store's own directories are swapped too: they may be somebody else's,
// and root may be the one who repairs them.

#include "Platform/UniqueFd.h"
#include "Shared/vaultry_storage.h"
#include "support/Tests.h"

#include <vaultry/vaultry.hpp>

#include <atomic>
#include <cstdlib>
#include <linux/openat2.h>
#include <random>
#include <regex>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using Paths = std::vector<std::string>;

const Paths kLevels = {"", "/twin", "/folder", "/folder/leaf", "/folder/deep", "/folder/deep/leaf"};

void MakeTree(const std::string &path, const std::string &bytes, const char *attribute, mode_t without)
{
    for (const char *folder : {"", "/folder", "/folder/deep"}) disk::MakeDirectory(path + folder);
    for (const char *file : {"/twin", "/folder/leaf", "/folder/deep/leaf"}) disk::Write(path + file, bytes);
    for (const auto &level : kLevels) {
        disk::SetAttribute(path + level, attribute, bytes);
        chmod((path + level).c_str(), disk::Mode(path + level) & ~without);
    }
}

// Shared by both processes.
struct Shared {
    std::atomic<long> swaps;
    std::atomic<bool> began, stop;
};

// Swaps items below `at`, in `trees`; a "*" in them stands for any name that is there.
[[noreturn]] void Swap(const std::string &at, const Paths &trees, const std::string &outside, unsigned seed,
                       Shared &shared)
{
    (void)!setresuid(0, 0, 0); // if it may: then no mode stops it
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937 random(seed);
    const auto pick = [&](const Paths &paths) { return paths[random() % paths.size()]; };
    const auto pause = [&, longest = 1U << random() % 9] { usleep(static_cast<useconds_t>(random() % longest)); };
    int kept = 0;
    for (shared.began = true; !shared.stop;) {
        const std::string tree = pick(trees);
        std::string victim = at + tree, target = outside;
        // The store's own directories are swapped for links to similar ones.
        const bool isOwn = tree.starts_with("/store/.") && !tree.ends_with("staged");
        if (isOwn) target += std::regex_replace(tree.substr(6), std::regex("\\*"), "Copied0");
        if (const size_t star = victim.find('*'); star != std::string::npos) {
            const auto names = disk::List(victim.substr(0, star));
            victim.replace(star, 1, names.empty() ? "none" : pick(names));
        }
        const bool isDecoy = random() % 4 == 0;
        const std::string level = isOwn ? "" : pick(kLevels),
                          spare = at + "/spares/" + std::to_string(kept) + (isDecoy ? "d" : "");
        victim += level;
        const size_t slash = victim.rfind('/');
        // A link that stayed must not lead this process out.
        open_how how{};
        how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_NO_SYMLINKS;
        const UniqueFd in(
            static_cast<int>(syscall(SYS_openat2, AT_FDCWD, victim.substr(0, slash).c_str(), &how, sizeof how)));
        const auto exchange = [&] {
            const bool done =
                renameat2(AT_FDCWD, spare.c_str(), in.get(), victim.c_str() + slash + 1, RENAME_EXCHANGE) == 0;
            shared.swaps += done ? 1 : 0;
            return done;
        };
        (void)unlink(spare.c_str());
        const bool isMade = isDecoy ? mkdir(spare.c_str(), 0755) == 0 || errno == EEXIST
                                    : symlink((target + level).c_str(), spare.c_str()) == 0;
        if (!in || !isMade || !exchange()) continue;
        pause();
        kept += exchange() ? 0 : 1; // the library took the link away
        pause();
    }
    _exit(0);
}

// Makes items outside that a repair would mend, remove or give back if it were led there.
void MakeStoreOf(const std::string &outside, bool hasAside)
{
    chmod(outside.c_str(), 0755);
    disk::Write(outside + "/.vaultry_lockfile", "", 0644);
    const std::string unique = disk::MakeDirectory(disk::MakeDirectory(outside + "/.vaultry_staging") + "/Copied0");
    for (const char *file : {"/staged", "/.vaultry_owner"}) disk::Write(unique + file, "", 0600);
    if (hasAside) disk::Write(outside + "/draft-tmp.nosync.ABCDEF", "inside");
    chmod(outside.c_str(), 0555);
}

// Leaves a move and a restore that were killed in the middle, and a killed move of an earlier version.
void MakeDead(const TestStore &store)
{
    const vaultry::Store handle = *vaultry::Store::open(store.root());
    const std::string moving = store / "moving", draft = store / "desk/draft";
    MakeTree(moving, "inside", "com.example.kind", 0);
    EXPECT_TRUE(handle.set_info("old", vaultry::document_key, vaultry::Data(draft)));
    const auto kill = [](const Fault &fault, const std::function<vaultry::Result<void>()> &work) {
        EXPECT_EQ(InChild(fault, [&](TQError **) { return static_cast<bool>(work()); }).fate, Outcome::Fate::Killed);
    };
    kill(KillBefore(4, {SYS_fsync, SYS_syncfs}), [&] { return handle.add_by_moving("moved", moving); });
    kill(KillAfter(1, {SYS_renameat2}), [&] { return handle.restore("old", draft); });
    EXPECT_FALSE(disk::Exists(moving));
    EXPECT_EQ(disk::List(store / "desk").size(), 2U);
    const std::string moved = disk::MakeDirectory(store.Staging() + "/Moved00");
    disk::SetAttribute(moved, kMovedFromAttribute, store / "home");
    MakeTree(moved + "/staged", "\4", kSavedPermissionsAttribute, 0222);                      // had owner write
    for (const auto &level : kLevels) chmod((store.Generation("old") + level).c_str(), 0755); // to be mended
}

class Swaps : public AsEach {};
INSTANTIATE_AS_EACH(Swaps);

TEST_P(Swaps, NothingLeadsOutOfTheTree)
{
    const bool isLong = std::getenv("VAULTRY_LONG") != nullptr;
    const int part = kIsSanitized && !isLong ? 9 : 3; // of those of all users
    const long wanted = (isLong ? 100000 : 5000) / part, operations = (isLong ? 10500 : 630) / part;
    auto &shared = *static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const TempDirectory elsewhere(QuickVolume());
    const std::string outside = elsewhere / "outside", staged = "/store/.vaultry_staging/*/staged";
    MakeTree(outside, "the secret", "com.example.secret", 0222); // so that lifting anything there shows
    MakeStoreOf(outside, GetParam() == As::Root);
    const std::string secret = Snapshot::Of(outside + "/twin", Snapshot::kContents).items.at("");
    Snapshot before = Snapshot::Of(outside, Snapshot::kUntouched);

    const struct {
        const char *what;
        Paths trees; // read, made, replaced and removed by it
        std::function<vaultry::Result<void>(const vaultry::Store &, const std::string &at)> run =
            {}; // a repair if none
    } works[] = {
        {"add by copying",
         {"/document", staged, "/store/g"},
         [](const auto &store, const auto &at) { return store.add("g", at + "/document", 6); }},
        {"add by moving",
         {"/document", staged, "/store/g"},
         [](const auto &store, const auto &at) { return store.add_by_moving("g", at + "/document", 6); }},
        {"copy out",
         {"/store/old", "/desk/out"},
         [](const auto &store, const auto &at) { return store.copy("old", at + "/desk/out"); }},
        {"restore",
         {"/store/old", staged, "/desk/*"},
         [](const auto &store, const auto &at) { return store.restore("old", at + "/desk/draft", "backup"); }},
        {"copy out an item",
         {"/store/old", "/desk/out"},
         [](const auto &store, const auto &at) { return store.copy_item("old", "folder/deep", at + "/desk/out"); }},
        {"restore an item",
         {"/store/old", staged, "/desk/*"},
         [](const auto &store, const auto &at) {
             return store.restore_with("old", at + "/desk/draft", {.item = "folder/deep/leaf"});
         }},
        {"restore an item where it is missing",
         {"/store/old", staged, "/bare"},
         [](const auto &store, const auto &at) {
             return store.restore_with("old", at + "/bare", {.item = "folder/deep/leaf"});
         }},
        {"remove", {"/store/old", staged}, [](const auto &store, const auto &) { return store.remove({"old"}); }},
        {"set options", {"/store/old"}, [](const auto &store, const auto &) { return store.set_options("old", 6); }},
        {"repair", {"/store/old", staged, "/home", "/moving"}},
        {"repair a hostile store",
         {"/store", "/store/.vaultry_lockfile", "/store/.vaultry_staging", "/store/.vaultry_staging/*", "/desk",
          "/desk/*"}},
    };
    long done = 0, succeeded = 0, escapes = 0;
    for (unsigned seed = 0; escapes < 10 && (shared.swaps < wanted || done < operations); ++seed)
        for (const auto &work : works) {
            SCOPED_TRACE(testing::Message() << work.what << ", seed " << seed);
            // Root repairs somebody else's store.
            std::optional<Impersonate> owner;
            if (!work.run && GetParam() == As::Root) owner.emplace(As::User);
            TestStore store(TestStore::Document::File, QuickVolume());
            unlink(store.document().c_str());
            for (const std::string name : {"desk", "spares", "bare", "bare/folder"}) disk::MakeDirectory(store / name);
            for (const auto &path : {store.document(), store / "desk/draft"})
                MakeTree(path, "inside", "com.example.kind", seed % 2 == 0 ? 0 : 0222);
            EXPECT_TRUE(store.Add("old"));
            if (!work.run) MakeDead(store);
            owner.reset();
            shared.began = shared.stop = false;
            const pid_t swapper = fork();
            if (swapper == 0) Swap(store.path(), work.trees, outside, seed, shared);
            while (!shared.began) usleep(10);
            // The calls are only counted, which slows them down, so that many swaps happen between any two.
            const Outcome outcome = InChild(KillBefore(0), [&](TQError **) {
                if (!work.run) return static_cast<bool>(vaultry::Store::findings(store.root(), /*repair=*/true));
                return static_cast<bool>(work.run(*vaultry::Store::open(store.root()), store.path()));
            });
            shared.stop = true;
            EXPECT_EQ(waitpid(swapper, nullptr, 0), swapper);
            EXPECT_NE(outcome.fate, Outcome::Fate::Crashed);

            const Snapshot after = Snapshot::Of(outside, Snapshot::kUntouched);
            bool escaped = !(before == after);
            EXPECT_TRUE(Same(std::exchange(before, after), after));
            for (const auto &[path, item] : Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights).items) {
                const bool told = item.find("com.example.secret") != std::string::npos || item.starts_with(secret);
                EXPECT_FALSE(told) << path << " tells the secret: " << item;
                escaped |= told;
            }
            escapes += escaped ? 1 : 0;
            succeeded += outcome.succeeded ? 1 : 0;
            ++done;
        }
    std::printf("figures: %ld swaps for links during %ld operations, of which %ld succeeded; %ld escapes\n",
                shared.swaps.load(), done, succeeded, escapes);
}

} // namespace
