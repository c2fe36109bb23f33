#include "Platform/Volume.h"

#include "support/Tests.h"
#include "support/Volumes.h"

namespace {

struct Volumes : OnEachVolume {};

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
