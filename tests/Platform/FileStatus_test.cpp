#include "Platform/FileStatus.h"

#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <sys/ioctl.h>

namespace {

int Set(const std::string &path, uint32_t flags)
{
    errno = 0;
    return platform::SetFlags(Item::AtPath(path.c_str()), Links::NoFollow, flags) == 0 ? 0 : errno;
}

uint32_t FlagsOf(const std::string &path)
{
    TQFileStatus status{};
    EXPECT_EQ(platform::GetStatus(Item::AtPath(path.c_str()), Links::NoFollow, &status), 0) << path;
    EXPECT_TRUE(status.hasBirthTime);
    return status.flags;
}

struct FileFlags : InDirectory {};
struct VolumeFlags : OnEachVolume {};

} // namespace

// A pipe would block whoever opens it, and a link's target is somebody else's.
TEST_P(FileFlags, WhatHoldsNoFlagsSaysSo)
{
    ASSERT_TRUE(Shell(directory.path(), "touch target; ln -s target link; mkfifo pipe"));
    const std::tuple<const char *, uint32_t, int> rows[] = {
        {"link", kTQFlagNoDump, ENOTSUP},
        {"pipe", kTQFlagNoDump, ENOTSUP},
        {"target", kTQFlagTracked, ENOTSUP},
        {"target", 0x80000000, ENOTSUP},
        {"none", kTQFlagNoDump, ENOENT},
        // What stands already needs neither a right nor a file system.
        {"link", 0, 0},
    };
    for (const auto &[name, flags, error] : rows) EXPECT_EQ(Set(directory / name, flags), error) << name;
    EXPECT_EQ(FlagsOf(directory / "target"), 0U);
}

TEST_P(FileFlags, OnlyTheWantedBitsChange)
{
    for (const mode_t mode : {0644U, 0400U, 0000U}) {
        SCOPED_TRACE(mode);
        const std::string path = File("file" + std::to_string(mode));
        const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        int noAccessTime = 0, after = 0;
        ASSERT_EQ(ioctl(fd.get(), FS_IOC_GETFLAGS, &noAccessTime), 0);
        noAccessTime |= FS_NOATIME_FL;
        ASSERT_EQ(ioctl(fd.get(), FS_IOC_SETFLAGS, &noAccessTime), 0);
        ASSERT_EQ(fchmod(fd.get(), mode), 0); // 0000: its owner can't open it any more

        EXPECT_EQ(Set(path, kTQFlagNoDump), 0);
        EXPECT_EQ(ioctl(fd.get(), FS_IOC_GETFLAGS, &after), 0);
        EXPECT_EQ(after, noAccessTime | FS_NODUMP_FL);

        constexpr uint32_t one = kTQFlagNoDump, both = one | kTQFlagImmutable;
        EXPECT_EQ(Set(path, both), canFlag ? 0 : EPERM);
        EXPECT_EQ(FlagsOf(path), canFlag ? both : one);
        EXPECT_EQ(Set(path, 0), 0);
        EXPECT_EQ(FlagsOf(path), 0U);
    }
}

TEST_P(FileFlags, AModeIsNeverSetThroughALink)
{
    const std::string target = File("target", "", 0600), link = Link("link", "target");
    EXPECT_EQ(platform::SetMode(Item::AtPath(link.c_str()), Links::NoFollow, 0777), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    EXPECT_EQ(disk::Mode(target), 0600U);
    EXPECT_EQ(platform::SetMode(Item::AtPath(target.c_str()), Links::NoFollow, 0), 0);
    EXPECT_EQ(disk::Mode(target), 0U);
}
INSTANTIATE_AS_EACH(FileFlags);

TEST_P(VolumeFlags, EachTypeHoldsWhatItCan)
{
    const std::string path = disk::Write(directory() / "file", "");
    const bool compresses = Is("ext4") || Is("btrfs");
    EXPECT_EQ(Set(path, kTQFlagCompressed), compresses ? 0 : ENOTSUP);
    EXPECT_EQ(FlagsOf(path), compresses ? uint32_t{kTQFlagCompressed} : 0U);
    EXPECT_EQ(Set(path, kTQFlagAppend | kTQFlagNoDump), directory().CanSetImmutable() ? 0 : EPERM);
}
INSTANTIATE_ON_EACH_VOLUME(VolumeFlags);
