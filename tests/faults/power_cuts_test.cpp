// Power fails at any moment of an operation, or right after it. The result of an operation that returned true is on
// disk, to the byte and the attribute; any other is there whole or not at all; and a check names and mends the remains.

#include "support/Tests.h"
#include "support/Volumes.h"

#include <vaultry/vaultry.hpp>

#include <cstdlib>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using Document = TestStore::Document;

// The power of the volume at `path` fails and comes back: data that had not reached its disk is gone, with or without
// the last seconds in its journal. This uses the file system's own shutdown. The disk itself loses nothing that it was
// given, so this tells whether everything was handed to the disk, not whether its cache was emptied. Btrfs has no such
// call, and tmpfs no disk. Nobody may have anything open there; the device would go with its last mount, so it is kept
// open meanwhile.
bool CutPower(const std::string &path, bool losesJournal)
{
    const std::string how = losesJournal ? "" : "-f", disk = "disk=$(findmnt -no SOURCE " + path + "); exec 3<$disk; ";
    return Shell("/", disk + "xfs_io -xc 'shutdown " + how + "' " + path + "; umount " + path + "; mount $disk " +
                          path + "; rm -f " + path + "/filler*");
}

bool IsAside(const std::string &name)
{
    return name.find("-tmp.nosync.") != std::string::npos;
}

// A store with one generation, the document that it was made from, and another document on a desk, to be replaced by
// it.
struct Scene {
    Scene(Document kind, const std::string &generation, const std::string &storeVolume, const std::string &volume)
        : store(kind, storeVolume), desk(volume)
    {
        disk::Write(kind == Document::Package ? disk::MakeDirectory(draft) + "/text" : draft, std::string(9999, 'n'));
        disk::SetAttribute(draft, "com.example.kind", "draft");
        draftContents = Snapshot::Of(draft, Snapshot::kContents);
        store.Remember(draft, "draft");
        EXPECT_TRUE(handle.add(generation, store.document()));
        // With this a check finds what a restore put aside.
        EXPECT_TRUE(handle.set_info(generation, vaultry::document_key, vaultry::Data(draft)));
    }

    // Everything that the user has: generations and documents.
    std::map<std::string, Snapshot> State() const
    {
        std::map<std::string, Snapshot> all = {{"document", Snapshot::Of(store.document())}};
        for (const auto &name : store.List()) all["store/" + name] = Snapshot::Of(store.Generation(name));
        for (const auto &name : disk::List(desk.path()))
            if (!IsAside(name)) all["desk/" + name] = Snapshot::Of(desk / name);
        return all;
    }

    void ExpectLitterIsNamed() const
    {
        std::string named;
        for (const auto &finding : *vaultry::Store::findings(store.root())) named += finding.path.string() + "/";
        auto litter = disk::List(store.Staging());
        for (const auto &name : disk::List(desk.path()))
            if (IsAside(name)) litter.push_back(name);
        // Instead of a staging directory, the findings may name the item beside a document that belongs to it.
        const auto isNamed = [&](const std::string &name) {
            const std::string note = disk::Read(store.Staging() + "/" + name + "/.vaultry_owner");
            return named.find("/" + name + "/") != named.npos ||
                   std::any_of(litter.begin(), litter.end(), [&](const auto &aside) {
                       return IsAside(aside) && note.find("/" + aside + "\n") != note.npos;
                   });
        };
        for (const auto &name : litter) EXPECT_TRUE(isNamed(name)) << name;
    }

    // For an operation that was cut short; the item that it worked on, `unprotected`, may be so.
    void CheckInterrupted(const std::string &unprotected, bool moves)
    {
        if (disk::Exists(store.Generation("backup"))) {
            EXPECT_TRUE(ContentsOfDocument(store.Generation("backup")) == draftContents);
            EXPECT_TRUE(handle.remove({"backup"}));
        }
        store.CheckInvariants(unprotected, /*killed=*/true);
        EXPECT_TRUE(ContentsOfDocument(store.document()) == store.contents() ||
                    (moves && disk::Exists(store.Generation("g"))));
        EXPECT_TRUE(ContentsOfDocument(draft) == draftContents || ContentsOfDocument(draft) == store.contents() ||
                    ContentsOfDocument(desk / "draft.txt") == store.contents() ||
                    ContentsOfDocument(store.Generation("draft")) == draftContents);
    }

    TestStore store;
    const vaultry::Store handle = *vaultry::Store::open(store.root());
    const TempDirectory desk;
    const std::string draft = desk / "draft.rtf";
    Snapshot draftContents;
    const vaultry::Dictionary info = vaultry::Dictionary::of({{"k", "v"}});
};

// Moves with the command, which copies from another volume and then removes; it dies with its parent.
vaultry::Result<void> MoveAcross(const Scene &scene)
{
    const pid_t command = fork();
    const std::string vaultry = std::string(VAULTRY_COMMANDS).substr(0, std::string(VAULTRY_COMMANDS).find(':'));
    if (command == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)execl((vaultry + "/vaultry").c_str(), "vaultry", "--store", scene.store.root().c_str(), "add", "--move",
                    "--name", "draft", scene.draft.c_str(), nullptr);
        _exit(127);
    }
    int ended = 0;
    const bool done = waitpid(command, &ended, 0) == command && ended == 0 && !disk::Exists(scene.draft);
    return done ? vaultry::Result<void>() : scene.handle.remove({""}); // any failure
}

const struct Work {
    const char *what, *generation;
    std::string changes; // the beginning of the names of what it works on
    std::function<vaultry::Result<void>(const Scene &)> run;
    bool across = false; // the store lies on a volume that keeps its power
    bool full = false;   // the other volume has no room for the copy
} kWorks[] = {
    {"add by copying", "old", "new", [](auto &s) { return s.handle.add("g", s.store.document(), 6); }},
    {"add, sharing files", "old", "new",
     [](auto &s) { return s.handle.add_with("g", s.store.document(), {.options = 6, .base = "old", .info = s.info}); }},
    {"add by moving", "old", "document", [](auto &s) { return s.handle.add_by_moving("g", s.store.document(), 6); }},
    {"set options", "old", "store/", [](auto &s) { return s.handle.set_options("old", 6); }},
    {"set info", "old", "store/", [](auto &s) { return s.handle.set_info("old", "k", vaultry::String("v")); }},
    {"set display name", "old", "store/", [](auto &s) { return s.handle.set_display_name("old", "name"); }},
    {"remove", "old", "store/", [](auto &s) { return s.handle.remove({"old"}); }},
    {"restore", "old.rtf", "desk/", [](auto &s) { return s.handle.restore("old.rtf", s.draft); }},
    {"restore as text", "old.txt", "desk/", [](auto &s) { return s.handle.restore("old.txt", s.draft, "backup"); }},
    {"restore across", "old.rtf", "desk/", [](auto &s) { return s.handle.restore("old.rtf", s.draft); }, true},
    {"restore without room", "old.rtf", "desk/", [](auto &s) { return s.handle.restore("old.rtf", s.draft); }, true,
     true},
    {"move across", "old", "desk/", MoveAcross, true},
    {"restore where nothing is", "old", "new", [](auto &s) { return s.handle.restore("old", s.desk / "new"); }},
};

class PowerCuts : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(On, PowerCuts, testing::Values("ext4", "xfs"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(PowerCuts, WhatReturnedTrueStaysAndNothingIsTorn)
{
    const TestVolume &where = VolumeOfType(GetParam());
    if (where.path.empty()) GTEST_SKIP() << "no " << GetParam() << " volume: " << where.whyNot;
    const int rounds = std::getenv("VAULTRY_LONG") ? 50 : 3; // for each work and each kind
    int cuts = 0, torn = 0, lost = 0, calls = 0;
    const TempDirectory others;
    for (int i = 0; i < static_cast<int>(std::size(kWorks)) * 2 * rounds && torn + lost < 10; ++i) {
        const Work &work = kWorks[i / rounds / 2];
        const auto kind = i / rounds % 2 == 0 ? Document::File : Document::Package;
        // The first run goes to its end. The others are killed at calls spread evenly over the operation, or a little
        // later.
        const int nth = i % rounds == 0 ? 0 : 1 + calls * (i * 618 % 1000) / 900;
        const bool losesJournal = i % 2 == 0;
        const As who = i / 2 % 2 == 0 ? As::User : As::Root;
        if (work.full && kind == Document::File) continue; // a file fits
        SCOPED_TRACE(testing::Message() << work.what << (kind == Document::File ? ", file, " : ", package, ")
                                        << NameOf(who) << (nth == 0 ? ", ended" : ", killed at call ") << nth
                                        << (losesJournal ? ", journal lost" : ""));
        std::optional<Impersonate> identity(who);
        Scene scene(kind, work.generation, work.across ? "" : where.path, where.path);
        const auto old = scene.State();
        identity.reset();
        // The library flushes its own work. The user's work has to be on disk only if the test looks for it.
        const bool flushed = nth != 0 || kind == Document::File;
        ASSERT_TRUE(!flushed || Shell(where.path, "sync -f ."));
        const char *const fill = "fallocate -l $(($(stat -fc '%a * %S' .) - (16 << 20))) filler || :;"
                                 "dd if=/dev/zero of=filler2 bs=64k || truncate -s -96K filler2; sync -f .";
        // While others have much to write, packages are flushed in another way.
        if (kind == Document::Package && i % 4 < 2) disk::Write(others / "much", std::string(48 << 20, 'x'));
        identity.emplace(who);
        ASSERT_TRUE(!work.full || Shell(where.path, fill));
        const Outcome outcome = InChild(KillBefore(nth), [&](TQError **why) {
            const auto result = work.run(scene);
            if (!result) *why = static_cast<TQError *>(TQRetain(result.error().get()));
            return static_cast<bool>(result);
        });
        if (nth == 0) calls = outcome.count;
        EXPECT_TRUE(outcome.succeeded == !work.full || nth != 0) << outcome.message;
        const auto done = scene.State();
        identity.reset();
        ASSERT_TRUE(CutPower(where.path, losesJournal));
        identity.emplace(who);

        const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
        const int before = result->total_part_count();
        const auto found = scene.State();
        EXPECT_TRUE(found.size() == done.size() || !outcome.succeeded);
        for (const auto &[part, snapshot] : outcome.succeeded ? done : old) {
            if (!outcome.succeeded && part.starts_with(work.changes)) continue;
            if (!flushed && !part.starts_with("store/") && !part.starts_with(work.changes)) continue;
            EXPECT_TRUE(found.count(part) && Same(snapshot, found.at(part))) << part;
        }
        scene.ExpectLitterIsNamed();
        if (!outcome.succeeded)
            scene.CheckInterrupted(work.changes == "store/" ? "old" : "g", work.changes == "document");
        ++cuts;
        (outcome.succeeded ? lost : torn) += result->total_part_count() > before ? 1 : 0;
    }
    std::printf("figures: %d power cuts on %s, %d torn, %d lost after success\n", cuts, GetParam(), torn, lost);
}

int flushes = -1; // by the client below so far; not counted if negative
int alive[2];     // its child ends when nobody holds this pipe's end for writing
int lastFlush;    // at which it dies; 0 if it lives

void CountFlush()
{
    if (flushes < 0) return;
    ++flushes;
    if (flushes == 1 && fork() == 0) {
        char byte = 0;
        (void)close(alive[1]);
        (void)!read(alive[0], &byte, 1);
        _exit(0);
    }
    if (flushes == lastFlush) (void)kill(getpid(), SIGKILL);
}

bool CanTake(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool can = flock(fd, LOCK_SH | LOCK_NB) == 0;
    close(fd);
    return can;
}

// A child that is forked in the middle shares its parent's open files. A lock that the parent gives back is gone for
// both; one that it held when it was killed stays as long as the child lives.
TEST(ForkedClients, KeepWhatAKilledOneHeldAndNothingOfOneThatLives)
{
    const auto move = [](const TestStore &store) { return store.Add("g", nullptr, /*copy=*/false); };
    const auto set = [](const TestStore &store) {
        return TQClientManagedStorageSetGenerationOptions(store.handle(), "g", 6, nullptr);
    };
    const struct {
        const char *what;
        std::function<bool(const TestStore &)> run;
        bool moves;
        int lastFlush;
        bool keepsLock = false; // the store's
    } rows[] = {
        // It flushes its note by three calls. Then, with the document in staging and without the lock, it flushes that.
        {"a move that is killed", move, true, 4},
        {"a move", move, true, 0},
        {"setting options, killed", set, false, 1, true},
        {"setting options", set, false, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const bool dies = row.lastFlush != 0, isStaged = row.moves && dies;
        TestStore store(Document::File);
        EXPECT_TRUE(row.moves || store.Add("g"));
        ASSERT_EQ(pipe2(alive, O_CLOEXEC), 0);
        const pid_t client = fork();
        if (client == 0) {
            flushes = 0;
            lastFlush = row.lastFlush;
            _exit(row.run(store) ? 0 : 1);
        }
        int ended = 0;
        EXPECT_EQ(waitpid(client, &ended, 0), client);
        EXPECT_TRUE(dies ? WIFSIGNALED(ended) : ended == 0);
        const std::string lock = store.root() + "/.vaultry_lockfile", staging = store.Staging();
        const auto owner = [&] { return staging + "/" + disk::List(staging).front() + "/.vaultry_owner"; };
        EXPECT_EQ(CanTake(lock), !row.keepsLock);
        EXPECT_EQ(disk::Exists(store.document()), !row.moves);
        EXPECT_EQ(disk::List(staging).size(), isStaged ? 1U : 0U);
        EXPECT_TRUE(!isStaged || !CanTake(owner()));
        (void)close(alive[1]);
        for (int i = 0; i < 5000 && (!CanTake(lock) || (isStaged && !CanTake(owner()))); ++i) usleep(1000);
        (void)close(alive[0]);
        store.CheckInvariants(isStaged ? "" : "g", /*killed=*/true);
        EXPECT_TRUE(!isStaged || ContentsOfDocument(store.document()) == store.contents());
    }
}

} // namespace

extern "C" int fsync(int fd)
{
    CountFlush();
    return static_cast<int>(syscall(SYS_fsync, fd));
}
