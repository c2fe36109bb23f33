#include "Platform/Volume.h"

#include "support/Identity.h"
#include "support/Volumes.h"

#include <sys/stat.h>

namespace {

struct Volumes : OnEachVolume {};
struct Paths : AsEach {
    TempDirectory directory;
};

} // namespace

TEST_P(Volumes, AreKnownByName)
{
    TQVolumeStatus status{};
    ASSERT_EQ(platform::GetVolumeStatus(directory().path().c_str(), &status), 0);
    EXPECT_STREQ(status.typeName, GetParam());
    EXPECT_EQ(platform::IsNativeVolumeType(status.typeName), !Is("tmpfs"));
    EXPECT_EQ(status.blockSize, 4096U);
    // Made from an image of 512 MiB, of which the volume keeps some to itself.
    if (!Is("tmpfs")) {
        EXPECT_GT(status.blockCount * status.blockSize, 400U << 20);
        EXPECT_LE(status.blockCount * status.blockSize, 512U << 20);
    }
}
INSTANTIATE_ON_EACH_VOLUME(Volumes);

TEST_P(Paths, AreMadeAsFarAsTheyAreMissing)
{
    disk::Write(directory / "file", "");
    (void)symlink(directory.path().c_str(), (directory / "link").c_str());
    const struct {
        const char *path;
        mode_t mode;
        int error;
    } rows[] = {
        {"one", 0700, 0},          {"one", 0700, 0},  {"a/b//c/", 0500, 0},   {"a/b/c", 0700, 0},
        {"link/through", 0700, 0}, {"link", 0700, 0}, {"file", 0700, EEXIST}, {"file/below", 0700, ENOTDIR},
    };
    for (const auto &row : rows) {
        errno = E2BIG;
        EXPECT_EQ(platform::MakePath((directory / row.path).c_str(), row.mode), row.error) << row.path;
        EXPECT_EQ(errno, E2BIG) << row.path;
    }
    EXPECT_EQ(disk::Mode(directory / "a/b"), 0700U);
    EXPECT_EQ(disk::Mode(directory / "a/b/c"), 0500U);
    EXPECT_EQ(platform::MakePath("", 0700), ENOENT);
    EXPECT_EQ(platform::MakePath(std::string(5000, 'x').c_str(), 0700), ENAMETOOLONG);
}

// Asking about a pipe must not wait for somebody to write into it, nor about a link reach what it points to.
TEST_P(Paths, AreAskedAboutWithoutWaiting)
{
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("/", (directory / "link").c_str()), 0);
    TQVolumeStatus status{};
    EXPECT_EQ(platform::GetVolumeStatus((directory / "pipe").c_str(), &status), 0);
    EXPECT_EQ(platform::GetVolumeStatus((directory / "link").c_str(), &status), -1);
    EXPECT_EQ(errno, ELOOP);
}
INSTANTIATE_AS_EACH(Paths);
