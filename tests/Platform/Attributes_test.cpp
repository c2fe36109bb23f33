#include "Platform/Attributes.h"

#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace {

struct Attributes : InDirectory {};

// Runs tests of this program again, under a kernel that answers `error` to every call newer than the C library.
[[noreturn]] void RunOnAnOldKernel(unsigned error, const char *tests)
{
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

} // namespace

TEST_P(Attributes, ReadTheSameByPathAndByDirectory)
{
    ASSERT_TRUE(Shell(directory.path(), "echo x > file; ln -s file link"));
    const UniqueFd open(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string filePath = At("file"), linkPath = At("link");
    char buffer[8];
    const auto get = [&](const Item &item, size_t size) {
        return platform::GetAttribute(item, Links::NoFollow, "com.example.a", size == 0 ? nullptr : buffer, size);
    };
    const auto set = [&](const Item &item, Links links) {
        return platform::SetAttribute(item, links, "com.example.a", "value", 5);
    };
    for (const auto &[file, link] : {std::pair{Item::AtPath(filePath.c_str()), Item::AtPath(linkPath.c_str())},
                                     {Item{open.get(), "file", ""}, Item{open.get(), "link", ""}}}) {
        errno = E2BIG;
        EXPECT_EQ(set(link, Links::Follow), 0);
        EXPECT_EQ(disk::Attribute(filePath, "com.example.a"), "value");
        EXPECT_TRUE(get(file, sizeof buffer) == 5 && get(file, 0) == 5);
        EXPECT_EQ(errno, E2BIG) << "touched on success";
        EXPECT_EQ(std::string(buffer, 5), "value");
        EXPECT_TRUE(get(file, 2) == -1 && errno == ERANGE);
        // This is the link itself; its target has the attribute.
        EXPECT_TRUE(get(link, sizeof buffer) == -1 && errno == ENODATA);
        EXPECT_TRUE(set(link, Links::NoFollow) == -1 && errno == EPERM);
        EXPECT_EQ(platform::RemoveAttribute(file, Links::NoFollow, "com.example.a"), 0);
        EXPECT_TRUE(platform::RemoveAttribute(link, Links::Follow, "com.example.a") == -1 && errno == ENODATA);
    }
    // One byte more than fits after the prefix.
    EXPECT_TRUE(platform::AddAttributeOfFd(open.get(), std::string(251, 'n').c_str(), "", 0) == -1 && errno == ERANGE);
    EXPECT_EQ(platform::AddAttributeOfFd(open.get(), std::string(250, 'n').c_str(), "", 0), 0);
    EXPECT_TRUE(platform::AddAttributeOfFd(open.get(), std::string(250, 'n').c_str(), "x", 1) == -1 && errno == EEXIST);
}
INSTANTIATE_AS_EACH(Attributes);

// A sandbox answers EPERM to an unknown call, as if the item had refused.
TEST(OldKernel, ServesTheSame)
{
    const char *tests = "--gtest_filter=As/Attributes.*:As/FileFlags.AModeIsNeverSetThroughALink/*";
    for (const unsigned error : {unsigned{ENOSYS}, unsigned{EPERM}})
        EXPECT_EXIT(RunOnAnOldKernel(error, tests), testing::ExitedWithCode(0), "") << error;
}
