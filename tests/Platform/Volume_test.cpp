#include "Platform/Volume.h"

#include "support/Tests.h"
#include "support/Volumes.h"

namespace {

struct Volumes : OnEachVolume {};
struct Paths : InDirectory {};

} // namespace

TEST_P(Volumes, AreKnownByName)
{
    TQVolumeStatus status{};
    ASSERT_EQ(platform::GetVolumeStatus(directory().path().c_str(), &status), 0);
    EXPECT_STREQ(status.typeName, GetParam());
    EXPECT_EQ(platform::IsNativeVolumeType(status.typeName), !Is("tmpfs"));
    // Made from an image of 512 MiB, of which the volume keeps some to itself.
    const uint64_t size = status.blockCount * status.blockSize;
    EXPECT_TRUE(Is("tmpfs") || (size > 400U << 20 && size <= 512U << 20)) << size;
}
INSTANTIATE_ON_EACH_VOLUME(Volumes);

TEST_P(Paths, AreMadeAsFarAsTheyAreMissing)
{
    ASSERT_TRUE(Shell(directory.path(), "echo x > file; ln -s . link"));
    for (const auto &[path, error] : {std::pair{"one", 0},
                                      {"one", 0},
                                      {"a/b//c/", 0},
                                      {"link/through", 0},
                                      {"link", 0},
                                      {"file", EEXIST},
                                      {"file/x", ENOTDIR}})
        EXPECT_EQ(platform::MakePath((directory / path).c_str(), 0500), error) << path;
    EXPECT_EQ(disk::Mode(directory / "a/b"), 0700U);
    EXPECT_EQ(disk::Mode(directory / "a/b/c"), 0500U);
    EXPECT_EQ(platform::MakePath("", 0700), ENOENT);
    EXPECT_EQ(platform::MakePath(std::string(5000, 'x').c_str(), 0700), ENAMETOOLONG);
}
INSTANTIATE_AS_EACH(Paths);
