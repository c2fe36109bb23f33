#include "Platform/FileStatus.h"

#include "support/Tests.h"

namespace {

struct FileFlags : InDirectory {};

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
