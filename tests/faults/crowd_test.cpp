// A crowd in one store: processes that add, remove and set, and are killed at any moment; threads beside them that
// read, query, copy out and write. Every reader sees whole generations and moments that existed, and in the end the
// store is sound.

#include "Platform/SystemLog.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <vaultry/vaultry.hpp>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <random>
#include <regex>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

namespace {

// Shared by all processes.
struct Tally {
    std::atomic<bool> stop;
    std::atomic<long> writes, kills, reads, wrong;
};
Tally &NewTally()
{
    return *static_cast<Tally *>(
        mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

// One writing process. Every generation has the same content, that of "base", which nobody removes.
[[noreturn]] void Write(const TestStore &at, Tally &tally, unsigned seed)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    GoToHost(seed);
    std::mt19937 random(seed);
    const vaultry::Store store = *vaultry::Store::open(at.root());
    const std::string home = at / "home-" + std::to_string(seed), part = at / "part-" + std::to_string(seed);
    for (;; ++tally.writes) {
        const std::string name = "g" + std::to_string(random() % 8),
                          letters(300, static_cast<char>('a' + random() % 26));
        const auto what = random() % 6;
        // Files are shared with one that may go at any moment, or with "base".
        const std::string other = random() % 2 == 0 ? "base" : "g" + std::to_string(random() % 8);
        if (what == 0) (void)store.add_with(name, at.document(), {.options = random() % 2 * 6, .base = other});
        if (what == 1) (void)store.remove({name});
        if (what == 2) (void)store.set_options(random() % 2 == 0 ? name : "base", 6);
        if (what == 3) (void)store.set_display_name("base", vaultry::String(letters));
        if (what == 4) (void)store.set_info("base", "k", vaultry::String(letters));
        if (what != 5) continue;
        // Made and removed under another name, so that the item at `home` is always whole.
        if (store.copy("base", part) && rename(part.c_str(), home.c_str()) == 0) (void)store.add_by_moving(name, home);
        if (rename(home.c_str(), part.c_str()) == 0) (void)vaultry::Store::destroy(part);
    }
}

// Keeps three writers going: kills one after the other, and puts another in its place.
[[noreturn]] void Herd(const TestStore &at, Tally &tally)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL); // and its writers follow it
    std::mt19937 random(1);
    pid_t writers[3] = {};
    for (unsigned seed = 0; !tally.stop; ++seed) {
        pid_t &writer = writers[seed < std::size(writers) ? seed : random() % std::size(writers)];
        if (writer != 0) {
            usleep(static_cast<useconds_t>(random() % 20000));
            (void)kill(writer, SIGKILL);
            (void)waitpid(writer, nullptr, 0);
            ++tally.kills;
        }
        writer = fork();
        if (writer == 0) Write(at, tally, seed);
    }
    for (const pid_t writer : writers) (void)kill(writer, SIGKILL), (void)waitpid(writer, nullptr, 0);
    _exit(0);
}

// One moment: "b" is added after "a", and both are removed at once.
template <class Names> void ExpectMoment(const Names &names)
{
    const auto count = [&](const char *name) { return std::count(names.begin(), names.end(), name); };
    EXPECT_EQ(count("base"), 1);
    EXPECT_GE(count("a"), count("b"));
}

void Read(const TestStore &at, Tally &tally, unsigned seed)
{
    std::mt19937 random(seed);
    const vaultry::Store store = *vaultry::Store::open(at.root());
    for (const std::string out = at / "out-" + std::to_string(seed); !tally.stop; ++tally.reads) {
        usleep(static_cast<useconds_t>(random() % 2000)); // without a pause, readers would never let writers in
        const auto names = store.names();
        const auto records = store.query();
        ASSERT_TRUE(names && records);
        ExpectMoment(*names);
        std::vector<std::string> recorded;
        for (const auto &record : *records) {
            recorded.push_back(record.name);
            const std::string name = record.display_name.value_or("n"); // one letter, repeated
            EXPECT_EQ(name.find_first_not_of(name[0]), std::string::npos);
        }
        ExpectMoment(recorded);
        const std::string &name = recorded[random() % recorded.size()];
        const auto copied = store.copy(name, out);
        EXPECT_TRUE(copied || (name != "base" && !disk::Exists(out))) << copied.error().description();
        if (!copied) continue;
        EXPECT_TRUE(Same(at.contents(), Snapshot::Of(out, Snapshot::kContents))) << name;
        EXPECT_TRUE(vaultry::Store::destroy(out));
    }
}

TEST(Crowd, ConcurrentReadersSeeWholeGenerationsWhileWritersAreKilled)
{
    const unsigned seconds = std::getenv("VAULTRY_LONG") == nullptr ? 10 : OnlyVolume() ? 3600 : 600;
    auto &tally = NewTally();
    platform::SetLogSink([](int, const char *) {});
    TestStore at(TestStore::Document::Folder, QuickVolume());
    ASSERT_TRUE(at.Add("base"));
    const pid_t herder = fork(); // before any thread is started
    if (herder == 0) Herd(at, tally);
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 3; ++seed) threads.emplace_back([&, seed] { Read(at, tally, seed); });
    threads.emplace_back([&] {
        const vaultry::Store store = *vaultry::Store::open(at.root());
        for (; !tally.stop; ++tally.writes)
            EXPECT_TRUE(store.add("a", at.document()) && store.add_with("b", at.document(), {.base = "a"}) &&
                        store.remove({"a", "b"}));
    });
    sleep(seconds);
    tally.stop = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(waitpid(herder, nullptr, 0), herder);

    EXPECT_TRUE(vaultry::Store::findings(at.root(), /*repair=*/true));
    for (const auto &finding : *vaultry::Store::findings(at.root()))
        EXPECT_EQ(finding.kind, "staging-recent") << finding.path;
    at.CheckInvariants("", /*killed=*/true);
    for (const auto &name : disk::List(at.path()))
        EXPECT_TRUE(!name.starts_with("home-") || Same(at.contents(), ContentsOfDocument(at / name))) << name;
    platform::SetLogSink(nullptr);
    std::printf("figures: %ld reads and %ld writes of a crowd in %u s, %ld writers killed, %d violations\n",
                tally.reads.load(), tally.writes.load(), seconds, tally.kills.load(),
                testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count());
}

// Two processes, on two hosts where there are any. What one has written, the other sees at once; and of two that add
// under one name, one succeeds.
TEST(Crowd, WhatOneHostWritesAnotherReadsAtOnce)
{
    const int rounds = std::getenv("VAULTRY_HOSTS") != nullptr && !kIsSanitized ? 250 : 50;
    platform::SetLogSink([](int, const char *) {});
    TestStore at(TestStore::Document::File, QuickVolume());
    struct Answer {
        bool sees, wins;
    } answer{};
    int questions[2], answers[2];
    Require(pipe(questions) == 0 && pipe(answers) == 0, "pipe");
    const pid_t other = fork();
    if (other == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (const int end : {questions[1], answers[0]}) close(end);
        GoToHost(1);
        const vaultry::Store store = *vaultry::Store::open(at.root());
        for (int round = 0; read(questions[0], &round, sizeof round) == sizeof round;) {
            const std::string name = std::to_string(round), before = std::to_string(round - 1), out = at / "out";
            const auto names = store.names();
            const auto has = [&](const std::string &one) { return std::count(names->begin(), names->end(), one) == 1; };
            const auto info = store.info(name, "round");
            answer.sees = names && has(name) && !has(before) && info &&
                          info->as<vaultry::Number>().to_int64() == round && store.copy(name, out) &&
                          Same(at.contents(), Snapshot::Of(out, Snapshot::kContents)) && vaultry::Store::destroy(out);
            answer.wins = static_cast<bool>(store.add("contest " + name, at.document()));
            if (write(answers[1], &answer, sizeof answer) != sizeof answer) break;
        }
        _exit(0);
    }
    for (const int end : {questions[0], answers[1]}) close(end);
    const vaultry::Store store = *vaultry::Store::open(at.root());
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        const std::string name = std::to_string(round), before = std::to_string(round - 1);
        EXPECT_TRUE(store.add(name, at.document()) && store.set_info(name, "round", vaultry::Number(round)));
        EXPECT_TRUE(round == 0 || store.remove({before, "contest " + before}));
        EXPECT_EQ(write(questions[1], &round, sizeof round), ssize_t{sizeof round});
        const bool wins = static_cast<bool>(store.add("contest " + name, at.document()));
        EXPECT_EQ(read(answers[0], &answer, sizeof answer), ssize_t{sizeof answer});
        EXPECT_TRUE(answer.sees) << round;
        EXPECT_NE(wins, answer.wins) << round;
    }
    for (const int end : {questions[1], answers[0]}) close(end);
    (void)kill(other, SIGKILL);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    platform::SetLogSink(nullptr);
    std::printf("figures: %d generations read by another process as soon as they were written\n", rounds);
}

// Runs `work` again and again in a process of its own, until the tally tells it to stop.
pid_t Repeat(Tally &tally, const std::function<bool()> &work)
{
    const pid_t process = fork();
    if (process != 0) return process;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (; !tally.stop; ++tally.reads) tally.wrong += work() ? 0 : 1;
    _exit(0);
}

// One document. Its bytes tell each of its states: "saved" and a number, or a generation's name.
TEST(Crowd, RestoresOfOneDocumentLoseNoneOfItsStates)
{
    const int rounds = std::getenv("VAULTRY_LONG") != nullptr ? 10000 : kIsSanitized || OnlyVolume() ? 60 : 300;
    auto &tally = NewTally();
    platform::SetLogSink([](int, const char *) {});
    TestStore at(TestStore::Document::File, QuickVolume());
    const std::string desk = disk::MakeDirectory(at / "desk"), names[] = {"one", "two"};
    const vaultry::Store store = *vaultry::Store::open(at.root());
    const auto write = [](const std::string &path, bool folder, const std::string &bytes) {
        return disk::Write(folder ? disk::MakeDirectory(path) + "/in" : path, bytes);
    };
    std::mt19937 random(1);
    const std::string a = disk::MakeDirectory(at / "a"), b = disk::MakeDirectory(at / "b");
    const bool exchanges = renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
    long aside = 0, changed = 0;
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        const bool folder = round % 2 == 1;
        const std::string saved = "saved " + std::to_string(round), inside = folder ? "/in" : "",
                          place = disk::MakeDirectory(desk + "/" + std::to_string(round)), document = place + "/d";
        SCOPED_TRACE(saved);
        write(document, folder, saved);
        for (const auto &name : names) {
            const std::string draft = at / name;
            write(draft, folder, name);
            EXPECT_TRUE(store.add_by_moving(name, draft));
            EXPECT_TRUE(store.set_info(name, vaultry::document_key, vaultry::Data(document)));
        }
        const auto isKnown = [&](const std::string &bytes) {
            return bytes == saved || bytes == "one" || bytes == "two";
        };
        tally.stop = false;
        const auto isWhole = [&](const std::string &bytes) { return isKnown(bytes) || (!exchanges && bytes.empty()); };
        const pid_t others[] = {Repeat(tally, [&] { return isWhole(disk::Read(document + inside)); }),
                                Repeat(tally, [&] { return bool(vaultry::Store::findings(at.root(), true)); })};
        pid_t restorers[2];
        for (int i = 0; i < 2; ++i)
            if ((restorers[i] = fork()) == 0) {
                (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
                const auto done = store.restore(names[i], document, "backup " + names[i]);
                const std::string why = done ? "" : done.error().description();
                // The other restorer replaced the document before this one's turn, or while it was copied for the
                // backup.
                const std::string away = exchanges ? "" : "|stat.*No such";
                const bool gaveWay = std::regex_search(
                    why, std::regex("was changed while|src=" + document + ".*(Stale|No such)" + away));
                if (!done && !gaveWay) std::puts(why.c_str());
                (void)fflush(stdout);
                _exit(done ? 0 : gaveWay ? 1 : 2);
            }
        usleep(static_cast<useconds_t>(random() % 4000));
        const auto victims = random() % 4; // none, one of them, or both
        for (unsigned i = 0; i < 2; ++i)
            if ((victims >> i & 1) != 0 && kill(restorers[i], SIGKILL) == 0) ++tally.kills;
        for (const pid_t restorer : restorers) {
            int ended = 0;
            EXPECT_EQ(waitpid(restorer, &ended, 0), restorer);
            EXPECT_TRUE(WIFSIGNALED(ended) || WEXITSTATUS(ended) < 2) << "somebody touched what it works on";
            changed += WIFEXITED(ended) && WEXITSTATUS(ended) == 1;
        }
        tally.stop = true;
        for (const pid_t other : others) EXPECT_EQ(waitpid(other, nullptr, 0), other);
        EXPECT_EQ(tally.wrong, 0);

        EXPECT_TRUE(vaultry::Store::findings(at.root(), /*repair=*/true));
        // An item that belongs to another's restore is reported and left to a person.
        const auto left = *vaultry::Store::findings(at.root());
        for (const auto &finding : left)
            EXPECT_TRUE(finding.kind == "document-aside" || finding.kind == "copy-beside") << finding.kind;
        EXPECT_EQ(disk::List(place).size(), 1 + left.size());
        aside += left.empty() ? 0 : 1;
        const std::string now = disk::Read(document + inside);
        EXPECT_TRUE(isKnown(now)) << now;
        bool isKept = now == saved;
        for (const auto &name : names) isKept |= disk::Read(at.Generation("backup " + name) + inside) == saved;
        EXPECT_TRUE(isKept) << "it is neither at its path nor in a backup";
        for (const auto &name : store.names().value()) EXPECT_TRUE(store.remove({name}));
        EXPECT_TRUE(Shell(desk, "rm -r */*"));
        EXPECT_TRUE(vaultry::Store::findings(at.root(), /*repair=*/true));
    }
    platform::SetLogSink(nullptr);
    std::printf("figures: %d rounds of two restores of one document, %ld killed, %ld gave way, %ld left one aside\n",
                rounds, tally.kills.load(), changed, aside);
}

} // namespace
