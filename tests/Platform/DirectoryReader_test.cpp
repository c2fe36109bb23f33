#include "Platform/DirectoryReader.h"

#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

namespace {

struct DirectoryReaders : OnEachVolume {};

} // namespace

// Some file systems count entries: removing one moves up those behind it. Here a directory that has fewer from the
// beginning stands for one in which entries were removed.
TEST_P(DirectoryReaders, FindTheirPlaceByName)
{
    ASSERT_TRUE(Shell(directory().path(), "mkdir full thinned; touch full/$(seq -s ' full/' 20)"
                                          "; touch thinned/$(seq -s ' thinned/' 8 20)"));
    const UniqueFd full(open((directory() / "full").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd thinned(open((directory() / "thinned").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int error = 0;
    const auto rest = [&](platform::DirectoryReader &reader) {
        std::vector<std::string> names;
        while (const char *name = reader.Next(thinned.get(), &error)) names.emplace_back(name);
        return names;
    };
    platform::DirectoryReader plain;
    std::vector<std::string> order = rest(plain);
    ASSERT_EQ(order.size(), 13U);
    for (; !order.empty(); order.erase(order.begin())) {
        const std::string left = order.front();
        ASSERT_EQ(lseek(full.get(), 0, SEEK_SET), 0);
        platform::DirectoryReader reader;
        for (const char *name = ""; name && name != left;) name = reader.Next(full.get(), &error);
        reader.Suspend();
        EXPECT_EQ(reader.Resume(thinned.get(), left.c_str()), 0);
        EXPECT_EQ(rest(reader), std::vector<std::string>(order.begin() + 1, order.end())) << left;
    }
}
INSTANTIATE_ON_EACH_VOLUME(DirectoryReaders);
