#include "support/Tests.h"

namespace {

std::string Wide(size_t count) // characters of two UTF-16 units and four bytes
{
    std::string text;
    while (count-- > 0) text += "\xF0\x9F\x93\x84";
    return text;
}

TEST(GenerationName, AsAString)
{
    const std::pair<std::string, std::string> rows[] = {
        {Wide(127), ""},
        {Wide(127) + "n", "too long"},
        {"." + std::string(254, 'n'), "too long"}, // the length is looked at first
        {"./a", "begins with a `.'"},              // then the dot
        {"a/", "contains a `/'"},
    };
    for (const auto &row : rows) {
        const std::string &name = row.first, &refusal = row.second;
        const Outcome outcome = InChild(CALL(validateTQName(String(name).get(), why)));
        EXPECT_EQ(outcome.succeeded, refusal.empty()) << name;
        if (!refusal.empty()) ExpectSays(outcome, Refused(105, "Invalid Name: " + refusal + " [" + name + "]"), "");
    }
    EXPECT_FALSE(validateTQName(String(".x").get(), nullptr) || validateTQName(nullptr, nullptr));
}

TEST(GenerationName, InFileSystemForm)
{
    for (const char *name : {"", "a.b"}) EXPECT_TRUE(TQValidateGenerationName(name)) << name;
    for (const char *name : {".a", "a/b"}) EXPECT_FALSE(TQValidateGenerationName(name)) << name;
    EXPECT_FALSE(TQValidateGenerationName(nullptr));
    char buffer[255];
    const std::string longest(252, 'n'), kept = longest + "\xC3\xA9";
    EXPECT_TRUE(TQStringGetGenName(String(kept).get(), buffer, nullptr));
    EXPECT_EQ(buffer, kept) << "bytes are kept as they are";
    for (const std::string &name : {std::string(255, 'n'), Wide(64), std::string("a\0b", 3)})
        ExpectSays(InChild(CALL(TQStringGetGenName(String(name).get(), buffer, why))),
                   Refused(105, "The supplied generation name was invalid"), "");
}

TEST(FileURL, IsMadeFromAPathWithoutALookAtTheDisk)
{
    const DeferredScope scope;
    for (const char *path : {"/a b/\xC3\xA9%", "/tmp"}) {
        const TQURL *url = tq_fileURLWithFileSystemRepresentation(path);
        EXPECT_TRUE(TQURLIsFileURL(url) && !TQURLHasDirectoryPath(url));
        EXPECT_STREQ(tq_fileSystemRepresentation(url), path);
        EXPECT_EQ(Text(tq_stringWithFileSystemRepresentation(path)), path);
    }
    EXPECT_FALSE(tq_fileURLWithFileSystemRepresentation("") || tq_fileURLWithFileSystemRepresentation(nullptr) ||
                 tq_fileSystemRepresentation(nullptr) || tq_stringWithFileSystemRepresentation("/\xff") ||
                 tq_stringWithFileSystemRepresentation(nullptr));
}

TEST(AbsolutePath, IsResolvedAndBounded)
{
    char path[1024];
    const auto base = FileURL("/base/");
    const auto relative = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPathRelativeToBase("x/y", false, base.get()));
    EXPECT_TRUE(TQURLGetAbsPath(relative.get(), path, sizeof path, nullptr));
    EXPECT_STREQ(path, "/base/x/y");
    EXPECT_TRUE(TQURLGetAbsPath(FileURL("/" + std::string(1022, 'p')).get(), path, sizeof path, nullptr));
    EXPECT_FALSE(TQURLGetAbsPath(FileURL("/" + std::string(1023, 'p')).get(), path, sizeof path, nullptr));
    const auto web = Ref<TQURL>::Adopt(TQURLCreateWithString(String("https://example.com/x").get(), nullptr));
    ExpectRows({{Failed(104, "invalid supplied url https://example.com/x"),
                 CALL(TQURLGetAbsPath(web.get(), path, sizeof path, why))},
                {Failed(104, "invalid supplied url file:///base/"), CALL(TQURLGetAbsPath(base.get(), path, 4, why))},
                {Failed(104, "invalid supplied url (null)"), CALL(TQURLGetAbsPath(nullptr, path, sizeof path, why))}},
               "");
}

} // namespace
