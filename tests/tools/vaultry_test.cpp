// The command as a user meets it: run as a process of its own, on real documents, by its exit code and its words.

#include "support/Disk.h"
#include "support/Identity.h"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <regex>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

struct Result {
    int exitCode = -1;
    std::string out, err; // on a terminal all is in `out`
};

using Words = std::vector<std::string>;

struct How {
    bool terminal = false;
    std::string typed = {};             // on the terminal
    Words environment = {};             // beside HOME and TERM
    std::function<void()> inChild = {}; // before the command is run
    bool interrupted = false;           // while it waits for the store's lock
};

class VaultryCommand : public testing::Test {
protected:
    Result Run(const Words &words, const How &how = {})
    {
        const std::string out = said / "out", err = said / "err";
        int master = -1;
        const int lock = how.interrupted ? LockStore() : -1;
        const pid_t child = how.terminal ? forkpty(&master, nullptr, nullptr, nullptr) : fork();
        if (child == 0) {
            if (!how.terminal) {
                dup2(open("/dev/null", O_RDONLY), 0);
                dup2(open(out.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666), 1);
                dup2(open(err.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666), 2);
            }
            if (how.inChild) how.inChild();
            for (const char *name : {"VAULTRY_STORE", "XDG_DATA_HOME", "NO_COLOR"}) unsetenv(name);
            for (std::string variable : Words{"HOME=" + home.path(), "TERM=xterm"}) putenv(strdup(variable.c_str()));
            for (const auto &variable : how.environment) putenv(strdup(variable.c_str()));
            std::vector<const char *> argv = {"vaultry"};
            for (const auto &word : words) argv.push_back(word.c_str());
            argv.push_back(nullptr);
            execv(VAULTRY_COMMAND, const_cast<char **>(argv.data()));
            _exit(127);
        }
        Result result;
        if (lock >= 0) InterruptWhenItWaits(child, lock);
        if (how.terminal) result.out = Talk(master, how.typed);
        int status = 0;
        waitpid(child, &status, 0);
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (!how.terminal) result = {result.exitCode, disk::Read(out), disk::Read(err)};
        return result;
    }

    // What stands in the store beside its own files, and in its staging area.
    Words Kept() const
    {
        Words names;
        for (const auto &name : disk::List(store))
            if (name[0] != '.') names.push_back(name);
        for (const auto &name : disk::List(store + "/.vaultry_staging")) names.push_back("staging:" + name);
        return names;
    }
    std::string Document(const std::string &name, std::string_view bytes = "words\n")
    {
        return disk::Write(home / name, bytes);
    }
    Result Add(const std::string &name) { return Run({"add", "--name", name, Document("report.txt")}); }

    TempDirectory home, said;
    const std::string store = home / ".local/share/vaultry/store";

private:
    int LockStore() const
    {
        const int descriptor = open((store + "/.vaultry_lockfile").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(flock(descriptor, LOCK_EX), 0);
        return descriptor;
    }
    // The kernel lists who waits for a lock. In the end the lock is given up, so that no test waits for ever.
    static void InterruptWhenItWaits(pid_t child, int lock)
    {
        const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
        const std::string waiting = "->.* " + std::to_string(child) + " ";
        for (int i = 0; i < 500 && !std::regex_search(disk::Read("/proc/locks"), std::regex(waiting)); ++i) pause();
        kill(child, SIGINT);
        siginfo_t ended{};
        for (int i = 0; i < 500 && ended.si_pid == 0; ++i, pause())
            waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT | WNOHANG);
        close(lock);
    }
    static std::string Talk(int master, const std::string &typed)
    {
        EXPECT_EQ(write(master, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        std::string said;
        char buffer[4096];
        for (ssize_t count; (count = read(master, buffer, sizeof buffer)) > 0;)
            said.append(buffer, static_cast<size_t>(count));
        close(master);
        return said;
    }
};

TEST_F(VaultryCommand, KeepsAPackageAndBringsItBack)
{
    const std::string package = disk::MakePackage(home / "Notes.pack");
    const Snapshot before = Snapshot::Of(package);
    const Result added = Run({"add", package});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    EXPECT_THAT(added.out, MatchesRegex("Notes-[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}.[0-9]{2}.[0-9]{2}Z.pack\n"));
    EXPECT_EQ(disk::Mode(store), 0500u);

    const std::string name = added.out.substr(0, added.out.size() - 1);
    EXPECT_THAT(Run({"list", package}).out, HasSubstr(name + "  20"));
    // Into a directory under the document's own name, as cp would.
    const std::string folder = disk::MakeDirectory(home / "back");
    EXPECT_EQ(Run({"copy", name, folder + "/"}).out, folder + "/Notes.pack\n");
    EXPECT_TRUE(Same(before, Snapshot::Of(folder + "/Notes.pack")));
    EXPECT_EQ(Run({"copy", name, folder}).exitCode, 4);
    EXPECT_EQ(Run({"remove", name}).exitCode, 0);
    EXPECT_EQ(Kept(), Words());
}

TEST_F(VaultryCommand, RefusesWithItsExitCodeAndAReason)
{
    ASSERT_EQ(Add("taken").exitCode, 0);
    const std::string document = home / "report.txt", folder = disk::MakeDirectory(home / "folder");
    const std::string nothing = home / "nothing", linked = disk::MakeDirectory(home / "linked");
    ASSERT_EQ(symlink("nowhere", (linked + "/a link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (home / "dangling").c_str()), 0);
    ASSERT_EQ(mkfifo((home / "fifo").c_str(), 0666), 0);
    disk::Write(folder + "/precious", "not a store");
    disk::Write(home / "._side", "");
    const struct {
        Words words;
        int exitCode;
        const char *says;
    } rows[] = {
        {{}, 2, "subcommand is required"},
        {{"add"}, 2, "DOCUMENT is required"},
        {{"add", "--name", "a", document, document}, 2, "several documents"},
        {{"add", "--name", ".hidden", document}, 2, ".hidden"},
        {{"add", "--name", "a/b", document}, 2, "a/b"},
        {{"add", "--name", "", document}, 2, "at least one character"},
        {{"add", "--name", "\xff", document}, 2, "\\xff"},
        {{"add", "--name", std::string(255, 'n'), document}, 2, "name"},
        {{"--store", "", "list"}, 2, "empty"},
        {{"destroy"}, 2, "1 generation: nobody can be asked"},
        {{"copy", "none", nothing}, 3, "no generation \"none\""},
        {{"copy", "../store", nothing}, 3, "no generation"},
        {{"remove", "none"}, 3, "no generation \"none\""},
        {{"remove", ".vaultry_staging"}, 3, "no generation"},
        {{"remove", "take"}, 3, "named whole, as \"taken\""},
        {{"--store", nothing, "remove", "taken"}, 3, "no store"},
        {{"add", "--name", "taken", document}, 4, "already exists"},
        {{"copy", "taken", document}, 4, "report.txt"},
        {{"copy", "taken", home / "dangling"}, 4, "dangling"},
        {{"copy", "taken", nothing + "/"}, 1, "no directory"},
        {{"copy", "taken", nothing + "/x"}, 1, "nothing/"},
        {{"copy", "taken", store + "/loose"}, 1, "inside the store"},
        {{"add", nothing}, 1, "nothing\": No such file"},
        {{"add", home / "dangling"}, 1, "points to"},
        {{"add", home / "._side"}, 1, "never kept"},
        {{"add", linked}, 1, "a link\" is a symbolic link"},
        {{"add", "--move", linked}, 1, "a link\" is a symbolic link"},
        {{"add", home / "fifo"}, 1, "is a FIFO"},
        {{"add", home.path()}, 1, "contains the store"},
        {{"--store", folder, "add", document}, 1, "no store"},
        {{"--store", folder, "destroy", "--yes"}, 1, "no store"},
        {{"--store", nothing, "destroy", "--yes"}, 1, "no store"},
        {{"--store", document, "list"}, 1, "no store"},
        {{"check", "--repair", document}, 1, "report.txt\" is no store"},
        {{"check", "--repair", folder}, 1, "no store"},
    };
    const Snapshot before = Snapshot::Of(home.path(), Snapshot::kContents);
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Result result = Run(row.words);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_THAT(result.err, HasSubstr(std::string("vaultry: ")));
        EXPECT_THAT(result.err, HasSubstr(row.says));
        EXPECT_EQ(result.out, "");
        ASSERT_TRUE(Same(before, Snapshot::Of(home.path(), Snapshot::kContents)));
    }
    // What is refused does not keep the rest from being done.
    EXPECT_EQ(Run({"remove", "none", "taken"}).exitCode, 3);
    EXPECT_EQ(Run({"add", nothing, document}).exitCode, 1);
    EXPECT_EQ(Kept().size(), 1u);
}

TEST_F(VaultryCommand, MakesANameOfAnyDocumentName)
{
    const std::string time = "-20[0-9-]*T[0-9-]*Z";
    std::string accents;
    for (int i = 0; i < 127; ++i) accents += "\u00e4";
    const struct {
        std::string document, name;
    } rows[] = {
        {"plain", "plain" + time},
        {".profile", "_profile" + time},
        {".a.conf", "_a" + time + ".conf"},
        {"caf\xe9.txt", "caf%e9" + time + ".txt"},
        {"two\nlines", "two%0alines" + time},
        // An extension that no name can end in would be another one after a restore.
        {"v.1 No. 5", "v_1 No_ 5" + time},
        {"end.", "end_" + time},
        {"c.t\xff", "c_t%ff" + time},
        {"b." + std::string(40, 'x'), "b_x+" + time},
        // 127 characters of two bytes: cut where a character begins.
        {accents, "(\u00e4)+" + time},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.document);
        const std::string document = Document(row.document);
        const Result first = Run({"add", "--", document}), second = Run({"add", document});
        EXPECT_THAT(first.out, MatchesRegex(row.name + "\n")) << first.err;
        EXPECT_LE(first.out.size(), 255u);
        EXPECT_THAT(second.out, Not(first.out));
        const Result listed = Run({"list", document});
        EXPECT_THAT(listed.out, HasSubstr(first.out.substr(0, first.out.size() - 1) + " "));
        EXPECT_EQ(std::count(listed.out.begin(), listed.out.end(), '\n'), 3) << listed.out;
        if (row.document == accents) continue; // no room for a placeholder's name beside it
        const Result restored = Run({"restore", "--no-backup", "--latest", "--", document});
        EXPECT_THAT(restored.out, HasSubstr("is restored")) << restored.err;
        EXPECT_TRUE(disk::Exists(document));
    }
}

TEST_F(VaultryCommand, FindsItsStore)
{
    const std::string document = Document("report.txt");
    const struct {
        Words words, environment;
        std::string store;
    } rows[] = {
        {{"add", "--name", "x", document}, {}, store},
        {{"add", "--name", "x", document}, {"XDG_DATA_HOME=" + home / "data"}, home / "data/vaultry/store"},
        {{"add", "--name", "x", document}, {"XDG_DATA_HOME=x", "VAULTRY_STORE=" + home / "v"}, home / "v"},
        {{"--store", home / "before", "add", "--name", "x", document}, {"VAULTRY_STORE=/x"}, home / "before"},
        {{"add", document, "--name", "x", "--store", home / "deep/after"}, {}, home / "deep/after"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.store);
        EXPECT_EQ(Run(row.words, {.environment = row.environment}).out, "x\n");
        EXPECT_EQ(disk::Read(row.store + "/x"), "words\n");
        EXPECT_EQ(disk::Mode(row.store), 0500u);
    }
    EXPECT_EQ(Run({"list", "--store", home / "typo"}).exitCode, 0);
    EXPECT_FALSE(disk::Exists(home / "typo"));
    EXPECT_THAT(Run({"init", "--store", home / "v"}).out, HasSubstr("already; generations: 1"));
}

TEST_F(VaultryCommand, MovesADocumentAlsoFromAnotherFileSystem)
{
    const TempDirectory memory("/dev/shm");
    struct stat here {
    }, there{};
    stat(home.path().c_str(), &here);
    stat(memory.path().c_str(), &there);
    if (here.st_dev == there.st_dev) GTEST_SKIP() << "/dev/shm is no other file system";
    for (const auto &parent : {home.path(), memory.path()}) {
        SCOPED_TRACE(parent);
        const std::string package = disk::MakeDirectory(parent + "/Moved.pack"), link = parent + "/link";
        disk::Write(package + "/words", "words\n", 0640);
        disk::Write(package + "/._side", "");
        ASSERT_EQ(symlink("Moved.pack", link.c_str()), 0);
        const Result moved = Run({"add", "--move", link});
        EXPECT_EQ(moved.exitCode, 0);
        EXPECT_THAT(moved.err, HasSubstr("is a link: moving \"" + package));
        EXPECT_THAT(moved.err, HasSubstr("1 file named \"._...\""));
        EXPECT_FALSE(disk::Exists(package));
        const std::string back = parent + "/back";
        EXPECT_EQ(Run({"copy", moved.out.substr(0, moved.out.size() - 1), back}).exitCode, 0);
        EXPECT_EQ(disk::List(back), Words({"words"}));
        EXPECT_EQ(disk::Mode(back + "/words"), 0640u);
    }
}

TEST_F(VaultryCommand, InterruptLeavesNothingBehind)
{
    ASSERT_EQ(Add("kept").exitCode, 0);
    const std::string document = home / "report.txt", copy = home / "copy";
    for (const Words &words : {Words{"add", document}, Words{"add", "--move", document}, Words{"copy", "kept", copy}}) {
        SCOPED_TRACE(testing::PrintToString(words));
        const Result result = Run(words, {.interrupted = true});
        EXPECT_EQ(result.exitCode, 130);
        EXPECT_THAT(result.err, HasSubstr("stopped: "));
        EXPECT_EQ(Kept(), Words({"kept"}));
        EXPECT_EQ(disk::Read(document), "words\n");
        EXPECT_FALSE(disk::Exists(copy));
    }
}

TEST_F(VaultryCommand, TellsAFullDiskFromFullAttributes)
{
    const std::string document = Document("full.txt");
    // The biggest value that fits, then what is left of the inode's own space.
    const auto fill = [&](const char *name, size_t room) {
        const std::string value(room, 'x');
        while (room > 0 && setxattr(document.c_str(), name, value.data(), room, 0) != 0) --room;
        return room;
    };
    const size_t room = fill("user.x", 5000);
    if (room == 5000) GTEST_SKIP() << "this file system has no limit of 4 KiB";
    fill("user.y", 500);
    const Result result = Run({"add", document});
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_THAT(result.err, HasSubstr("the disk is not full"));
    EXPECT_EQ(Kept(), Words());
    // Room for the record of permissions, and not for what the command notes: kept all the same.
    fill("user.x", room - 60);
    const Result kept = Run({"add", "--name", "kept", document});
    EXPECT_EQ(kept.exitCode, 6);
    EXPECT_EQ(kept.out, "kept\n");
    EXPECT_THAT(kept.err, HasSubstr("is kept whole"));
    EXPECT_THAT(kept.err, HasSubstr("the disk is not full"));
}

TEST_F(VaultryCommand, TellsAnotherUserThatTheStoreIsNotTheirs)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs two users";
    ASSERT_EQ(Add("kept").exitCode, 0);
    ASSERT_EQ(chmod(home.path().c_str(), 0777), 0);
    for (const char *folder : {"/.local", "/.local/share", "/.local/share/vaultry"})
        ASSERT_EQ(chmod((home.path() + folder).c_str(), 0755), 0);
    ASSERT_EQ(chmod(store.c_str(), 0555), 0);
    const How asUser = {.inChild = [] {
        if (setresuid(kTestUser, kTestUser, kTestUser) != 0) _exit(126);
    }};
    for (const Words &words : {Words{"list"}, Words{"remove", "kept"}, Words{"add", home / "report.txt"}}) {
        const Result result = Run(words, asUser);
        EXPECT_EQ(result.exitCode, 5) << result.err;
        EXPECT_THAT(result.err, HasSubstr(store));
    }
    EXPECT_EQ(Kept(), Words({"kept"}));
}

TEST_F(VaultryCommand, IsSafeAndPlainOnATerminal)
{
    ASSERT_EQ(Add("red \x1b[31m \u202e\n").exitCode, 0);
    EXPECT_THAT(Run({"list"}).out, HasSubstr("red \\x1b[31m \\u202e\\n  "));
    const std::string plain = Run({"list"}, {.terminal = true, .environment = {"NO_COLOR=1"}}).out;
    EXPECT_THAT(plain, Not(HasSubstr("\x1b")));
    EXPECT_THAT(Run({"list"}, {.terminal = true}).out, HasSubstr("\x1b[1m"));
    EXPECT_THAT(Run({"list"}, {.inChild = [] { dup2(open("/dev/full", O_WRONLY), 1); }}).exitCode, 1);

    EXPECT_EQ(Run({"destroy"}, {.terminal = true, .typed = "n\n"}).exitCode, 1);
    EXPECT_EQ(Kept().size(), 1u);
    EXPECT_THAT(Run({"destroy"}, {.terminal = true, .typed = "y\n"}).out, HasSubstr("with 1 generation?"));
    EXPECT_FALSE(disk::Exists(store));
}

TEST_F(VaultryCommand, ExplainsItself)
{
    for (const char *command : {"init", "add", "list", "copy", "remove", "destroy"})
        EXPECT_THAT(Run({command, "--help"}).out, HasSubstr("Example"));
    EXPECT_THAT(Run({"--help"}).out, HasSubstr("Exit status"));
    EXPECT_THAT(Run({"--version"}).out, MatchesRegex("vaultry [0-9.]+\n"));
    EXPECT_THAT(Run({"-v", "add", "--name", "x", home / "."}).err, HasSubstr(".cpp:"));
}

TEST_F(VaultryCommand, RestoresInPlaceAndKeepsWhatWasThere)
{
    const std::string document = disk::Write(home / "report.txt", "first\n", 0640);
    ASSERT_EQ(Run({"add", "--name", "draft-1.txt", document}).exitCode, 0);
    disk::Write(document, "second\n", 0640);
    const struct {
        Words words;
        std::string wanted, says;
        int exitCode = 0;
        size_t kept; // generations afterwards
    } rows[] = {
        {{"restore", "draft", document}, "first\n", "kept as \"report-20", 0, 2},
        {{"restore", "--no-backup", "--at", "2999-01-01", document}, "second\n", "restored from \"report-20", 0, 2},
        {{"restore", "--backup", "mine", "draft-1.txt", document}, "first\n", "kept as \"mine\"", 0, 3},
        {{"restore", "--backup", "mine", "draft-1.txt", document}, "first\n", "already exists", 4, 3},
        {{"set", "draft-1.txt", R"(vaultry.time:={"$date":"2026-03-01T10:15:30.25Z"})"}, "first\n", "", 0, 3},
        {{"restore", "--no-backup", "--at", "2026-03-01 10:15:30Z", document}, "first\n", "from \"draft-1.txt", 0, 3},
        {{"restore", "--no-backup", "--at", "2026-03-01T10-15Z", document}, "first\n", "from \"draft-1.txt", 0, 3},
        {{"restore", "--at", "2026-03-01T10:15:29Z", document}, "first\n", "no generation", 3, 3},
        {{"restore", "--at", "soon", document}, "first\n", "is no time", 2, 3},
        {{"restore", "--latest", document, "draft"}, "first\n", "DOCUMENT alone", 2, 3},
        {{"restore", document}, "first\n", "wants a NAME", 2, 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Result result = Run(row.words);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_THAT(result.out + result.err, HasSubstr(row.says));
        EXPECT_EQ(disk::Read(document), row.wanted);
        EXPECT_EQ(disk::Mode(document), 0640u);
        EXPECT_EQ(Kept().size(), row.kept);
        EXPECT_EQ(disk::List(home.path()), Words({".local", "report.txt"}));
    }
    ASSERT_EQ(
        system(("f=" + store + "/draft-1.txt; chmod u+w $f && setfattr -n user.com.corvane.vaultry.info $f").c_str()),
        0);
    const Result latest = Run({"restore", "--no-backup", "--latest", document});
    EXPECT_THAT(latest.out + latest.err, testing::AllOf(HasSubstr("\"draft-1.txt\": "), HasSubstr("from \"mine\"")));
    // The backup is one of the document's generations like any other; a document that is gone is copied back.
    EXPECT_THAT(Run({"list", document}).out, HasSubstr("mine"));
    ASSERT_EQ(unlink(document.c_str()), 0);
    EXPECT_EQ(Run({"restore", "draft-1.txt", document}).exitCode, 0);
    EXPECT_EQ(disk::Read(document), "first\n");
    EXPECT_EQ(Kept().size(), 3u);
}

TEST_F(VaultryCommand, ShowsAndSetsWhatIsKnownOfAGeneration)
{
    const std::string document = disk::Write(home / "caf\xe9.txt", "one\n", 0604);
    ASSERT_EQ(Run({"add", "--name", "kept", document}).exitCode, 0);
    ASSERT_EQ(Run({"add", "--name", "kelp", Document("report.txt")}).exitCode, 0);
    const std::string value = "{\"list\":[1,-2.5,true,\"x\"],\"when\":{\"$date\":\"2026-03-01T10:15:30.25Z\"},"
                              "\"raw\":{\"$data\":\"AP8=\"}}";
    const struct {
        Words words;
        int exitCode;
        std::string says;
    } rows[] = {
        {{"set", "kep", "author=Ada", "all:=" + value, "--display-name", "Brief", "--options", "0x6"}, 0, ""},
        {{"show", "--json", "kep"}, 0, "\"all\":" + value},
        {{"show", "--json", "kept"}, 0, "\"mode\":\"0604\""},
        {{"show", "--json", "kept"}, 0, "\"document_base64\":\""},
        {{"show", "kept"}, 0, "display_name: Brief"},
        {{"list", "--json", "--client", "nimbusync"}, 0, "\"options\":6,\"display_name\":\"Brief\""},
        {{"list", "--client", "draftline", "--long"}, 0, "kelp"},
        {{"list", "--json", "--without-options", "2"}, 0, "{\"name\":\"kelp\""},
        {{"set", "kept", "--unset", "author"}, 0, ""},
        {{"set", "kept", "--unset", "author"}, 1, "there is no such key"},
        {{"set", "kept", "x:=null"}, 2, "can't be null"},
        {{"set", "kept", "x:={"}, 2, "is not JSON"},
        {{"set", "kept", "x:=" + std::string(60000, '[')}, 2, "256 deep"},
        {{"set", "kept", "x:={\"$date\":\"2026-02-31\"}"}, 2, "is no date"},
        {{"set", "kept", "--display-name", "\xff"}, 2, "has to be UTF-8"},
        {{"set", "kept", "x=1", "--unset", "none"}, 1, "changed before that: \"x\""},
        {{"set", "kept", "=x"}, 2, "neither key=text"},
        {{"set", "kept", "--options", "-1"}, 2, "no number"},
        {{"show", "ke"}, 1, "the beginning of 2"},
        {{"show", "other"}, 3, "no generation"},
        {{"diff", "kept"}, 0, ""},
        {{"diff", "kept", "kelp"}, 1, "-one\n+words\n"},
        {{"diff", "--json", "kept", "kelp"}, 1, "{\"path\":\"\",\"change\":\"content\"}"},
        {{"check"}, 0, "is well"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Result result = Run(row.words);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_THAT(result.out + result.err, HasSubstr(row.says));
    }
    ASSERT_EQ(chmod((store + "/kept").c_str(), 0644), 0);
    EXPECT_THAT(Run({"check", store}).out, HasSubstr("kept: The item may be written to."));
    EXPECT_THAT(Run({"check", "--repair", "--json"}).out, HasSubstr("\"kind\":\"unprotected\",\"meaning\":\"The item"));
    EXPECT_EQ(Run({"check"}).exitCode, 0);

    ASSERT_EQ(chmod((store + "/kept").c_str(), 0644), 0);
    disk::SetAttribute(store + "/kept", "com.corvane.vaultry.info", "x");
    const Result listed = Run({"list"});
    EXPECT_TRUE(listed.exitCode == 1 && listed.out.find("kelp") != std::string::npos) << "hidden by a damaged one";
}
