#include "Shared/vaultry_fs_wrappers.h"
#include "support/Identity.h"
#include "support/Reports.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class TreeRemoval : public AsEach {
protected:
    // Write-protected throughout, and immutable or append-only where this user may set that.
    std::string MakeProtectedTree(const std::string &path)
    {
        disk::MakePackage(path);
        EXPECT_EQ(symlink((directory / "outside").c_str(), (path + "/link").c_str()), 0);
        EXPECT_EQ(symlink("nowhere", (path + "/Data/dangling").c_str()), 0);
        EXPECT_EQ(mkfifo((path + "/fifo").c_str(), 0600), 0);
        const bool immutable = directory.CanSetImmutable();
        if (immutable) {
            EXPECT_TRUE(disk::SetFlags(path + "/Info", FS_IMMUTABLE_FL | FS_APPEND_FL));
            EXPECT_TRUE(disk::SetFlags(path + "/Data/Nested", FS_APPEND_FL));
        }
        for (const char *name : {"/Data/Nested/Deep", "/Data", ""}) {
            (void)chmod((path + name).c_str(), 0500);
            EXPECT_EQ(disk::SetFlags(path + name, FS_IMMUTABLE_FL), immutable);
        }
        return path;
    }

    TempDirectory directory;
};
INSTANTIATE_AS_EACH(TreeRemoval);

TEST_P(TreeRemoval, TakesProtectedTreesWholeAndNothingElse)
{
    disk::MakeDirectory(directory / "outside");
    disk::Write(directory / "outside/kept", "kept");
    const Snapshot outside = Snapshot::Of(directory / "outside", Snapshot::kUntouched);
    OwnedError error;

    EXPECT_TRUE(_RemoveTree(MakeProtectedTree(directory / "tree").c_str(), 0, error.out())) << error.description();
    EXPECT_FALSE(disk::Exists(directory / "tree"));

    EXPECT_TRUE(_RemoveSubTrees(MakeProtectedTree(directory / "kept").c_str(), 0, error.out())) << error.description();
    EXPECT_THAT(disk::List(directory / "kept"), testing::IsEmpty());
    EXPECT_EQ(disk::Mode(directory / "kept"), 0720U) << "made writable for owner and group";
    EXPECT_EQ(disk::Flags(directory / "kept"), 0);

    // Only a directory is kept.
    EXPECT_EQ(symlink("outside", (directory / "link").c_str()), 0);
    disk::Write(directory / "file", "", 0400);
    for (const char *name : {"link", "file"}) {
        EXPECT_TRUE(_RemoveTreeInternal((directory / name).c_str(), /*keepRoot=*/true, error.out()));
        EXPECT_FALSE(disk::Exists(directory / name)) << name;
    }
    EXPECT_TRUE(_RemoveTree((directory / "missing").c_str(), 0, error.out()));
    EXPECT_TRUE(Same(outside, Snapshot::Of(directory / "outside", Snapshot::kUntouched)));
}

TEST_P(TreeRemoval, StopsAtTheFirstFailureAndSaysWhich)
{
    const auto remove = [&](const std::string &path) {
        return [path](TQError **error) { return _RemoveTree(path.c_str(), 0, error); };
    };
    disk::Write(directory / "file", "");
    disk::MakeDirectory(directory / "full");
    disk::Write(directory / "full/child", "");
    ExpectRows(
        {{"no path", System(ENOENT, "fts_open(\"\") failed"), remove("")},
         {"null", System(ENOENT, "fts_open(\"\") failed"),
          [](TQError **error) { return _RemoveTree(nullptr, 0, error); }},
         {"below a file", System(ENOTDIR, "fts_read() failed for path '$/file/x'\n"), remove(directory / "file/x")},
         {"a directory's mode", System(EPERM, "Failed to make \"$/full\" deletable"), remove(directory / "full"),
          FailCall(1, EPERM, kMode)},
         {"an item", System(EBUSY, "Failed to remove \"$/full/child\""), remove(directory / "full"),
          FailCall(1, EBUSY, kRemove)}},
        directory.path());

    const Outcome vanished = InChild(FailCall(1, ENOENT, kRemove), remove(directory / "file"));
    EXPECT_TRUE(vanished.succeeded && vanished.faultFired) << "what has vanished meanwhile is no failure";

    if (GetParam() != As::Root) {
        // Only write permission is added: what can't be read can't be emptied.
        chmod((directory / "full").c_str(), 0300);
        ExpectRows({{"unreadable", System(ENOTEMPTY, "Failed to remove \"$/full\""), remove(directory / "full")}},
                   directory.path());
        EXPECT_TRUE(disk::Exists(directory / "full/child"));
    } else if (mount("none", disk::MakeDirectory(directory / "full/disk").c_str(), "tmpfs", 0, "size=1m") == 0) {
        disk::Write(directory / "full/disk/mounted", "");
        ExpectRows({{"a mount point", System(EBUSY, "Failed to remove \"$/full/disk\""), remove(directory / "full")}},
                   directory.path());
        EXPECT_TRUE(disk::Exists(directory / "full/disk/mounted")) << "another file system is not entered";
        EXPECT_EQ(umount((directory / "full/disk").c_str()), 0);
    }
}

} // namespace
