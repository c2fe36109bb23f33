#include "Platform/UniqueNames.h"

#include "Platform/UniqueFd.h"
#include "support/Disk.h"

#include <fcntl.h>
#include <set>

TEST(UniqueNames, EveryXIsReplacedAndOnlyOnSuccess)
{
    const TempDirectory directory;
    const struct {
        const char *name;
        int suffix;
        int error;
    } rows[] = {
        {"seven_XXXXXXX", 0, 0}, {"XXXXXXX", 0, 0},   {"XXXXXXX.txt", 4, 0},
        {"XaXXXXXXX", 0, 0},     {"none", 0, EINVAL}, {"XXXX.txt", 0, EINVAL},
        {"XX", 9999, EINVAL},    {"XX", -1, EINVAL},  {"missing/XXXXXX", 0, ENOENT},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const std::string before = directory / row.name;
        std::string made = before;
        errno = 0;
        const UniqueFd fd(platform::MakeUniqueFile(made.data(), row.suffix));
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(bool(fd), row.error == 0);
        EXPECT_EQ(made == before, row.error != 0);
        if (!fd) continue;
        EXPECT_EQ(disk::Mode(made), 0600U);
        EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
        const std::string name = row.name;
        const size_t end = name.size() - static_cast<size_t>(row.suffix);
        const size_t first = name.find_last_not_of('X', end - 1) + 1;
        for (size_t i = 0; i < name.size(); ++i)
            EXPECT_TRUE((first <= i && i < end) || made[before.size() - name.size() + i] == name[i]) << i;
    }
    std::string path = directory / "dir_XXXXXXX";
    EXPECT_EQ(platform::MakeUniqueDirectory(path.data()), 0);
    EXPECT_EQ(disk::Mode(path), 0700U);
}

TEST(UniqueNames, NobodyGetsANameThatIsTaken)
{
    const TempDirectory directory;
    std::set<std::string> names;
    for (int i = 0; i < 62; ++i) {
        std::string path = directory / "X";
        EXPECT_TRUE(platform::MakeUniqueDirectory(path.data()) != 0 || names.insert(path).second);
    }
    for (const char c : std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"))
        if (names.insert(directory / std::string(1, c)).second) disk::MakeDirectory(directory / std::string(1, c));
    std::string full = directory / "X";
    EXPECT_EQ(platform::MakeUniqueDirectory(full.data()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(full, directory / "X");
}
