// What surrounds the library: trees that nobody expects, disks without room, mounts that refuse, processes in an odd
// state. It does its work, or says why not and leaves everything as it was; and it changes nothing of its process.

#include "Platform/SystemLog.h"
#include "support/Table.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <clocale>
#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/time.h>

namespace {

constexpr unsigned kKept = Snapshot::kContents | Snapshot::kRights;

// What a client does with a store. The document is at "document" again in the end.
bool UseEverything(const TestStore &store, TQError **error)
{
    const DeferredScope scope;
    const TQClientManagedStorage *const handle = store.handle();
    const auto library =
        Ref<TQLibrary>::Adopt(TQLibraryCreateClientManaged(nullptr, FileURL(store.root()).get(), error));
    return library && store.Add("copied", error) && store.Add("moved", error, /*copy=*/false) &&
           store.CopyOut("moved", store.document(), error) && store.List().size() == 2 &&
           TQDefer(TQClientManagedStorageCopyAllGenerationsInfos(handle, nullptr, error)) &&
           TQClientManagedStorageSetGenerationOptions(handle, "copied", 6, error) &&
           TQLibraryRestoreGeneration(library.get(), String("copied").get(), FileURL(store.document()).get(),
                                      String("backup").get(), error) &&
           TQDefer(TQClientManagedStorageCopyFindings(store.root().c_str(), /*repair=*/true, error)) &&
           store.Remove({"copied", "moved", "backup"}, error);
}

struct Trees : AsEach {
    const bool isRoot = GetParam() == As::Root;
    TestStore store{TestStore::Document::File, QuickVolume()};
};
INSTANTIATE_AS_EACH(Trees);

TEST_P(Trees, AreKeptWholeOrRefused)
{
    const std::string name(254, 'n'); // longer than that of its place in staging
    for (const auto &row : ReadTable("faults/trees.txt")) {
        SCOPED_TRACE(row[0]);
        if (row[4] == (isRoot ? "user" : "root")) continue;
        const std::string place = disk::MakeDirectory(store / row[0]), document = place + "/d", out = place + "/out";
        ASSERT_TRUE(Shell(place, row[1]));
        for (const bool copy : {true, false}) {
            // A move to and fro changes the times of directories.
            const unsigned what = copy ? Snapshot::kWhole : kKept;
            const Snapshot before = Snapshot::Of(document, what);
            const Outcome add =
                InChild(CALL(TQClientManagedStorageAdd(store.handle(), name.c_str(), document.c_str(), 0, why, copy)));
            EXPECT_EQ(add.succeeded ? "kept" : std::to_string(add.status), row[copy ? 2 : 3]) << add.message;
            EXPECT_EQ(add.succeeded && !copy, !disk::Exists(document));
            const Outcome copied = InChild(CALL(store.CopyOut(name, out, why)));
            EXPECT_EQ(copied.succeeded, add.succeeded) << copied.message;
            EXPECT_TRUE(Same(before, Snapshot::Of(add.succeeded ? out : document, what)));
            EXPECT_TRUE(store.Remove({name}) && _RemoveTree(out.c_str(), 0, nullptr));
        }
        EXPECT_TRUE(Shell(place, "if test -d d/m; then umount d/m; fi; rm -rf d || { chmod -R u+rwx d; rm -rf d; }"));
    }
    store.CheckInvariants();
}

// Memory is that of one item, however many there are and however large.
TEST(VastDocuments, TakeLittleMemory)
{
    if (!kCanFailAllocations) GTEST_SKIP() << "a sanitizer takes memory of its own";
    TestStore store(TestStore::Document::File, QuickVolume());
    const std::string document = disk::MakeDirectory(store / "vast"), out = store / "out";
    ASSERT_TRUE(Shell(document, "seq 100000${VAULTRY_LONG:+0} | xargs touch; truncate -s 1T sparse; echo x >> sparse"));
    const auto *const handle = store.handle();
    const Operation operations[] = {
        CALL(TQClientManagedStorageAdd(handle, "vast", document.c_str(), 0, why, /*copy=*/true)),
        CALL(store.CopyOut("vast", out, why)),
        CALL(TQClientManagedStorageCopyFindings(store.root().c_str(), /*repair=*/false, why)),
        CALL(store.Remove({"vast"}, why)),
        CALL(TQClientManagedStorageAdd(handle, "vast", document.c_str(), 0, why, /*copy=*/false))};
    for (const auto &operation : operations) {
        SCOPED_TRACE(&operation - operations);
        const Outcome outcome = InChild([&](TQError **error) {
            rusage before{}, after{};
            (void)getrusage(RUSAGE_SELF, &before);
            const bool done = operation(error);
            (void)getrusage(RUSAGE_SELF, &after);
            return done &&
                   (after.ru_maxrss - before.ru_maxrss < 4096 || !kCanFailAllocations); // KiB; not a sanitizer's
        });
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
    }
    EXPECT_TRUE(Shell(
        out, "test $(ls | wc -l) = $((100000${VAULTRY_LONG:+0} + 1)); test $(stat -c %s sparse) = $((1 << 40 | 2));"
             "test $(du -k sparse | cut -f1) -lt 64"));
}

// A volume made by a command and mounted at "at" in a directory of its own, where nobody else sees it.
class SmallVolumes : public testing::Test {
protected:
    void SetUp() override
    {
        if (VolumeOfType("tmpfs").path.empty()) GTEST_SKIP() << VolumeOfType("tmpfs").whyNot;
    }
    ~SmallVolumes() override { (void)Do("umount -l at"); }
    bool Do(const std::string &command) const { return Shell(home.path(), command); }
    bool Mount(const std::string &make) const { return Do("umount at || :; mkdir -p at; rm -f i; " + make); }

    const TempDirectory home;
};

TEST_F(SmallVolumes, ThatAreFullTakeNothingNewAndLetGoOfTheOld)
{
    const char *const fillBlocks = "fallocate -l $(($(df --output=avail -B1 at | tail -1) * 9 / 10)) at/0 || :;"
                                   "cat /dev/zero > at/00 || :; cat /dev/zero > at/000 || :",
                      *const fillInodes = "i=0; while true > at/$((i=i+1)); do :; done || :";
    for (const char *make : {"mount -t tmpfs -o size=1m,nr_inodes=120 x at",
                             "truncate -s 4M i; mkfs.ext4 -q -m 0 -N 64 i; mount -o loop i at",
                             "truncate -s 320M i; mkfs.xfs -q i; mount -o loop i at",
                             "truncate -s 256M i; mkfs.btrfs -q i; mount -o loop i at; btrfs quota enable at;"
                             "btrfs subvolume create at/s; btrfs qgroup limit 8M at/s; umount at;"
                             "mount -o loop,subvol=s i at"}) {
        SCOPED_TRACE(make);
        ASSERT_TRUE(Mount(make));
        TestStore store(TestStore::Document::Folder, home / "at");
        const std::string file = disk::Write(home / "file", std::string(100000, 'x'));
        const auto add = [&](const char *name) {
            return InChild(CALL(TQClientManagedStorageAdd(store.handle(), name, file.c_str(), 0, why, true)));
        };
        ASSERT_TRUE(store.Add("tree") && add("file").succeeded);
        for (const char *fill : {fillBlocks, fillInodes}) {
            ASSERT_TRUE(Do(fill));
            const Snapshot before = Snapshot::Of(store.root(), kKept);
            EXPECT_EQ(add("new").status, kTQStatusNoSpace);
            EXPECT_TRUE(Same(before, Snapshot::Of(store.root(), kKept)));
        }
        for (const char *name : {"tree", "file"}) {
            OwnedError error;
            EXPECT_TRUE(Do(fillBlocks) && Do(fillInodes) && store.Remove({name}, error.out())) << error.description();
        }
        EXPECT_THAT(store.List(), testing::IsEmpty());
        EXPECT_TRUE(Do("rm at/[0-9]*"));
        store.CheckInvariants();
    }
}

TEST_F(SmallVolumes, ThatFailToReadGiveNoHalfCopies)
{
    ASSERT_TRUE(Mount("truncate -s 16M i; mkfs.ext4 -q -O ^has_journal i; mount -o loop i at"));
    TestStore store(TestStore::Document::File, home / "at");
    disk::Write(store.document(), std::string(5 << 20, 'x'));
    // Nothing of it is in memory any more when its end is cut off.
    ASSERT_TRUE(store.Add("g") && Do("umount at; mount -o loop i at; truncate -s 4M i"));
    EXPECT_EQ(InChild(CALL(store.CopyOut("g", home / "out", why))).underlying, EIO);
    EXPECT_FALSE(disk::Exists(home / "out"));
    EXPECT_TRUE(Do("truncate -s 16M i"));
}

TEST_F(SmallVolumes, ThatAreReadOnlyAreReadAndNothingElse)
{
    ASSERT_TRUE(Mount("mount -t tmpfs x at"));
    TestStore store(TestStore::Document::Folder, home / "at");
    ASSERT_TRUE(store.Add("g") && Do("mount -o remount,ro at"));
    const TQClientManagedStorage *const handle = store.handle();
    const char *const root = store.root().c_str();
    const std::pair<int, Operation> rows[] = {
        {0, CALL(TQClientManagedStorageCreate(root, why))},
        {0, CALL(TQClientManagedStorageCopyGenerationNames(handle, why))},
        {0, CALL(TQClientManagedStorageCopyAllGenerationsInfos(handle, nullptr, why))},
        {0, CALL(TQClientManagedStorageCopyFindings(root, /*repair=*/false, why))},
        {0, CALL(store.CopyOut("g", home / "out", why))},
        {EROFS, CALL(store.Add("h", why))},
        {EROFS, CALL(store.Add("h", why, /*copy=*/false))},
        {EROFS, CALL(store.Remove({"g"}, why))},
        {EROFS, CALL(TQClientManagedStorageSetGenerationOptions(handle, "g", 6, why))},
        {EROFS, CALL(TQClientManagedStorageCopyFindings(root, /*repair=*/true, why))},
        {EROFS, CALL(TQClientManagedStorageDestroy(root, why))},
    };
    for (const auto &[error, operation] : rows) {
        const Outcome outcome = InChild(operation);
        EXPECT_EQ(outcome.succeeded ? 0 : outcome.underlying, error) << outcome.message;
    }
    EXPECT_TRUE(Do("mount -o remount,rw at"));
    store.CheckInvariants();
}

// Of a process, what a library could change and must not; what it would need to change more, it doesn't import.
std::string StateOfProcess()
{
    const mode_t mask = umask(0);
    struct sigaction alarm {};
    sigset_t blocked;
    std::string state =
        std::filesystem::current_path().string() + std::to_string(umask(mask)) + setlocale(LC_ALL, nullptr);
    (void)sigaction(SIGALRM, nullptr, &alarm);
    (void)sigprocmask(SIG_SETMASK, nullptr, &blocked);
    for (int signal = 1; signal < SIGRTMIN; ++signal) state += sigismember(&blocked, signal) ? "1" : "0";
    for (char **variable = environ; *variable; ++variable) state += *variable;
    return state + (alarm.sa_handler == SIG_DFL ? "" : "handled");
}

struct Surroundings : InStore {};
INSTANTIATE_AS_EACH(Surroundings);

TEST_P(Surroundings, AreEnduredAndLeftAsTheyAre)
{
    const std::string said = store / "said";
    const rlimit few{16, 16};
    const itimerval often{{0, 200}, {0, 200}};
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {}; // without SA_RESTART
    const std::function<bool()> rows[] = {
        [] { return close(0) + close(1) + close(2) == 0 && (platform::SetLogSink(nullptr), true); },
        [&] { return setrlimit(RLIMIT_NOFILE, &few) == 0; },
        [] { return (umask(0), true); },
        [] { return (umask(077), true); },
        [&] { return sigaction(SIGALRM, &interrupt, nullptr) + setitimer(ITIMER_REAL, &often, nullptr) == 0; },
    };
    for (const auto &surround : rows) {
        SCOPED_TRACE(&surround - rows);
        const Snapshot before = Snapshot::Of(store.document(), kKept);
        const Outcome outcome = InChild([&](TQError **error) {
            const int output = open(said.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
            if (dup2(output, 1) < 0 || dup2(output, 2) < 0 || !surround()) return false;
            const std::string state = StateOfProcess();
            return UseEverything(store, error) && StateOfProcess() == state;
        });
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
        EXPECT_EQ(disk::Read(said), "");
        EXPECT_TRUE(Same(before, Snapshot::Of(store.document(), kKept)));
        store.CheckInvariants();
    }
}

} // namespace
