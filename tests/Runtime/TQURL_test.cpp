#include "Runtime/Values.h"

#include <vaultry/url.h>

#include <sstream>
#include <tuple>

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
    const std::tuple<Value, const char *, const char *, bool> rows[] = {
        {FileURL("/d", true), "file:///d/", "/d", true}, {FileURL("/d/", true), "file:///d/", "/d/", true},
        {FileURL("/d/"), "file:///d/", "/d/", true},     {FileURL("/d"), "file:///d", "/d", false},
        {URL("file:///d/"), "file:///d/", "/d/", true},  {FileURL("/", true), "file:///", "/", true},
        {URL("file:///d"), "file:///d", "/d", false},
    };
    for (const auto &[url, text, path, isDirectory] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(TextOf(url), text);
        EXPECT_EQ(AbsolutePathOf(url), path);
        EXPECT_EQ(TQURLHasDirectoryPath(AsURL(url)), isDirectory);
    }
}

TEST(URL, OnlyFileURLsOfThisHostHaveAFilePath)
{
    const std::tuple<const char *, bool, const char *, const char *> rows[] = {
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
    for (const auto &[text, isFile, path, absolute] : rows) {
        SCOPED_TRACE(text);
        const Value url = URL(text);
        ASSERT_TRUE(url);
        EXPECT_EQ(TextOf(url), text);
        EXPECT_EQ(TQURLIsFileURL(AsURL(url)), isFile);
        EXPECT_EQ(PathOf(url), path);
        EXPECT_EQ(AbsolutePathOf(url), absolute);
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
    // Pairs of a reference and what it stands for.
    std::istringstream table(
        "g:h g:h  g http://a/b/c/g  ./g http://a/b/c/g  g/ http://a/b/c/g/  /g http://a/g  //g http://g"
        "  ?y http://a/b/c/d;p?y  g?y http://a/b/c/g?y  #s http://a/b/c/d;p?q#s  g#s http://a/b/c/g#s  ;x "
        "http://a/b/c/;x"
        "  . http://a/b/c/  ./ http://a/b/c/  .. http://a/b/  ../ http://a/b/  ../g http://a/b/g  ../.. http://a/"
        "  ../../g http://a/g  ../../../g http://a/g  /./g http://a/g  /../g http://a/g  g. http://a/b/c/g."
        "  ..g http://a/b/c/..g  ./../g http://a/b/g  g/./h http://a/b/c/g/h  g/../h http://a/b/c/h"
        "  g?y/../x http://a/b/c/g?y/../x");
    for (std::string reference, target; table >> reference >> target;)
        EXPECT_EQ(TextOf(URL(reference, base)), target) << reference;

    const Value directory = FileURL("/a/b", true), file = FileURL("/a/b");
    const std::tuple<Value, const char *> files[] = {
        {FileURL("x y", false, directory), "/a/b/x y"},
        {FileURL("x", false, file), "/a/x"},
        {FileURL("../x", true, directory), "/a/x"},
        {FileURL("/x/../y", false, directory), "/x/../y"},
        {FileURL("a:b", false, directory), "/a/b/a:b"},
        {URL("x%20y", directory), "/a/b/x y"},
        {FileURL("c", false, FileURL("b/", false, FileURL("/a/"))), "/a/b/c"},
    };
    for (const auto &[url, path] : files) {
        EXPECT_EQ(AbsolutePathOf(url), path);
        EXPECT_TRUE(TQURLIsFileURL(AsURL(url)));
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
