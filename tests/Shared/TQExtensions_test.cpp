#include "support/Library.h"
#include "support/Reports.h"

#include <vaultry/path.h>

#include <cerrno>
#include <gmock/gmock.h>

namespace {

const std::string kWide = "\xF0\x9F\x93\x84"; // two UTF-16 units, four bytes

std::string Repeated(const std::string &text, size_t count)
{
    std::string all;
    while (count-- > 0) all += text;
    return all;
}

struct NameRow {
    const char *what;
    std::string name;
    const char *refusedAs; // the message's middle, or null
};

TEST(GenerationName, AsAString)
{
    const NameRow rows[] = {
        {"254 units", std::string(254, 'n'), nullptr},
        {"254 units of wide characters", Repeated(kWide, 127), nullptr},
        {"a dot inside", "a.b", nullptr},
        {"empty", "", nullptr},
        {"255 units", std::string(255, 'n'), "too long"},
        {"255 units of wide characters", Repeated(kWide, 127) + "n", "too long"},
        {"hidden and too long: the length decides", "." + std::string(254, 'n'), "too long"},
        {"hidden", ".draft", "begins with a `.'"},
        {"hidden and of two components: the dot decides", "./a", "begins with a `.'"},
        {"two components", "a/b", "contains a `/'"},
        {"a trailing slash", "a/", "contains a `/'"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const Outcome outcome = InChild([&](TQError **error) { return validateTQName(String(row.name).get(), error); });
        EXPECT_EQ(outcome.succeeded, row.refusedAs == nullptr);
        if (row.refusedAs == nullptr) continue;
        const std::string message = "Invalid Name: " + std::string(row.refusedAs) + " [" + row.name + "]";
        ExpectSays(outcome, Refused(105, message), "");
        EXPECT_THAT(outcome.log[0].text, testing::HasSubstr(message + "; status 105 (on"));
    }
    EXPECT_FALSE(validateTQName(String(".x").get(), nullptr));
    EXPECT_FALSE(validateTQName(nullptr, nullptr));
}

TEST(GenerationName, InFileSystemForm)
{
    for (const auto &[name, valid] :
         {std::pair{"", true}, {"a.b", true}, {"a", true}, {"..", false}, {".a", false}, {"a/b", false}, {"/", false}})
        EXPECT_EQ(TQValidateGenerationName(name), valid) << name;
    EXPECT_FALSE(TQValidateGenerationName(nullptr));

    char buffer[255];
    EXPECT_TRUE(TQStringGetGenName(String(std::string(254, 'n')).get(), buffer, nullptr));
    EXPECT_EQ(buffer, std::string(254, 'n'));
    EXPECT_TRUE(TQStringGetGenName(String("\xC3\xA9").get(), buffer, nullptr));
    EXPECT_STREQ(buffer, "\xC3\xA9") << "bytes are kept as they are";
    for (const std::string &name : {std::string(255, 'n'), Repeated(kWide, 64), std::string("a\0b", 3)})
        ExpectSays(InChild([&](TQError **error) { return TQStringGetGenName(String(name).get(), buffer, error); }),
                   Refused(105, "The supplied generation name was invalid"), "");
}

TEST(FileURL, AndItsPath)
{
    const DeferredScope scope;
    const TQURL *url = tq_fileURLWithFileSystemRepresentation("/a b/\xC3\xA9%");
    ASSERT_NE(url, nullptr);
    EXPECT_TRUE(TQURLIsFileURL(url));
    EXPECT_FALSE(TQURLHasDirectoryPath(url));
    EXPECT_STREQ(tq_fileSystemRepresentation(url), "/a b/\xC3\xA9%");
    EXPECT_FALSE(TQURLHasDirectoryPath(tq_fileURLWithFileSystemRepresentation("/tmp"))) << "without a look at the disk";
    EXPECT_STREQ(tq_fileSystemRepresentation(tq_fileURLWithFileSystemRepresentation("/.vol/1/2")), "/.vol/1/2");
    EXPECT_EQ(tq_fileURLWithFileSystemRepresentation(""), nullptr);
    EXPECT_EQ(tq_fileURLWithFileSystemRepresentation(nullptr), nullptr);
    EXPECT_EQ(tq_fileSystemRepresentation(nullptr), nullptr);

    EXPECT_EQ(Text(tq_stringWithFileSystemRepresentation("/a/\xC3\xA9")), "/a/\xC3\xA9");
    EXPECT_EQ(tq_stringWithFileSystemRepresentation("/a/\xff"), nullptr);
    EXPECT_EQ(tq_stringWithFileSystemRepresentation(nullptr), nullptr);
}

TEST(AbsolutePath, IsResolvedAndBounded)
{
    char path[1024];
    const auto base = FileURL("/base/");
    const auto relative = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPathRelativeToBase("x/y", false, base.get()));
    EXPECT_TRUE(TQURLGetAbsPath(relative.get(), path, sizeof path, nullptr));
    EXPECT_STREQ(path, "/base/x/y");
    EXPECT_TRUE(TQURLGetAbsPath(FileURL("/" + std::string(1022, 'p')).get(), path, sizeof path, nullptr));

    const auto web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/x").get(), nullptr));
    const auto tooLong = FileURL("/" + std::string(1023, 'p'));
    ExpectRows({{"not a file", Failed(104, "invalid supplied url https://example.com/x"),
                 [&](TQError **error) { return TQURLGetAbsPath(web.get(), path, sizeof path, error); }},
                {"too small a buffer", Failed(104, "invalid supplied url file:///base/"),
                 [&](TQError **error) { return TQURLGetAbsPath(base.get(), path, 4, error); }},
                {"none", Failed(104, "invalid supplied url (null)"),
                 [&](TQError **error) { return TQURLGetAbsPath(nullptr, path, sizeof path, error); }}},
               "");
    EXPECT_FALSE(TQURLGetAbsPath(tooLong.get(), path, sizeof path, nullptr));
}

} // namespace
