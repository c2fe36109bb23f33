#include "Platform/Attributes.h"

#include "Platform/FileStatus.h"
#include "Platform/UniqueFd.h"
#include "support/Identity.h"
#include "support/Volumes.h"

#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Attributes : AsEach {
    TempDirectory directory;
};

// Runs tests of this program again, under a kernel that answers `error` to every call younger than the C library.
int RunOnAnOldKernel(unsigned error, const char *tests)
{
    const pid_t child = fork();
    if (child == 0) {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 452, 1, 0),
            BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 463, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog program{sizeof filter / sizeof *filter, filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0)
            execl("/proc/self/exe", "old kernel", tests, "--gtest_brief=1", "--gtest_output=", nullptr);
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// Everything an item can answer, by path and by directory.
void ExpectAttributesWork(const TempDirectory &directory)
{
    const UniqueFd open(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string file = disk::Write(directory / "file", "", 0644);
    (void)symlink("file", (directory / "link").c_str());
    const std::string link = directory / "link";
    const Item items[][2] = {{Item::AtPath(file.c_str()), Item::AtPath(link.c_str())},
                             {{open.get(), "file", ""}, {open.get(), "link", ""}}};
    for (const auto &[plain, linked] : items) {
        char buffer[8] = "";
        errno = E2BIG;
        EXPECT_EQ(platform::SetAttribute(linked, Links::Follow, "com.example.a", "value", 5), 0);
        EXPECT_EQ(platform::GetAttribute(plain, Links::NoFollow, "com.example.a", buffer, sizeof buffer), 5);
        EXPECT_EQ(platform::GetAttribute(plain, Links::NoFollow, "com.example.a", nullptr, 0), 5);
        EXPECT_EQ(errno, E2BIG) << "touched on success";
        EXPECT_STREQ(buffer, "value");
        EXPECT_EQ(disk::Attribute(file, "com.example.a"), "value");
        EXPECT_EQ(platform::GetAttribute(plain, Links::NoFollow, "com.example.a", buffer, 2), -1);
        EXPECT_EQ(errno, ERANGE);
        // The link's own; what it points to has the attribute.
        EXPECT_EQ(platform::GetAttribute(linked, Links::NoFollow, "com.example.a", buffer, sizeof buffer), -1);
        EXPECT_EQ(errno, ENODATA);
        EXPECT_EQ(platform::SetAttribute(linked, Links::NoFollow, "com.example.a", "x", 1), -1);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(platform::RemoveAttribute(plain, Links::NoFollow, "com.example.a"), 0);
        EXPECT_EQ(platform::RemoveAttribute(linked, Links::Follow, "com.example.a"), -1);
        EXPECT_EQ(errno, ENODATA);
        EXPECT_EQ(platform::SetAttribute(plain, Links::NoFollow, std::string(251, 'n').c_str(), "x", 1), -1);
        EXPECT_EQ(errno, ERANGE);
    }
    (void)unlink(link.c_str());
}

} // namespace

TEST_P(Attributes, ReadTheSameByPathAndByDirectory)
{
    ExpectAttributesWork(directory);
}

INSTANTIATE_AS_EACH(Attributes);

// A sandbox that does not know a number answers EPERM, as if the item had refused.
TEST(OldKernel, ServesTheSame)
{
    for (const int error : {ENOSYS, EPERM})
        EXPECT_EQ(RunOnAnOldKernel(static_cast<unsigned>(error),
                                   "--gtest_filter=As/Attributes.*:As/FileFlags.AModeIsNeverSetThroughALink/*"),
                  0)
            << error;
}
