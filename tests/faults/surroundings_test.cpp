// Odd surroundings: huge documents, and processes in an odd state. The library needs little memory, and changes nothing
// in its process. Odd trees and volumes are in transcripts/surroundings.txt.

#include "Platform/SystemLog.h"
#include "support/Tests.h"

#include <clocale>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sys/resource.h>
#include <sys/time.h>

namespace {

constexpr unsigned kKept = Snapshot::kContents | Snapshot::kRights;

// The life of a document with a store. In the end it is at "document" again.
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

// Memory for one item is enough, however many there are and however large.
TEST(VastDocuments, TakeLittleMemory)
{
    if (kIsSanitized) GTEST_SKIP() << "a sanitizer takes memory of its own";
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
            return done && after.ru_maxrss - before.ru_maxrss < 4096; // KiB
        });
        EXPECT_TRUE(outcome.succeeded) << outcome.message;
    }
    EXPECT_TRUE(Shell(
        out, "test $(ls | wc -l) = $((100000${VAULTRY_LONG:+0} + 1)); test $(stat -c %s sparse) = $((1 << 40 | 2));"
             "test $(du -k sparse | cut -f1) -lt 64"));
}

// The state of a process that a library could change and must not. For other changes it would need functions that it
// doesn't import.
std::string StateOfProcess()
{
    std::string state = std::filesystem::current_path().string() + setlocale(LC_ALL, nullptr);
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) // Umask, and which signals are blocked, ignored, caught
        if (std::regex_search(line, std::regex("^(Umask|Sig(Blk|Ign|Cgt))"))) state += line;
    for (char **variable = environ; *variable; ++variable) state += *variable;
    return state;
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
        [&] { return close_range(3, ~0U, 0) + setrlimit(RLIMIT_NOFILE, &few) == 0; }, // a runner may leave some open
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
