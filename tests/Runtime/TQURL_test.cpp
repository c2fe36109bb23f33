#include "Runtime/Values.h"

#include <vaultry/url.h>

#include <unistd.h>

namespace {

TQURL *AsURL(const Value &url)
{
    return static_cast<TQURL *>(url.get());
}

Value URL(std::string_view text, const Value &base = {})
{
    return Own(TQURLCreateWithString(static_cast<TQString *>(Text(text).get()), AsURL(base)));
}

Value FileURL(const std::string &path, bool isDirectory = false, const Value &base = {})
{
    return Own(TQURLCreateWithFileSystemPathRelativeToBase(path.c_str(), isDirectory, AsURL(base)));
}

std::string TextOf(const Value &url)
{
    return UTF8(Own(TQURLCopyString(AsURL(url))));
}

std::string PathOf(const Value &url)
{
    const char *path = TQURLGetPath(AsURL(url));
    return path ? path : "(none)";
}

std::string AbsolutePathOf(const Value &url, size_t capacity = 4096)
{
    std::string buffer(capacity, 'x');
    return TQURLGetFileSystemRepresentation(AsURL(url), buffer.data(), capacity) ? buffer.c_str() : "(none)";
}

std::string CurrentDirectory()
{
    char buffer[4096];
    return getcwd(buffer, sizeof buffer) ? buffer : "";
}

} // namespace

TEST(URL, EveryByteOfAPathComesBack)
{
    std::string every = "/";
    for (int byte = 1; byte < 256; ++byte) every.push_back(static_cast<char>(byte));
    for (const std::string &path : {every, every.substr(1), std::string("/a/../b//./"), std::string("//double")}) {
        const Value url = FileURL(path);
        const Value again = URL(TextOf(url));
        const std::string absolute = path[0] == '/' ? path : CurrentDirectory() + "/" + path;
        ASSERT_TRUE(again);
        EXPECT_EQ(PathOf(url), path);
        EXPECT_EQ(AbsolutePathOf(url), absolute);
        EXPECT_EQ(PathOf(again), absolute);
        EXPECT_EQ(AbsolutePathOf(again), absolute);
        EXPECT_EQ(AbsolutePathOf(url, absolute.size() + 1), absolute);
        EXPECT_EQ(AbsolutePathOf(url, absolute.size()), "(none)");
    }
    EXPECT_EQ(TextOf(FileURL("/a b/%?#\xff")), "file:///a%20b/%25%3F%23%FF");
}

TEST(URL, KnowsDirectories)
{
    const struct {
        Value url;
        const char *text;
        const char *path;
        bool isDirectory;
    } rows[] = {
        {FileURL("/d", true), "file:///d/", "/d", true}, {FileURL("/d/", true), "file:///d/", "/d/", true},
        {FileURL("/d/"), "file:///d/", "/d/", true},     {FileURL("/d"), "file:///d", "/d", false},
        {URL("file:///d/"), "file:///d/", "/d/", true},  {FileURL("/", true), "file:///", "/", true},
        {URL("file:///d"), "file:///d", "/d", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(TextOf(row.url), row.text);
        EXPECT_EQ(AbsolutePathOf(row.url), row.path);
        EXPECT_EQ(TQURLHasDirectoryPath(AsURL(row.url)), row.isDirectory);
    }
}

TEST(URL, OnlyFileURLsOfThisHostHaveAFilePath)
{
    const struct {
        const char *text;
        bool isFile;
        const char *path;
        const char *absolute;
    } rows[] = {
        {"file:///a%20b", true, "/a b", "/a b"},
        {"FILE://LocalHost/a", true, "/a", "/a"},
        {"file:/a?query#fragment", true, "/a", "/a"},
        {"file://elsewhere/a", true, "(none)", "(none)"},
        {"file://localhost:80/a", true, "(none)", "(none)"},
        {"file:///a%00b", true, "(none)", "(none)"},
        {"file://", true, "(none)", "(none)"},
        {"file:a", true, "a", "(none)"},
        {"https://host/a%2fb?q", false, "/a/b", "(none)"},
        {"mailto:somebody@host", false, "somebody@host", "(none)"},
        {"files:///a", false, "/a", "(none)"},
        {"no/scheme", false, "no/scheme", "(none)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const Value url = URL(row.text);
        ASSERT_TRUE(url);
        EXPECT_EQ(TextOf(url), row.text);
        EXPECT_EQ(TQURLIsFileURL(AsURL(url)), row.isFile);
        EXPECT_EQ(PathOf(url), row.path);
        EXPECT_EQ(AbsolutePathOf(url), row.absolute);
    }
}

TEST(URL, RefusesWhatNoURLHolds)
{
    for (const char *bad : {"", "file:///a b", "file:///%", "file:///%4", "file:///%g0", "http://\xc3\xa9", "a\nb",
                            "a<b", "a\"b", "a\\b", "a^b", "a`b", "a{b}", "a|b"})
        EXPECT_FALSE(URL(bad)) << bad;
    EXPECT_FALSE(FileURL(""));
    EXPECT_EQ(TQURLCreateWithFileSystemPath(nullptr, false), nullptr);
}

TEST(URL, ResolvesAgainstItsBase)
{
    const Value base = URL("http://a/b/c/d;p?q");
    const char *const references[][2] = {
        {"g:h", "g:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g"},
        {"?y", "http://a/b/c/d;p?y"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"},
        {"g#s", "http://a/b/c/g#s"},
        {";x", "http://a/b/c/;x"},
        {".", "http://a/b/c/"},
        {"./", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../g", "http://a/g"},
        {"../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"/../g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g"},
        {"g/./h", "http://a/b/c/g/h"},
        {"g/../h", "http://a/b/c/h"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
    };
    for (const auto &row : references) EXPECT_EQ(TextOf(URL(row[0], base)), row[1]) << row[0];

    const Value directory = FileURL("/a/b", true), file = FileURL("/a/b");
    const struct {
        Value url;
        const char *path;
    } files[] = {
        {FileURL("x y", false, directory), "/a/b/x y"},
        {FileURL("x", false, file), "/a/x"},
        {FileURL("../x", true, directory), "/a/x"},
        {FileURL("/x/../y", false, directory), "/x/../y"},
        {FileURL("a:b", false, directory), "/a/b/a:b"},
        {URL("x%20y", directory), "/a/b/x y"},
        {FileURL("c", false, FileURL("b/", false, FileURL("/a/"))), "/a/b/c"},
    };
    for (const auto &row : files) {
        EXPECT_EQ(AbsolutePathOf(row.url), row.path);
        EXPECT_TRUE(TQURLIsFileURL(AsURL(row.url)));
    }
    EXPECT_FALSE(TQURLIsFileURL(AsURL(FileURL("x", false, base))));
    EXPECT_EQ(AbsolutePathOf(FileURL("x", false, FileURL("sub", true))), CurrentDirectory() + "/sub/x");
}

TEST(URL, EqualsItsTwinAndSurvivesAnyNumberOfBases)
{
    EXPECT_TRUE(TQEqual(FileURL("/a b").get(), URL("file:///a%20b").get()));
    EXPECT_FALSE(TQEqual(FileURL("a").get(), URL("a").get())); // only the first is a file's
    EXPECT_FALSE(TQEqual(URL("a", URL("file:///b")).get(), URL("a", URL("file:///c")).get()));
    Value one = FileURL("/"), other = FileURL("/");
    for (int i = 0; i < 100000; ++i) {
        one = FileURL("x", false, one);
        other = FileURL("x", false, other);
    }
    EXPECT_TRUE(TQEqual(one.get(), other.get()));
    EXPECT_EQ(TQHash(one.get()), TQHash(other.get()));
    EXPECT_EQ(AbsolutePathOf(one), "/x");
}
