// Another process puts links to a place outside where files and directories were, and back, at every level and as fast
// as it can, while the library works there. An operation may fail; it never reads, changes or removes what lies outside.

#include "Platform/UniqueFd.h"
#include "support/Tests.h"

#include <atomic>
#include <cstdlib>
#include <linux/openat2.h>
#include <random>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>

namespace {

const char *const kLevels[] = {"", "/twin", "/folder", "/folder/leaf", "/folder/deep", "/folder/deep/leaf"};

void MakeTree(const std::string &path, const std::string &bytes, const char *attribute, mode_t without)
{
    for (const char *folder : {"", "/folder", "/folder/deep"}) disk::MakeDirectory(path + folder);
    for (const char *file : {"/twin", "/folder/leaf", "/folder/deep/leaf"}) disk::Write(path + file, bytes);
    for (const char *level : kLevels) {
        disk::SetAttribute(path + level, attribute, bytes);
        chmod((path + level).c_str(), disk::Mode(path + level) & ~without);
    }
}

// A process that swaps for the span of a scope.
class Swapper {
public:
    // Below `at`: in each of `trees`, where "*" is whatever name is there, with what lies at the same level of `outside`.
    Swapper(const std::string &at, const std::vector<std::string> &trees, const std::string &outside, unsigned seed)
        : at_(at), trees_(trees), outside_(outside), random_(seed), pause_(0, 1L << (random_() % 10))
    {
        Shared().stop = Shared().began = false;
        child_ = fork();
        if (child_ == 0) {
            (void)!setresuid(0, 0, 0); // where it may: no mode stops it then
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            Shared().began = true;
            while (!Shared().stop) Pass();
            _exit(0);
        }
        while (!Shared().began) usleep(10);
    }
    ~Swapper()
    {
        Shared().stop = true;
        (void)waitpid(child_, nullptr, 0);
    }
    Swapper(const Swapper &) = delete;
    Swapper &operator=(const Swapper &) = delete;
    static long Count() { return Shared().count; }

private:
    struct State {
        std::atomic<long> count;
        std::atomic<bool> began, stop;
    };
    static State &Shared()
    {
        static auto *const shared = static_cast<State *>(
            mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        return *shared;
    }

    void Pass()
    {
        std::string tree = at_ + trees_[random_() % trees_.size()];
        if (const size_t star = tree.find('*'); star != std::string::npos) {
            const auto names = disk::List(tree.substr(0, star));
            if (names.empty()) return;
            tree.replace(star, 1, names[random_() % names.size()]);
        }
        const std::string level = kLevels[random_() % std::size(kLevels)], victim = tree + level,
                          name = victim.substr(victim.rfind('/') + 1), spare = at_ + "/spares/" + std::to_string(next_);
        // We aren't led out ourselves by a link that stayed.
        open_how how{};
        how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_NO_SYMLINKS;
        const UniqueFd in(static_cast<int>(
            syscall(SYS_openat2, AT_FDCWD, victim.substr(0, victim.rfind('/')).c_str(), &how, sizeof how)));
        const auto exchange = [&] {
            const bool done = renameat2(AT_FDCWD, spare.c_str(), in.get(), name.c_str(), RENAME_EXCHANGE) == 0;
            Shared().count += done ? 1 : 0;
            return done;
        };
        (void)unlink(spare.c_str());
        if (!in || symlink((outside_ + level).c_str(), spare.c_str()) != 0 || !exchange()) return;
        Pause();
        next_ += exchange() ? 0 : 1; // whose link the library took away stays where it is
        Pause();
    }
    void Pause()
    {
        const auto now = [] {
            timespec time{};
            clock_gettime(CLOCK_MONOTONIC, &time);
            return time.tv_sec * 1000000 + time.tv_nsec / 1000;
        };
        for (const long end = now() + pause_(random_); now() < end;) {
        }
    }

    const std::string at_;
    const std::vector<std::string> trees_;
    const std::string outside_;
    std::mt19937 random_;
    std::uniform_int_distribution<long> pause_; // microseconds
    pid_t child_ = -1;
    int next_ = 0;
};

class Swaps : public AsEach {};
INSTANTIATE_AS_EACH(Swaps);

TEST_P(Swaps, NothingLeadsOutOfTheTree)
{
    const bool isLong = std::getenv("VAULTRY_LONG") != nullptr;
    const long swaps = (isLong ? 100000 : 5000) / 3, operations = isLong ? 10000 : 150;
    const TempDirectory elsewhere(QuickVolume());
    const std::string outside = elsewhere / "outside", staged = "/store/.vaultry_staging/*/staged";
    MakeTree(outside, "the secret", "com.example.secret", 0222); // what is lifted there shows
    const std::string secret = Snapshot::Of(outside + "/twin", Snapshot::kContents).items.at("");
    Snapshot before = Snapshot::Of(outside, Snapshot::kUntouched);

    const struct {
        const char *what;
        std::vector<std::string> trees; // what it reads, makes, replaces and removes
        std::function<bool(const TestStore &, TQError **)> run;
    } works[] = {
        {"add by copying",
         {"/document", staged, "/store/g"},
         [](const TestStore &s, TQError **e) { return s.Add("g", e, true, 6); }},
        {"add by moving",
         {"/document", staged, "/store/g"},
         [](const TestStore &s, TQError **e) { return s.Add("g", e, false, 6); }},
        {"copy out",
         {"/store/old", "/desk/out"},
         [](const TestStore &s, TQError **e) { return s.CopyOut("old", s / "desk/out", e); }},
        {"restore",
         {"/store/old", staged, "/desk/*"},
         [](const TestStore &s, TQError **e) {
             const auto library =
                 Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(s.root()).get(), e));
             return TQLibraryRestoreGeneration(library.get(), String("old").get(), FileURL(s / "desk/draft").get(),
                                               String("backup").get(), e);
         }},
        {"remove", {"/store/old", staged}, [](const TestStore &s, TQError **e) { return s.Remove({"old"}, e); }},
    };
    long done = 0, succeeded = 0, escapes = 0;
    const long first = Swapper::Count();
    for (unsigned seed = 0; escapes < 10 && (Swapper::Count() - first < swaps || done < operations); ++seed)
        for (const auto &work : works) {
            SCOPED_TRACE(testing::Message() << work.what << ", seed " << seed);
            TestStore store(TestStore::Document::File, QuickVolume());
            unlink(store.document().c_str());
            for (const std::string name : {"desk", "spares"}) disk::MakeDirectory(store / name);
            for (const auto &path : {store.document(), store / "desk/draft"})
                MakeTree(path, "inside", "com.example.kind", seed % 2 == 0 ? 0 : 0222);
            EXPECT_TRUE(store.Add("old"));
            Outcome outcome;
            {
                const Swapper swapper(store.path(), work.trees, outside, seed);
                // Being counted slows its calls down, so that many swaps fall between any two.
                outcome = InChild(CountCalls(kAllButMemory), CALL(work.run(store, why)));
            }
            EXPECT_NE(outcome.fate, Outcome::Fate::Crashed);
            const Snapshot after = Snapshot::Of(outside, Snapshot::kUntouched);
            bool escaped = !(before == after);
            EXPECT_TRUE(Same(std::exchange(before, after), after)) << outcome.message;
            for (const auto &[path, item] : Snapshot::Of(store.path(), Snapshot::kContents | Snapshot::kRights).items) {
                const bool told = item.find("com.example.secret") != std::string::npos || item.rfind(secret, 0) == 0;
                EXPECT_FALSE(told) << path << " tells the secret: " << item;
                escaped |= told;
            }
            escapes += escaped ? 1 : 0;
            succeeded += outcome.succeeded ? 1 : 0;
            ++done;
        }
    std::printf("figures: %ld swaps for links during %ld operations, of which %ld succeeded; %ld escapes\n",
                Swapper::Count() - first, done, succeeded, escapes);
}

} // namespace
