#include "Runtime/Values.h"
#include "support/Table.h"

#include <vaultry/url.h>

#include <filesystem>

namespace {

const std::string kHere = std::filesystem::current_path();

Value FromPath(const std::string &path, bool isDirectory = false, const Value &base = {})
{
    return Own(TQURLCreateWithFileSystemPathRelativeToBase(path.c_str(), isDirectory, Cast{base}));
}

Value URL(const std::string &madeOf)
{
    const size_t end = madeOf.find(" < ");
    const Value base = end == std::string::npos ? Value() : URL(madeOf.substr(end + 3));
    const std::string own = madeOf.substr(0, end);
    if (own.starts_with("path ")) return FromPath(own.substr(5), false, base);
    if (own.starts_with("folder ")) return FromPath(own.substr(7), true, base);
    return Own(TQURLCreateWithString(Cast{Text(own)}, Cast{base}));
}

std::string TextOf(const Value &url)
{
    return url ? UTF8(Own(TQURLCopyString(Cast{url}))) : "-";
}

std::string PathOf(const Value &url)
{
    const char *path = TQURLGetPath(Cast{url});
    return path ? path : "-";
}

std::string AbsolutePathOf(const Value &url, size_t capacity = 4096)
{
    std::string buffer(capacity, 'x');
    return TQURLGetFileSystemRepresentation(Cast{url}, buffer.data(), capacity) ? buffer.c_str() : "-";
}

} // namespace

TEST(URL, TellsWhatItsTextOrPathAndItsBasesMean)
{
    for (const TableRow &row : ReadTable("Runtime/urls.txt")) {
        const Value url = URL(row[0]);
        const auto is = [&](bool file, bool folder) {
            return file ? folder ? "file folder" : "file" : folder ? "folder" : "neither";
        };
        const std::string told[] = {TextOf(url), PathOf(url), AbsolutePathOf(url),
                                    is(TQURLIsFileURL(Cast{url}), TQURLHasDirectoryPath(Cast{url}))};
        for (size_t i = 1; i < row.columns.size(); ++i)
            EXPECT_EQ(told[i - 1], std::regex_replace(row[i], std::regex("\\$"), kHere)) << row[0];
    }
    EXPECT_FALSE(URL("") || FromPath("") || URL("a\nb") || TQURLCreateWithFileSystemPath(nullptr, false));
}

TEST(URL, EveryByteOfAPathComesBack)
{
    std::string every = "/";
    for (int byte = 1; byte < 256; ++byte) every.push_back(static_cast<char>(byte));
    for (const std::string &path : {every, every.substr(1), std::string("/a/../b//./"), std::string("//double")}) {
        const Value url = FromPath(path);
        const std::string absolute = path[0] == '/' ? path : kHere + "/" + path;
        EXPECT_EQ(PathOf(url), path);
        EXPECT_EQ(PathOf(URL(TextOf(url))), absolute);
        EXPECT_EQ(AbsolutePathOf(url, absolute.size() + 1), absolute);
        EXPECT_EQ(AbsolutePathOf(url, absolute.size()), "-");
    }
}

TEST(URL, SurvivesAnyNumberOfBases)
{
    Value one = FromPath("/"), other = FromPath("/");
    for (int i = 0; i < 100000; ++i)
        for (Value *url : {&one, &other}) *url = FromPath("x", false, *url);
    EXPECT_TRUE(TQEqual(one.get(), other.get()));
    EXPECT_EQ(TQHash(one.get()), TQHash(other.get()));
    EXPECT_EQ(AbsolutePathOf(one), "/x");
}
