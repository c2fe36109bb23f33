// Another process puts links to a place outside where files and directories were, and back, at every level and as fast
// as it can, while the library works there. An operation may fail; it never reads, changes or removes what lies outside.
// The store's own directories stay: only who may do anything with the store can swap those.

#include "Platform/UniqueFd.h"
#include "support/Tests.h"

#include <vaultry/vaultry.hpp>

#include <atomic>
#include <cstdlib>
#include <linux/openat2.h>
#include <random>
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

// What both processes see.
struct Shared {
    std::atomic<long> swaps;
    std::atomic<bool> began, stop;
};

// Below `at`, in each of `trees`, where "*" is whatever name is there.
[[noreturn]] void Swap(const std::string &at, const Paths &trees, const std::string &outside, unsigned seed,
                       Shared &shared)
{
    (void)!setresuid(0, 0, 0); // where it may: no mode stops it then
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937 random(seed);
    const auto pick = [&](const Paths &paths) { return paths[random() % paths.size()]; };
    const auto pause = [&, longest = 1U << random() % 9] { usleep(static_cast<useconds_t>(random() % longest)); };
    int kept = 0;
    for (shared.began = true; !shared.stop;) {
        std::string victim = at + pick(trees);
        if (const size_t star = victim.find('*'); star != std::string::npos) {
            const auto names = disk::List(victim.substr(0, star));
            victim.replace(star, 1, names.empty() ? "none" : pick(names));
        }
        const std::string level = pick(kLevels), spare = at + "/spares/" + std::to_string(kept);
        victim += level;
        const size_t slash = victim.rfind('/');
        // We aren't led out ourselves by a link that stayed.
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
        if (!in || symlink((outside + level).c_str(), spare.c_str()) != 0 || !exchange()) continue;
        pause();
        kept += exchange() ? 0 : 1; // if the library took the link away
        pause();
    }
    _exit(0);
}

class Swaps : public AsEach {};
INSTANTIATE_AS_EACH(Swaps);

TEST_P(Swaps, NothingLeadsOutOfTheTree)
{
    const bool isLong = std::getenv("VAULTRY_LONG") != nullptr;
    const long wanted = (isLong ? 100000 : 5000) / 3, operations = isLong ? 3500 : 210;
    auto &shared = *static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const TempDirectory elsewhere(QuickVolume());
    const std::string outside = elsewhere / "outside", staged = "/store/.vaultry_staging/*/staged";
    MakeTree(outside, "the secret", "com.example.secret", 0222); // what is lifted there shows
    const std::string secret = Snapshot::Of(outside + "/twin", Snapshot::kContents).items.at("");
    Snapshot before = Snapshot::Of(outside, Snapshot::kUntouched);

    const struct {
        const char *what;
        Paths trees; // that it reads, makes, replaces and removes
        std::function<vaultry::Result<void>(const vaultry::Store &, const std::string &at)> run;
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
        {"remove", {"/store/old", staged}, [](const auto &store, const auto &) { return store.remove({"old"}); }},
        {"set options", {"/store/old"}, [](const auto &store, const auto &) { return store.set_options("old", 6); }},
        {"repair",
         {"/store/old", "/store/.vaultry_staging/Moved00/staged", "/home"},
         [](const auto &store, const auto &) {
             const auto findings = store.findings(store.path(), /*repair=*/true);
             return findings ? vaultry::Result<void>() : findings.error();
         }},
    };
    long done = 0, succeeded = 0, escapes = 0;
    for (unsigned seed = 0; escapes < 10 && (shared.swaps < wanted || done < operations); ++seed)
        for (const auto &work : works) {
            SCOPED_TRACE(testing::Message() << work.what << ", seed " << seed);
            TestStore store(TestStore::Document::File, QuickVolume());
            unlink(store.document().c_str());
            for (const std::string name : {"desk", "spares"}) disk::MakeDirectory(store / name);
            for (const auto &path : {store.document(), store / "desk/draft"})
                MakeTree(path, "inside", "com.example.kind", seed % 2 == 0 ? 0 : 0222);
            EXPECT_TRUE(store.Add("old"));
            const std::string moved = disk::MakeDirectory(store.Staging() + "/Moved00");
            disk::SetAttribute(moved, "com.corvane.vaultry.moved_from", store / "home");
            MakeTree(moved + "/staged", "\4", "com.corvane.vaultry.orig_perms_v1", 0222);             // had owner write
            for (const auto &level : kLevels) chmod((store.Generation("old") + level).c_str(), 0755); // to be mended
            shared.began = shared.stop = false;
            const pid_t swapper = fork();
            if (swapper == 0) Swap(store.path(), work.trees, outside, seed, shared);
            while (!shared.began) usleep(10);
            // Not killed, only counted: that slows its calls down, so that many swaps fall between any two.
            const Outcome outcome = InChild(KillBefore(0), [&](TQError **) {
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
