#include "Runtime/Values.h"

#include <vaultry/url.h>

#include <filesystem>
#include <sstream>

namespace {

constexpr auto URL = [](std::string_view text, const Value &base = {}) {
    return Own(TQURLCreateWithString(Cast{Text(text)}, Cast{base}));
};

constexpr auto FileURL = [](const std::string &path, bool isDirectory = false, const Value &base = {}) {
    return Own(TQURLCreateWithFileSystemPathRelativeToBase(path.c_str(), isDirectory, Cast{base}));
};

constexpr auto TextOf = [](const Value &url) { return UTF8(Own(TQURLCopyString(Cast{url}))); };

std::string PathOf(const Value &url)
{
    const char *path = TQURLGetPath(Cast{url});
    return path ? path : "(none)";
}

std::string AbsolutePathOf(const Value &url, size_t capacity = 4096)
{
    std::string buffer(capacity, 'x');
    return TQURLGetFileSystemRepresentation(Cast{url}, buffer.data(), capacity) ? buffer.c_str() : "(none)";
}

std::string CurrentDirectory()
{
    return std::filesystem::current_path();
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
        EXPECT_EQ(AbsolutePathOf(url, absolute.size() + 1), absolute);
        EXPECT_EQ(AbsolutePathOf(url, absolute.size()), "(none)");
    }
    EXPECT_EQ(TextOf(FileURL("/a b/%?#\xff")), "file:///a%20b/%25%3F%23%FF");
}

TEST(URL, KnowsDirectoriesAndFilesOfThisHost)
{
    enum : unsigned { kFile = 1, kDirectory = 2 };
    const std::tuple<Value, const char *, const char *, const char *, unsigned> rows[] = {
        {FileURL("/d", true), "file:///d/", "/d", "/d", kFile | kDirectory},
        {FileURL("/d/", true), "file:///d/", "/d/", "/d/", kFile | kDirectory},
        {FileURL("/d/"), "file:///d/", "/d/", "/d/", kFile | kDirectory},
        {FileURL("/d"), "file:///d", "/d", "/d", kFile},
        {FileURL("/", true), "file:///", "/", "/", kFile | kDirectory},
        {URL("file:///d/"), "file:///d/", "/d/", "/d/", kFile | kDirectory},
        {URL("file:///a%20b"), "file:///a%20b", "/a b", "/a b", kFile},
        {URL("FILE://LocalHost/a"), "FILE://LocalHost/a", "/a", "/a", kFile},
        {URL("file:/a?query#fragment"), "file:/a?query#fragment", "/a", "/a", kFile},
        {URL("file://elsewhere/a"), "file://elsewhere/a", "(none)", "(none)", kFile},
        {URL("file://localhost:80/a"), "file://localhost:80/a", "(none)", "(none)", kFile},
        {URL("file:///a%00b"), "file:///a%00b", "(none)", "(none)", kFile},
        {URL("file://"), "file://", "(none)", "(none)", kFile | kDirectory},
        {URL("file:a"), "file:a", "a", "(none)", kFile},
        {URL("https://host/a%2fb?q"), "https://host/a%2fb?q", "/a/b", "(none)", 0},
        {URL("mailto:somebody@host"), "mailto:somebody@host", "somebody@host", "(none)", 0},
        {URL("files:///a"), "files:///a", "/a", "(none)", 0},
        {URL("no/scheme"), "no/scheme", "no/scheme", "(none)", 0},
    };
    for (const auto &[url, text, path, absolute, is] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(TextOf(url), text);
        EXPECT_EQ(PathOf(url), path);
        EXPECT_EQ(AbsolutePathOf(url), absolute);
        EXPECT_EQ(TQURLIsFileURL(Cast{url}), (is & kFile) != 0);
        EXPECT_EQ(TQURLHasDirectoryPath(Cast{url}), (is & kDirectory) != 0);
    }
}

TEST(URL, RefusesWhatNoURLHolds)
{
    for (const char *bad : {"", "file:///a b", "file:///%", "file:///%4", "file:///%g0", "http://\xc3\xa9", "a\nb",
                            "a<b", "a\"b", "a\\b", "a^b", "a`b", "a{b}", "a|b"})
        EXPECT_FALSE(URL(bad)) << bad;
    EXPECT_FALSE(FileURL("") || TQURLCreateWithFileSystemPath(nullptr, false));
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
    const std::tuple<Value, std::string> files[] = {
        {FileURL("x y", false, directory), "/a/b/x y"},
        {FileURL("x", false, file), "/a/x"},
        {FileURL("../x", true, directory), "/a/x"},
        {FileURL("/x/../y", false, directory), "/x/../y"},
        {FileURL("a:b", false, directory), "/a/b/a:b"},
        {URL("x%20y", directory), "/a/b/x y"},
        {FileURL("c", false, FileURL("b/", false, FileURL("/a/"))), "/a/b/c"},
        {FileURL("x", false, FileURL("sub", true)), CurrentDirectory() + "/sub/x"},
    };
    for (const auto &[url, path] : files) EXPECT_EQ(AbsolutePathOf(url), path);
    EXPECT_FALSE(TQURLIsFileURL(Cast{FileURL("x", false, base)}));
}

TEST(URL, EqualsItsTwinAndSurvivesAnyNumberOfBases)
{
    EXPECT_TRUE(TQEqual(FileURL("/a b").get(), URL("file:///a%20b").get()));
    EXPECT_FALSE(TQEqual(FileURL("a").get(), URL("a").get())); // only the first is a file's
    EXPECT_FALSE(TQEqual(URL("a", URL("file:///b")).get(), URL("a", URL("file:///c")).get()));
    Value one = FileURL("/"), other = FileURL("/");
    for (int i = 0; i < 100000; ++i)
        for (Value *url : {&one, &other}) *url = FileURL("x", false, *url);
    EXPECT_TRUE(TQEqual(one.get(), other.get()));
    EXPECT_EQ(TQHash(one.get()), TQHash(other.get()));
    EXPECT_EQ(AbsolutePathOf(one), "/x");
}
