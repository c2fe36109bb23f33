#include "Platform/TreeWalk.h"

#include "Platform/DirectoryReader.h"
#include "Platform/UniqueFd.h"
#include "support/Identity.h"
#include "support/Volumes.h"

#include <functional>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

using Kind = TreeWalk::Kind;
using Act = std::function<void(const TreeWalk::Entry &)>;

std::string Word(const TreeWalk::Entry &entry)
{
    static const char *const words[] = {"D", "DP", "DNR", "F", "SL", "O", "NS", "ERR"};
    return words[static_cast<int>(entry.kind)] +
           (entry.error != 0 ? ":" + std::string(strerrorname_np(entry.error)) : "");
}

// What a walk reports, as "kind path-below-the-root", in order; `act` sees each before the walk goes on.
std::vector<std::string> Walk(const std::string &root, const Act &act = {}, TreeWalk::Volumes volumes = {})
{
    std::vector<std::string> reported;
    TreeWalk walk;
    errno = E2BIG;
    EXPECT_TRUE(walk.Open(root.c_str(), volumes));
    while (const TreeWalk::Entry *entry = walk.Next()) {
        EXPECT_EQ(errno, entry->error != 0 ? entry->error : E2BIG);
        reported.push_back(Word(*entry) + " " + (entry->item.path + root.size()));
        if (act) act(*entry);
        errno = E2BIG;
    }
    return reported;
}

bool IsAt(const TreeWalk::Entry &entry, Kind kind, std::string_view end)
{
    return entry.kind == kind && std::string_view(entry.item.path).ends_with(end);
}

// Removes what is reported the way a removal does: by directory and name.
void Remove(const TreeWalk::Entry &entry)
{
    if (entry.kind == Kind::Directory) return;
    const int flags = entry.kind == Kind::DirectoryDone ? AT_REMOVEDIR : 0;
    EXPECT_EQ(unlinkat(entry.item.directory, entry.item.name, flags), 0) << Word(entry) << entry.item.path;
}

// Directories one in the other, made and entered by descriptor: a path of them would be too long.
void MakeDeep(const std::string &root, int depth)
{
    UniqueFd at(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < depth; ++i) {
        // Neighbours on both sides of the way down, so that every climb has to find its place.
        UniqueFd(openat(at.get(), "a", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        ASSERT_EQ(mkdirat(at.get(), "d", 0755), 0);
        UniqueFd(openat(at.get(), "z", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        at.Reset(openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
}

// In a child that may have 16 descriptors.
int WithFewDescriptors(const std::function<void()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        const rlimit few{16, 16};
        if (setrlimit(RLIMIT_NOFILE, &few) != 0) _exit(127);
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

struct Walks : AsEach {
    TempDirectory directory;
};
struct WalksOfVolumes : OnEachVolume {};

} // namespace

TEST_P(Walks, ReportEachEntryOnceByItsKind)
{
    disk::MakeDirectory(directory / "only");
    ASSERT_EQ(symlink("nowhere", (directory / "only/l").c_str()), 0);
    disk::Write(directory / "one", "");
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    const struct {
        std::string root;
        std::vector<std::string> reported;
    } rows[] = {
        {"only", {"D ", "SL /l", "DP "}},
        {"only/l", {"SL "}},
        {"one", {"F "}},
        {"pipe", {"O "}},
        {"none", {"NS:ENOENT "}},
        {"one/below", {"NS:ENOTDIR "}},
        {"only/", {"D ", "SL l", "DP "}},
    };
    for (const auto &row : rows) EXPECT_EQ(Walk(directory / row.root), row.reported) << row.root;

    TreeWalk walk;
    EXPECT_FALSE(walk.Open(""));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(walk.Open(std::string(4096, 'x').c_str()));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

// What is done to a directory when it is reported, and what the walk then finds.
TEST_P(Walks, NeverLeaveTheirTree)
{
    const bool root = GetParam() == As::Root;
    using Words = std::vector<std::string>;
    const struct {
        const char *what;
        std::function<void(const std::string &path)> act;
        Words reported; // of the directory and its one file
    } rows[] = {
        {"rights added in time", [](auto &path) { chmod(path.c_str(), 0700); }, {"D", "F", "DP"}},
        {"not readable", [](auto &path) { chmod(path.c_str(), 0300); },
         root ? Words{"D", "F", "DP"} : Words{"D", "DNR:EACCES"}},
        {"not searchable", [](auto &path) { chmod(path.c_str(), 0600); },
         root ? Words{"D", "F", "DP"} : Words{"D", "NS:EACCES", "DP"}},
        {"renamed", [](auto &path) { rename(path.c_str(), (path + "2").c_str()); }, {"D", "DNR:ENOENT"}},
        {"swapped for a link",
         [](auto &path) {
             rename(path.c_str(), (path + "2").c_str());
             (void)symlink((path + "2").c_str(), path.c_str());
         },
         {"D", "ERR:ESTALE"}},
        {"swapped for another",
         [](auto &path) {
             rename(path.c_str(), (path + "2").c_str());
             disk::Write(disk::MakeDirectory(path) + "/other", "");
         },
         {"D", "ERR:ESTALE"}},
    };
    int nth = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const std::string tree = disk::MakeDirectory(directory / ("tree" + std::to_string(nth++)));
        disk::Write(disk::MakeDirectory(tree + "/sub") + "/file", "");
        ASSERT_EQ(chmod((tree + "/sub").c_str(), 0), 0);
        Words reported;
        Walk(tree, [&](const TreeWalk::Entry &entry) {
            if (entry.level > 0) reported.push_back(Word(entry));
            if (IsAt(entry, Kind::Directory, "/sub")) row.act(entry.item.path);
        });
        // What the renamed directory is called now may be met as well.
        if (reported.size() > row.reported.size()) reported.resize(row.reported.size());
        EXPECT_EQ(reported, row.reported);
    }
}

TEST_P(Walks, KnowTheDirectoryAbove)
{
    disk::Write(disk::MakeDirectory(disk::MakeDirectory(directory / "tree") + "/sub") + "/file", "");
    struct stat above {};
    Walk(directory / "tree", [&](const TreeWalk::Entry &entry) {
        const std::string path(entry.item.path, entry.parentPathLength);
        ASSERT_EQ(stat(path.c_str(), &above), 0);
        ASSERT_NE(entry.parentStatus, nullptr);
        EXPECT_EQ(entry.parentStatus->inode, above.st_ino) << entry.item.path;
        EXPECT_EQ(path + "/" + (entry.level == 0 ? "tree" : entry.item.name), entry.item.path);
    });
}
INSTANTIATE_AS_EACH(Walks);

// A folder larger than any buffer, and a way down longer than there are descriptors, both removed under the walk.
TEST_P(WalksOfVolumes, RemoveWideAndDeepTrees)
{
    const std::string wide = disk::MakeDirectory(directory() / "wide");
    for (int i = 0; i < 3000; ++i) disk::Write(wide + "/a rather long name " + std::to_string(i), "");
    EXPECT_EQ(Walk(wide, Remove).size(), 3002U);

    const std::string deep = disk::MakeDirectory(directory() / "deep");
    MakeDeep(deep, 1000);
    EXPECT_EQ(WithFewDescriptors([&] { EXPECT_EQ(Walk(deep).size(), 4002U); }), 0);
    EXPECT_EQ(WithFewDescriptors([&] { EXPECT_EQ(Walk(deep, Remove).size(), 4002U); }), 0);
    EXPECT_FALSE(disk::Exists(deep));
}

// Some file systems count entries: removing one moves those behind it up. Here a directory that has fewer from the
// beginning stands for the one that was left.
TEST_P(WalksOfVolumes, FindTheirPlaceByName)
{
    const auto rest = [](platform::DirectoryReader &reader, int fd) {
        std::vector<std::string> names;
        int error = 0;
        while (const char *name = reader.Next(fd, &error)) names.emplace_back(name);
        EXPECT_EQ(error, 0);
        return names;
    };
    for (const char *name : {"full", "thinned"}) disk::MakeDirectory(directory() / name);
    for (int i = 0; i < 20; ++i) disk::Write(directory() / "full/" + std::to_string(i), "");
    for (int i = 7; i < 20; ++i) disk::Write(directory() / "thinned/" + std::to_string(i), "");
    const UniqueFd full(open((directory() / "full").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd thinned(open((directory() / "thinned").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    platform::DirectoryReader plain;
    const auto order = rest(plain, thinned.get());
    ASSERT_EQ(order.size(), 13U);
    for (size_t i = 0; i < order.size(); ++i) {
        SCOPED_TRACE(order[i]);
        ASSERT_EQ(lseek(full.get(), 0, SEEK_SET), 0);
        platform::DirectoryReader reader;
        int error = 0;
        const char *name = "";
        while (name && name != order[i]) name = reader.Next(full.get(), &error);
        reader.Suspend();
        EXPECT_EQ(reader.Resume(thinned.get(), order[i].c_str()), 0);
        EXPECT_EQ(rest(reader, thinned.get()), std::vector(order.begin() + static_cast<long>(i) + 1, order.end()));
    }
}

TEST_P(WalksOfVolumes, SayWhereAPathIsTooLong)
{
    const std::string deep = disk::MakeDirectory(directory() / "deep");
    MakeDeep(deep, 2040);
    int tooLong = 0;
    int done = 0;
    Walk(deep, [&](const TreeWalk::Entry &entry) {
        EXPECT_LT(strlen(entry.item.path), 4096U);
        tooLong += entry.kind == Kind::Error && entry.error == ENAMETOOLONG;
        done += entry.kind == Kind::DirectoryDone;
    });
    EXPECT_EQ(tooLong, 3) << "the three entries of the last directory that fits";
    EXPECT_EQ(done, (4095 - static_cast<int>(deep.size())) / 2 + 1);
    const std::string remove = "rm -rf " + deep;
    EXPECT_EQ(std::system(remove.c_str()), 0);
}

// The way back is through the directory that was reached, which is somewhere else by then.
TEST_P(WalksOfVolumes, EndWhereTheWayBackIsLost)
{
    const std::string tree = disk::MakeDirectory(directory() / "tree");
    const std::string elsewhere = disk::MakeDirectory(directory() / "elsewhere");
    MakeDeep(tree, 10);
    const auto reported = Walk(tree, [&](const TreeWalk::Entry &entry) {
        if (IsAt(entry, Kind::Directory, "/d/d/d/d/d/d/d"))
            (void)rename((tree + "/d/d").c_str(), (elsewhere + "/moved").c_str());
        EXPECT_TRUE(entry.kind != Kind::DirectoryDone || entry.level > 2);
    });
    EXPECT_EQ(reported.back(), "ERR:ESTALE /d/d");
}

TEST_P(WalksOfVolumes, EnterOtherVolumesOnlyWhenAsked)
{
    TempDirectory outside;
    const std::string mount = disk::MakeDirectory(outside / "volume");
    disk::Write(directory() / "file", "");
    ASSERT_EQ(::mount(directory().path().c_str(), mount.c_str(), nullptr, MS_BIND, nullptr), 0);
    using Words = std::vector<std::string>;
    EXPECT_EQ(Walk(outside.path()), (Words{"D ", "D /volume", "DP /volume", "DP "}));
    EXPECT_EQ(Walk(outside.path(), {}, TreeWalk::Volumes::All),
              (Words{"D ", "D /volume", "F /volume/file", "DP /volume", "DP "}));
    ASSERT_EQ(umount2(mount.c_str(), MNT_DETACH), 0);
}
INSTANTIATE_ON_EACH_VOLUME(WalksOfVolumes);
