#include "Platform/UniqueNames.h"

#include "Platform/UniqueFd.h"
#include "support/Disk.h"

#include <fcntl.h>
#include <regex>

TEST(UniqueNames, EveryXIsReplacedAndOnlyOnSuccess)
{
    const TempDirectory directory;
    const struct {
        const char *name;
        int suffix, error;
        const char *made;
    } rows[] = {
        {"seven_XXXXXXX", 0, 0, "seven_[0-9A-Za-z]{7}"},
        {"XaXXXXXXX", 0, 0, "Xa[0-9A-Za-z]{7}"},
        {"XXXXXXX.XX", 3, 0, "[0-9A-Za-z]{7}\\.XX"},
        {"none", 0, EINVAL, ""},
        {"XXXX.txt", 0, EINVAL, ""},
        {"XX", 9999, EINVAL, ""},
        {"XX", -1, EINVAL, ""},
        {"missing/XXXXXX", 0, ENOENT, ""},
    };
    for (const auto &row : rows) {
        std::string made = directory / row.name;
        errno = 0;
        const UniqueFd fd(platform::MakeUniqueFile(made.data(), row.suffix));
        EXPECT_EQ(errno, row.error) << row.name;
        const std::string name = made.substr(directory.path().size() + 1);
        EXPECT_TRUE(fd ? std::regex_match(name, std::regex(row.made)) : name == row.name) << name;
        EXPECT_TRUE(!fd || (disk::Mode(made) == 0600 && fcntl(fd.get(), F_GETFD) == FD_CLOEXEC));
    }
    std::string path = directory / "dir_XXXXXXX";
    EXPECT_EQ(platform::MakeUniqueDirectory(path.data()), 0);
    EXPECT_EQ(disk::Mode(path), 0700U);
}

TEST(UniqueNames, EndWhenAllAreTaken)
{
    const TempDirectory directory;
    int made = 0;
    for (std::string path = directory / "X"; platform::MakeUniqueDirectory(path.data()) == 0; path.back() = 'X') ++made;
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(disk::List(directory.path()).size(), static_cast<size_t>(made));
}
