#include "Platform/duplix.h"

#include "Platform/UniqueFd.h"
#include "support/Identity.h"
#include "support/Volumes.h"

#include <gmock/gmock.h>

#include <functional>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>

namespace {

namespace what = duplix_what;
namespace stage = duplix_stage;
using Words = std::vector<std::string>;

constexpr unsigned kCopied = Snapshot::kWhole | Snapshot::kHoles;

// A client that keeps what it heard, and answers as the test wants.
struct Client {
    std::function<int(int what, int stage, const std::string &source)> answer = {};
    std::string root = {};
    Words heard = {};
    uint64_t lastProgress = 0;
    uint64_t longestStep = 0;

    static int Hear(int what, int stage, DuplixState *state, const char *source, const char *, void *context)
    {
        auto *self = static_cast<Client *>(context);
        const int error = errno;
        static const char *const whats[] = {"walk", "file", "directory", "done", "data", "attribute"};
        static const char *const stages[] = {"", "start", "finish", "error", "progress"};
        std::string word = std::string(whats[what]) + " " + stages[stage] + " " + (source + self->root.size());
        if (stage == stage::Error) word += ":" + std::string(strerrorname_np(error));
        self->heard.push_back(word);
        if (stage == stage::Start) self->lastProgress = 0;
        if (stage == stage::Progress) {
            self->longestStep = std::max(self->longestStep, state->bytesCopied - self->lastProgress);
            self->lastProgress = state->bytesCopied;
        }
        struct stat at {};
        struct stat open {};
        if (stage == stage::Finish && what != what::Directory && !S_ISLNK(state->source->mode)) {
            EXPECT_EQ(fstatat(state->destination.directory, state->destination.name, &at, AT_SYMLINK_NOFOLLOW), 0);
            EXPECT_EQ(fstat(state->destinationFd, &open), 0);
            EXPECT_EQ(at.st_ino, open.st_ino) << word;
        }
        errno = error;
        return self->answer ? self->answer(what, stage, source) : 0;
    }
};

int Copy(const std::string &from, const std::string &to, Client *client = nullptr)
{
    errno = 0;
    if (client) client->root = from;
    return platform::duplix(from.c_str(), to.c_str(), client ? Client::Hear : nullptr, client) == 0 ? 0 : errno;
}

int Do(const std::string &command)
{
    return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str());
}

// What people have, and what they should not have but do.
std::string MakeNasty(const std::string &path)
{
    disk::MakePackage(path);
    (void)symlink("run", (path + "/link").c_str());
    (void)symlink("no/such/place", (path + "/dangling").c_str());
    disk::Write(path + "/new\nline \xff\xfe", "named badly");
    disk::Write(path + "/setuid", "s", 06755);
    disk::Write(path + "/closed", "not for its group", 0400);
    disk::MakeDirectory(path + "/sticky", 01777);
    disk::SetAttribute(path + "/Data/Nested", "com.example.empty", "");
    disk::Write(disk::MakeDirectory(path + "/guarded") + "/inside", "i", 0440);
    EXPECT_EQ(Do("setfacl -d -m u:4242:rwx,g:4243:r " + path + "/guarded"), 0);
    const timespec old[] = {{-2, 5}, {-86400, 999999999}};
    for (const char *name : {"/dangling", "/sticky", "/closed"})
        EXPECT_EQ(utimensat(AT_FDCWD, (path + name).c_str(), old, AT_SYMLINK_NOFOLLOW), 0);
    if (geteuid() == 0) {
        for (const char *name : {"/link", "/setuid", "/sticky", "/guarded"})
            EXPECT_EQ(lchown((path + name).c_str(), kTestUser, kOtherUser), 0);
        EXPECT_EQ(chmod((path + "/setuid").c_str(), 06755), 0);
    }
    (void)disk::SetFlags(path + "/setuid", FS_IMMUTABLE_FL | FS_NODUMP_FL);
    (void)disk::SetFlags(path + "/guarded", FS_APPEND_FL);
    EXPECT_EQ(chmod((path + "/Data/Nested").c_str(), 0555), 0);
    return path;
}

std::string Target(const std::string &link)
{
    char target[256] = "";
    return readlink(link.c_str(), target, sizeof target - 1) < 0 ? "none" : target;
}

struct Copies : AsEach {
    TempDirectory directory;
};
struct CopiesOnVolumes : OnEachVolume {};

} // namespace

// Everything comes over; the lists that the destination's directory hands down do not come alive.
TEST_P(CopiesOnVolumes, ATreeIsTheSameTree)
{
    const std::string source = MakeNasty(directory() / "source");
    const std::string shared = disk::MakeDirectory(directory() / "shared");
    ASSERT_EQ(Do("setfacl -d -m u:777:rwx " + shared), 0);
    ASSERT_TRUE(disk::SetFlags(shared, FS_NODUMP_FL)); // ext4 hands this down too
    EXPECT_EQ(Copy(source, shared + "/copy"), 0);
    EXPECT_TRUE(Same(Snapshot::Of(source, kCopied), Snapshot::Of(shared + "/copy", kCopied)));
    EXPECT_EQ(Target(shared + "/copy/link"), "run");
    EXPECT_EQ(Target(shared + "/copy/dangling"), "no/such/place");

    EXPECT_EQ(Copy(source + "/Data/sparse", shared + "/file"), 0);
    EXPECT_TRUE(Same(Snapshot::Of(source + "/Data/sparse", kCopied), Snapshot::Of(shared + "/file", kCopied)));

    // Another type of volume: the same, but for where holes begin.
    for (const char *type : {"tmpfs", "ext4"}) {
        const TempDirectory other(VolumeOfType(type).path);
        EXPECT_EQ(Copy(source, other / "copy"), 0) << type;
        EXPECT_TRUE(Same(Snapshot::Of(source), Snapshot::Of(other / "copy"))) << type;
    }
}

// Data of every shape; where it can't be cloned the client still hears of each 4 MiB.
TEST_P(CopiesOnVolumes, DataAndHolesStayAsTheyAre)
{
    constexpr off_t kMega = 1 << 20;
    const struct {
        const char *name;
        std::vector<std::pair<off_t, size_t>> data;
        off_t size;
    } rows[] = {
        {"one hole", {}, 3 * kMega},
        {"one byte", {{0, 1}}, 1},
        {"two steps", {{0, 5 * kMega}}, 5 * kMega},
        {"between holes", {{kMega, 65536}, {2 * kMega, 65536}}, 3 * kMega},
        {"ends in data", {{2 * kMega, 100}}, 2 * kMega + 100},
        {"small with a hole", {{0, 10}}, 60000},
    };
    for (const auto &row : rows)
        for (const bool compressed : {false, true}) {
            SCOPED_TRACE(row.name + std::string(compressed ? ", compressed" : ""));
            const std::string source = disk::Write(directory() / "source", "");
            const UniqueFd fd(open(source.c_str(), O_WRONLY | O_CLOEXEC));
            ASSERT_EQ(ftruncate(fd.get(), row.size), 0);
            for (const auto &[at, size] : row.data) {
                const std::string bytes(size, 'x');
                ASSERT_EQ(pwrite(fd.get(), bytes.data(), size, at), static_cast<ssize_t>(size));
            }
            if (compressed && !disk::SetFlags(source, FS_COMPR_FL)) continue;
            Client client;
            EXPECT_EQ(Copy(source, directory() / "copy", &client), 0);
            EXPECT_TRUE(Same(Snapshot::Of(source, kCopied), Snapshot::Of(directory() / "copy", kCopied)));
            EXPECT_EQ(client.lastProgress, static_cast<uint64_t>(row.size));
            const bool cloned = !compressed && (Is("xfs") || Is("btrfs"));
            const bool holes = row.data.size() != 1 || row.data[0].second < 4 * kMega; // passed in one step
            EXPECT_TRUE(!cloned || client.heard.size() == 3);
            EXPECT_TRUE(cloned || holes || client.longestStep <= 4 * kMega) << client.longestStep;

            const UniqueFd from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
            const UniqueFd to(open(disk::Write(directory() / "second", std::string(100000, 'y')).c_str(), O_RDWR));
            EXPECT_EQ(platform::fduplix(from.get(), to.get()), 0);
            EXPECT_TRUE(Same(Snapshot::Of(source, kCopied), Snapshot::Of(directory() / "second", kCopied)));
            for (const char *name : {"source", "copy", "second"}) unlink((directory() / name).c_str());
        }
}

// A package of attributes larger than ext4 takes must not lose one unnoticed.
TEST_P(CopiesOnVolumes, NoAttributeIsLostSilently)
{
    const std::string source = disk::Write(directory() / "source", "x");
    disk::SetAttribute(source, "com.example.small", "s");
    const TempDirectory plain;
    const std::string ramfs = disk::MakeDirectory(plain / "ramfs");
    ASSERT_EQ(mount("vaultry", ramfs.c_str(), "ramfs", 0, nullptr), 0);
    EXPECT_EQ(Copy(source, ramfs + "/copy"), ENOTSUP);
    Client client;
    EXPECT_EQ(Copy(source, ramfs + "/second", &client), 0);
    EXPECT_EQ(client.heard, (Words{"file start ", "data progress ", "attribute error :EOPNOTSUPP", "file finish "}));
    // Without its list a file grants the group what the list did, not what the mask would.
    disk::Write(directory() / "listed", "x", 0600);
    ASSERT_EQ(Do("setfacl -m u:4242:rw,g::- " + (directory() / "listed")), 0);
    EXPECT_EQ(Copy(directory() / "listed", ramfs + "/listed"), 0);
    EXPECT_EQ(disk::Mode(ramfs + "/listed"), 0600U);
    ASSERT_EQ(umount2(ramfs.c_str(), MNT_DETACH), 0);
}
INSTANTIATE_ON_EACH_VOLUME(CopiesOnVolumes);

TEST_P(Copies, TellTheClientInOrder)
{
    const std::string source = disk::MakeDirectory(directory / "source");
    disk::Write(disk::MakeDirectory(source + "/sub") + "/file", "bytes");
    const int q = duplix_answer::Quit;
    const int s = duplix_answer::Skip;
    const struct {
        const char *what;
        int atWhat, atStage;
        std::string at;
        int answer, error;
        Words heard;
        Words made;
    } rows[] = {
        {"everything",
         -1,
         0,
         "",
         0,
         0,
         {"directory start ", "directory finish ", "directory start /sub", "directory finish /sub",
          "file start /sub/file", "data progress /sub/file", "file finish /sub/file", "done start /sub",
          "done finish /sub", "done start ", "done finish "},
         {"sub"}},
        {"skip a file",
         what::File,
         stage::Start,
         "/sub/file",
         s,
         0,
         {"directory start ", "directory finish ", "directory start /sub", "directory finish /sub",
          "file start /sub/file", "done start /sub", "done finish /sub", "done start ", "done finish "},
         {"sub"}},
        {"skip a directory",
         what::Directory,
         stage::Start,
         "/sub",
         s,
         0,
         {"directory start ", "directory finish ", "directory start /sub", "done start ", "done finish "},
         {}},
        {"skip all", what::Directory, stage::Start, "", s, 0, {"directory start "}, {}},
        {"quit in data",
         what::Data,
         stage::Progress,
         "/sub/file",
         q,
         ECANCELED,
         {"directory start ", "directory finish ", "directory start /sub", "directory finish /sub",
          "file start /sub/file", "data progress /sub/file"},
         {"sub"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string copy = directory / std::string("copy, ") + row.what;
        Client client{[&](int w, int st, const std::string &path) {
            return w == row.atWhat && st == row.atStage && path == source + row.at ? row.answer : 0;
        }};
        EXPECT_EQ(Copy(source, copy, &client), row.error);
        EXPECT_EQ(client.heard, row.heard);
        EXPECT_EQ(disk::List(copy), row.made);
    }
}

// What is in the way or can't be copied is said, is never opened or changed, and stops nothing that the client wants.
TEST_P(Copies, RefusalsLeaveTheRestAlone)
{
    const bool root = GetParam() == As::Root;
    const std::string source = disk::MakeDirectory(directory / "source");
    disk::Write(source + "/file", "new");
    const std::string victim = disk::Write(directory / "victim", "old", 0600);
    const Snapshot before = Snapshot::Of(victim);
    const struct {
        const char *what;
        std::function<void()> prepare;       // of the source
        std::function<int(int, int)> meddle; // at (what, stage) of "/it"
        std::string heard;
    } rows[] = {
        {"pipe", [&] { (void)mkfifo((source + "/it").c_str(), 0600); }, {}, "file error /it:EOPNOTSUPP"},
        {"file is unreadable",
         [&] { disk::Write(source + "/it", "secret", 0200); },
         {},
         root ? "file finish /it" : "file error /it:EACCES"},
        {"directory is unreadable",
         [&] { disk::MakeDirectory(source + "/it", 0300); },
         {},
         root ? "done finish /it" : "walk error /it:EACCES"},
        {"name is taken by a link", [&] { disk::Write(source + "/it", "x"); },
         [&](int w, int st) { return w == what::File && st == stage::Start ? symlink(victim.c_str(), "copy/it") : 0; },
         "file error /it:EEXIST"},
        {"file swapped for a link", [&] { disk::Write(source + "/it", "x"); },
         [&](int w, int st) {
             if (w != what::File || st != stage::Start) return 0;
             unlink("source/it");
             return symlink(victim.c_str(), "source/it");
         },
         "file error /it:ESTALE"},
        {"file swapped for another",
         [&] {
             disk::Write(source + "/it", "x");
             disk::Write("other", "not asked for");
         },
         [&](int w, int st) { return w == what::File && st == stage::Start ? rename("other", "source/it") : 0; },
         "file error /it:ESTALE"},
        {"directory swapped for a link", [&] { disk::MakeDirectory(source + "/it"); },
         [&](int w, int st) {
             if (w != what::Directory || st != stage::Start) return 0;
             rmdir("source/it");
             return symlink("/", "source/it");
         },
         "walk error /it:ESTALE"},
    };
    ASSERT_EQ(chdir(directory.path().c_str()), 0);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        row.prepare();
        Client client{[&](int w, int st, const std::string &path) {
            return path == source + "/it" && row.meddle ? row.meddle(w, st) : 0;
        }};
        EXPECT_EQ(Copy(source, "copy", &client), 0);
        EXPECT_THAT(client.heard, testing::Contains(row.heard));
        EXPECT_EQ(client.heard.back(), "done finish ");
        EXPECT_EQ(disk::Read("copy/file"), "new") << "the next item was not copied";
        EXPECT_EQ(Snapshot::Of(victim), before);
        EXPECT_EQ(Do("chmod -R u+rwx copy source; rm -rf copy source/it"), 0);
    }
    ASSERT_EQ(chdir("/"), 0);
}

TEST_P(Copies, NeverBeginWhereTheyCouldNotEnd)
{
    const std::string tree = disk::MakeDirectory(directory / "tree");
    disk::MakeDirectory(disk::MakeDirectory(tree + "/a") + "/b");
    const std::string file = disk::Write(directory / "file", "");
    const struct {
        std::string from, to;
        int error;
    } rows[] = {
        {tree, tree + "/copy", EINVAL},
        {tree, tree + "/a/b/copy", EINVAL},
        {tree, tree, EEXIST},
        {tree, tree + "2/copy", ENOENT},
        {tree, file, EEXIST},
        {file, file, EEXIST},
        {file, tree, EEXIST},
        {directory / "none", tree + "3", ENOENT},
        {"", tree + "3", ENOENT},
        {file, "/", EEXIST},
        {file, "", ENOENT},
        {file, std::string(4096, 'x'), ENAMETOOLONG},
    };
    const Snapshot before = Snapshot::Of(directory.path());
    for (const auto &row : rows) EXPECT_EQ(Copy(row.from, row.to), row.error) << row.from << " -> " << row.to;
    EXPECT_TRUE(Same(before, Snapshot::Of(directory.path())));
    EXPECT_EQ(Copy(tree + "/a", tree + "/sibling/"), 0);
}

// An ordinary user can't give files away, but can copy them; no rights of the owner's come along.
TEST_P(Copies, AStrictUmaskAndForeignFilesStopNobody)
{
    const std::string source = MakeNasty(directory / "source");
    const mode_t before = umask(0777);
    EXPECT_EQ(Copy(source, directory / "copy"), 0);
    umask(before);
    EXPECT_TRUE(Same(Snapshot::Of(source, kCopied), Snapshot::Of(directory / "copy", kCopied)));

    if (GetParam() == As::Root) return;
    const std::string foreign = "/bin/su"; // root's, and set-user-id
    if (access(foreign.c_str(), R_OK) != 0) return;
    EXPECT_EQ(Copy(foreign, directory / "su"), 0);
    EXPECT_EQ(disk::Mode(directory / "su"), disk::Mode(foreign) & ~06000U);
}

// The source changes while it is copied: what was there is copied, and the copy ends.
TEST_P(Copies, AFileThatChangesIsCopiedAsFound)
{
    for (const off_t becomes : {off_t{0}, off_t{5} << 20, off_t{40} << 20}) {
        SCOPED_TRACE(becomes);
        const std::string source = disk::Write(directory / "source", std::string(10 << 20, 'x'));
        ASSERT_TRUE(disk::SetFlags(source, FS_COMPR_FL)); // read in steps wherever we are
        Client client{
            [&](int w, int, const std::string &) { return w == what::Data ? truncate(source.c_str(), becomes) : 0; }};
        EXPECT_EQ(Copy(source, directory / "copy", &client), 0);
        const size_t expected = becomes == 0 ? 4 << 20 : becomes == off_t{5} << 20 ? 5 << 20 : 10 << 20;
        EXPECT_EQ(disk::Read(directory / "copy"), std::string(expected, 'x'));
        unlink((directory / "copy").c_str());
    }
}
INSTANTIATE_AS_EACH(Copies);
