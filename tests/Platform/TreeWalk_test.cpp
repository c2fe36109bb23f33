#include "Platform/TreeWalk.h"

#include "Platform/DirectoryReader.h"
#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <functional>
#include <sys/resource.h>

namespace {

using Kind = TreeWalk::Kind;
using Words = std::vector<std::string>;
using Act = std::function<void(const TreeWalk::Entry &)>;

std::string Word(const TreeWalk::Entry &entry)
{
    static const std::string words[] = {"D", "DP", "DNR", "F", "SL", "O", "NS", "ERR"};
    const std::string &word = words[static_cast<int>(entry.kind)];
    return entry.error == 0 ? word : word + ":" + strerrorname_np(entry.error);
}

// What a walk reports, as "kind path-below-the-root", in order; `act` sees each before the walk goes on.
Words Walk(const std::string &root, const Act &act = {}, TreeWalk::Volumes volumes = {})
{
    Words reported;
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

struct WalksOfVolumes : OnEachVolume {};

} // namespace

// A folder larger than any buffer, and a way down longer than there are descriptors, both removed under the walk.
TEST_P(WalksOfVolumes, RemoveWideAndDeepTrees)
{
    ASSERT_TRUE(Shell(directory().path(),
                      "mkdir wide; cd wide; seq -f 'a name that fills buffers %g' 3000 | xargs -d '\\n' touch"));
    EXPECT_EQ(Walk(directory() / "wide", Remove).size(), 3002U);

    const std::string deep = disk::MakeDirectory(directory() / "deep");
    MakeDeep(deep, 1000);
    const auto withFewDescriptors = [&] {
        const rlimit few{16, 16};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        for (const Act &act : {Act(), Act(Remove)}) EXPECT_EQ(Walk(deep, act).size(), 4002U);
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(withFewDescriptors(), testing::ExitedWithCode(0), "");
    EXPECT_FALSE(disk::Exists(deep));
}

// Some file systems count entries: removing one moves those behind it up. Here a directory that has fewer from the
// beginning stands for the one that was left.
TEST_P(WalksOfVolumes, FindTheirPlaceByName)
{
    ASSERT_TRUE(Shell(directory().path(), "mkdir full thinned; touch full/$(seq -s ' full/' 20)"
                                          "; touch thinned/$(seq -s ' thinned/' 8 20)"));
    const UniqueFd full(open((directory() / "full").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd thinned(open((directory() / "thinned").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int error = 0;
    const auto rest = [&](platform::DirectoryReader &reader) {
        Words names;
        while (const char *name = reader.Next(thinned.get(), &error)) names.emplace_back(name);
        return names;
    };
    platform::DirectoryReader plain;
    Words order = rest(plain);
    ASSERT_EQ(order.size(), 13U);
    for (; !order.empty(); order.erase(order.begin())) {
        const std::string left = order.front();
        ASSERT_EQ(lseek(full.get(), 0, SEEK_SET), 0);
        platform::DirectoryReader reader;
        for (const char *name = ""; name && name != left;) name = reader.Next(full.get(), &error);
        reader.Suspend();
        EXPECT_EQ(reader.Resume(thinned.get(), left.c_str()), 0);
        EXPECT_EQ(rest(reader), Words(order.begin() + 1, order.end())) << left;
    }
}

TEST_P(WalksOfVolumes, SayWhereAPathIsTooLong)
{
    const std::string deep = disk::MakeDirectory(directory() / "deep");
    MakeDeep(deep, 2180);
    int tooLong = 0, done = 0;
    Walk(deep, [&](const TreeWalk::Entry &entry) {
        EXPECT_LT(strlen(entry.item.path), TreeWalk::kPathLimit);
        tooLong += entry.kind == Kind::Error && entry.error == ENAMETOOLONG;
        done += entry.kind == Kind::DirectoryDone;
    });
    EXPECT_EQ(tooLong, 3) << "the three entries of the last directory that fits";
    EXPECT_EQ(done, (static_cast<int>(TreeWalk::kPathLimit - 1 - deep.size())) / 2 + 1);
    EXPECT_TRUE(Shell(deep, "rm -rf d"));
}

// The way back is through the directory that was reached, which is somewhere else by then.
TEST_P(WalksOfVolumes, EndWhereTheWayBackIsLost)
{
    const std::string tree = disk::MakeDirectory(directory() / "tree");
    MakeDeep(tree, 10);
    const auto reported = Walk(tree, [&](const TreeWalk::Entry &entry) {
        EXPECT_TRUE(entry.level != 7 || entry.kind != Kind::Directory || Shell(tree, "mv d/d ../elsewhere"));
        EXPECT_TRUE(entry.kind != Kind::DirectoryDone || entry.level > 2);
    });
    EXPECT_EQ(reported.back(), "ERR:ESTALE /d/d");
}

TEST_P(WalksOfVolumes, EnterOtherVolumesOnlyWhenAsked)
{
    const TempDirectory outside;
    ASSERT_TRUE(
        Shell(outside.path(), "mkdir v; touch " + (directory() / "f") + "; mount --bind " + directory().path() + " v"));
    EXPECT_EQ(Walk(outside.path()), (Words{"D ", "D /v", "DP /v", "DP "}));
    EXPECT_EQ(Walk(outside.path(), {}, TreeWalk::Volumes::All), (Words{"D ", "D /v", "F /v/f", "DP /v", "DP "}));
    ASSERT_TRUE(Shell(outside.path(), "umount v"));
}
INSTANTIATE_ON_EACH_VOLUME(WalksOfVolumes);
