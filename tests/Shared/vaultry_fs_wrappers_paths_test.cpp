#include "support/Disk.h"

#include <vaultry/path.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

TEST(PathParts, ParentAndChild)
{
    const std::string longest(1022, 'n');
    const struct {
        std::string path;
        const char *parent, *child; // null: refused
    } rows[] = {{"/a", "/", "a"},
                {"/", "/", ""},
                {"a", "", "a"},
                {"a/b", "a", "b"},
                {"a/b/", "a/b", ""},
                {"/a/b", "/a", "b"},
                {"//", "/", ""},
                {"", nullptr, nullptr},
                {longest, "", longest.c_str()},
                {longest + "n", nullptr, nullptr},
                {"/" + longest, nullptr, nullptr},
                {"/" + longest.substr(1), "/", longest.c_str() + 1},
                {"a/" + longest.substr(1), "a", longest.c_str() + 1},
                {"a/" + longest, nullptr, nullptr}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path.substr(0, 20));
        char apart[1024], within[2048];
        std::strcpy(within, row.path.c_str());
        // The path and the buffer may be the same memory.
        const char *children[] = {separate_path_parent_child(row.path.c_str(), apart),
                                  separate_path_parent_child(within, within)};
        for (const auto &[child, buffer] : {std::pair{children[0], apart}, {children[1], within}}) {
            ASSERT_EQ(child == nullptr, row.child == nullptr);
            if (child == nullptr) continue;
            EXPECT_STREQ(buffer, row.parent);
            EXPECT_STREQ(child, row.child);
        }
    }
}

TEST(PathParts, FileNameExtensionAndParentCopy)
{
    const struct {
        const char *path, *name, *extension, *parent;
    } rows[] = {{"/a/b", "b", nullptr, "/a"},
                {"/a", "a", nullptr, "/"},
                {"/a/b/", "", nullptr, "/a"},
                {"a/b", "b", nullptr, "a"},
                {"//", "", nullptr, "/"},
                {"a", nullptr, nullptr, nullptr},
                {"/", "", nullptr, nullptr},
                {"", nullptr, nullptr, nullptr},
                {"a/b.tar.gz", "b.tar.gz", ".gz", "a"},
                {"a/.profile", ".profile", nullptr, "a"},
                {".profile", nullptr, nullptr, nullptr},
                {"dir.d/", "", nullptr, nullptr},
                {"a/b.", "b.", ".", "a"},
                {"a/..x", "..x", ".x", "a"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_STREQ(TQGetFileNameForPath(row.path), row.name);
        EXPECT_STREQ(TQGetFileNameExtensionForPath(row.path), row.extension);
        char *parent = _CopyParentDirectoryPath(row.path);
        EXPECT_STREQ(parent, row.parent);
        std::free(parent);
    }
}

TEST(PathParts, NullIsNoPath)
{
    char buffer[1024];
    EXPECT_EQ(separate_path_parent_child(nullptr, buffer), nullptr);
    EXPECT_EQ(TQGetFileNameForPath(nullptr), nullptr);
    EXPECT_EQ(TQGetFileNameExtensionForPath(nullptr), nullptr);
    EXPECT_EQ(_CopyParentDirectoryPath(nullptr), nullptr);
    EXPECT_EQ(TQRecursiveMkdir(nullptr, 0700), -1);
}

TEST(RecursiveMkdir, MakesWhatIsMissing)
{
    const TempDirectory directory;
    EXPECT_EQ(TQRecursiveMkdir((directory / "a/b/c").c_str(), 0750), 0);
    for (const char *name : {"a", "a/b", "a/b/c"}) EXPECT_EQ(disk::Mode(directory / name), 0750U) << name;
    EXPECT_EQ(TQRecursiveMkdir((directory / "a/b").c_str(), 0700), 0);
    disk::Write(directory / "file", "");
    for (const auto &[path, error] : {std::pair{"file/x", ENOTDIR}, {"file", EEXIST}}) {
        errno = 0;
        EXPECT_EQ(TQRecursiveMkdir((directory / path).c_str(), 0700), -1);
        EXPECT_EQ(errno, error) << path;
    }
}

TEST(VolumePath, IsNeverThere)
{
    char buffer[1024];
    errno = 0;
    EXPECT_EQ(vidpath_restart(buffer, sizeof buffer, 1, 2), nullptr);
    EXPECT_EQ(errno, ENOTSUP);
}

} // namespace
