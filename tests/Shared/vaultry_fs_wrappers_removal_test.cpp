#include "Shared/vaultry_fs_wrappers.h"
#include "support/Tests.h"

#include <sys/mount.h>

namespace {

struct TreeRemoval : InDirectory {
    static Operation Remove(const std::string &path)
    {
        return [path](TQError **error) { return _RemoveTree(path.c_str(), 0, error); };
    }
};
INSTANTIATE_AS_EACH(TreeRemoval);

TEST_P(TreeRemoval, TakesProtectedTreesWholeAndNothingElse)
{
    const std::string outside = disk::Write(Folder("outside") + "/kept", "kept");
    const Snapshot before = Snapshot::Of(outside, Snapshot::kUntouched);
    for (const bool keepRoot : {false, true}) {
        const std::string tree = disk::MakePackage(At("tree"));
        Link("tree/link", At("outside"));
        Link("tree/Data/dangling", "nowhere");
        EXPECT_EQ(mkfifo((tree + "/fifo").c_str(), 0600), 0);
        for (const char *name : {"/Info", "/Data/Nested/Deep", "/Data/Nested", "/Data", ""}) {
            (void)chmod((tree + name).c_str(), 0500);
            EXPECT_EQ(disk::SetFlags(tree + name, name[0] ? FS_APPEND_FL : FS_IMMUTABLE_FL), canFlag);
        }
        OwnedError error;
        EXPECT_TRUE((keepRoot ? _RemoveSubTrees : _RemoveTree)(tree.c_str(), 0, error.out())) << error.description();
        EXPECT_EQ(disk::Exists(tree), keepRoot);
        EXPECT_THAT(disk::List(tree), testing::IsEmpty());
    }
    EXPECT_EQ(disk::Mode(At("tree")), 0720U) << "made writable for owner and group";
    EXPECT_EQ(disk::Flags(At("tree")), 0);
    for (const auto &path : {Link("link", "outside"), File("file", "", 0400), At("missing")}) {
        EXPECT_TRUE(_RemoveTreeInternal(path.c_str(), /*keepRoot=*/true, nullptr)) << "only a directory is kept";
        EXPECT_FALSE(disk::Exists(path));
    }
    EXPECT_TRUE(Same(before, Snapshot::Of(outside, Snapshot::kUntouched)));
}

TEST_P(TreeRemoval, StopsAtTheFirstFailureAndSaysWhich)
{
    const std::string file = File("file"), full = Folder("full");
    File("full/child");
    Expect({{System(ENOENT, "fts_open(\"\") failed"), Remove("")},
            {System(ENOENT, "fts_open(\"\") failed"), CALL(_RemoveTree(nullptr, 0, why))},
            {System(ENOTDIR, "fts_read() failed for path '$/file/x'\n"), Remove(file + "/x")}});
    if (!isRoot) {
        // Only write permission is added: what can't be read can't be emptied.
        chmod(full.c_str(), 0300);
        Expect({{System(ENOTEMPTY, "Failed to remove \"$/full\""), Remove(full)}});
        EXPECT_TRUE(disk::Exists(full + "/child"));
    } else if (mount("none", Folder("full/disk").c_str(), "tmpfs", 0, "size=1m") == 0) {
        File("full/disk/mounted");
        Expect({{System(EBUSY, "Failed to remove \"$/full/disk\""), Remove(full)}});
        EXPECT_TRUE(disk::Exists(full + "/disk/mounted")) << "another file system is not entered";
        EXPECT_EQ(umount((full + "/disk").c_str()), 0);
    }
}

} // namespace
