#include "Platform/UniqueNames.h"

#include "Platform/ScopeExit.h"
#include "Platform/UniqueFd.h"
#include "support/Disk.h"

#include <fcntl.h>
#include <regex>

TEST(UniqueNames, EveryXIsReplacedAndOnlyOnSuccess)
{
    const TempDirectory directory;
    const ScopeExit unmask([mask = umask(0777)] { umask(mask); });
    const std::tuple<const char *, int, int, const char *> rows[] = {
        {"seven_XXXXXXX", 0, 0, "seven_[0-9A-Za-z]{7}"},
        {"XaXXXXXXX", 0, 0, "Xa[0-9A-Za-z]{7}"},
        {"XXXXXXX.XX", 3, 0, "[0-9A-Za-z]{7}\\.XX"},
        {"none", 0, EINVAL, ""},
        {"XXXX.txt", 0, EINVAL, ""},
        {"XX", 9999, EINVAL, ""},
        {"XX", -1, EINVAL, ""},
        {"missing/XXXXXX", 0, ENOENT, ""},
    };
    for (const auto &[name, suffix, error, pattern] : rows) {
        std::string made = directory / name;
        errno = 0;
        const UniqueFd fd(platform::MakeUniqueFile(made.data(), suffix));
        EXPECT_EQ(errno, error) << name;
        const std::string found = made.substr(directory.path().size() + 1);
        EXPECT_TRUE(fd ? std::regex_match(found, std::regex(pattern)) : found == name) << found;
        EXPECT_TRUE(!fd || (disk::Mode(made) == 0600 && fcntl(fd.get(), F_GETFD) == FD_CLOEXEC));
    }
}

TEST(UniqueNames, EndWhenAllAreTaken)
{
    const TempDirectory directory;
    const ScopeExit unmask([mask = umask(0777)] { umask(mask); });
    for (std::string path = directory / "X"; platform::MakeUniqueDirectory(path.data()) == 0; path.back() = 'X')
        EXPECT_EQ(disk::Mode(path), 0700U);
    EXPECT_EQ(errno, EEXIST);
}
