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
    return url ? Text(Cast{Own(TQURLCopyString(Cast{url}))}) : "-";
}

std::string AbsolutePathOf(const Value &url)
{
    char buffer[4096];
    return TQURLGetFileSystemRepresentation(Cast{url}, buffer, sizeof buffer) ? buffer : "-";
}

} // namespace

TEST(URL, TellsWhatItsTextOrPathAndItsBasesMean)
{
    for (const TableRow &row : ReadTable("Runtime/urls.txt")) {
        const Value url = URL(row[0]);
        const char *const path = TQURLGetPath(Cast{url});
        const std::string kind = TQURLIsFileURL(Cast{url}) ? "file" : "other",
                          folder = TQURLHasDirectoryPath(Cast{url}) ? " folder" : "";
        const std::string told[] = {TextOf(url), path ? path : "-", AbsolutePathOf(url), kind + folder};
        for (size_t i = 1; i < row.columns.size(); ++i)
            EXPECT_EQ(told[i - 1], std::regex_replace(row[i], std::regex("\\$"), kHere)) << row[0];
    }
    EXPECT_FALSE(URL("") || FromPath("") || URL("a\nb") || TQURLCreateWithFileSystemPath(nullptr, false));
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
