#include "Platform/FileStatus.h"

#include "support/Tests.h"
#include "support/Volumes.h"

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
