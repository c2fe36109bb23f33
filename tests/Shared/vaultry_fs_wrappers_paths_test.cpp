#include "support/Tests.h"

namespace {

TEST(PathParts, AreFoundByTheLastSlash)
{
    const std::string longest(1022, 'n');
    // Null: there is none.
    const struct {
        std::string path;
        const char *parent, *child, *name, *extension, *parentCopy;
    } rows[] = {{"/a", "/", "a", "a", nullptr, "/"},
                {"/", "/", "", "", nullptr, nullptr},
                {"a", "", "a", nullptr, nullptr, nullptr},
                {"/a/b/", "/a/b", "", "", nullptr, "/a"},
                {"", nullptr, nullptr, nullptr, nullptr, nullptr},
                {"a/b.tar.gz", "a", "b.tar.gz", "b.tar.gz", ".gz", "a"},
                {"a/.profile", "a", ".profile", ".profile", nullptr, "a"},
                {".profile", "", ".profile", nullptr, nullptr, nullptr},
                {longest, "", longest.c_str(), nullptr, nullptr, nullptr},
                {longest + "n", nullptr, nullptr, nullptr, nullptr, nullptr},
                {"/" + longest, nullptr, nullptr, longest.c_str(), nullptr, "/"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path.substr(0, 20));
        const char *const path = row.path.c_str();
        char apart[1024], within[2048];
        for (char *buffer : {apart, strcpy(within, path)}) {
            const char *child = separate_path_parent_child(buffer == within ? within : path, buffer);
            EXPECT_STREQ(child, row.child);
            EXPECT_TRUE(child == nullptr || strcmp(buffer, row.parent) == 0) << buffer;
        }
        EXPECT_STREQ(TQGetFileNameForPath(path), row.name);
        EXPECT_STREQ(TQGetFileNameExtensionForPath(path), row.extension);
        char *parent = _CopyParentDirectoryPath(path);
        EXPECT_STREQ(parent, row.parentCopy);
        free(parent);
    }
    char buffer[1024];
    EXPECT_TRUE(!separate_path_parent_child(nullptr, buffer) && !TQGetFileNameForPath(nullptr) &&
                !TQGetFileNameExtensionForPath(nullptr) && !_CopyParentDirectoryPath(nullptr));
    EXPECT_TRUE(!vidpath_restart(buffer, sizeof buffer, 1, 2) && errno == ENOTSUP) << "Linux keeps no such paths";
}

TEST(RecursiveMkdir, MakesWhatIsMissing)
{
    const TempDirectory directory;
    for (const char *path : {"a/b/c", "a/b"}) EXPECT_EQ(TQRecursiveMkdir((directory / path).c_str(), 0750), 0);
    for (const char *name : {"a", "a/b", "a/b/c"}) EXPECT_EQ(disk::Mode(directory / name), 0750U) << name;
    const std::string file = disk::Write(directory / "file", "");
    for (const auto &[path, error] : {std::pair{file + "/x", ENOTDIR}, {file, EEXIST}, {std::string(), EINVAL}}) {
        EXPECT_EQ(TQRecursiveMkdir(path.empty() ? nullptr : path.c_str(), 0700), -1);
        EXPECT_EQ(errno, error) << path;
    }
}

} // namespace
