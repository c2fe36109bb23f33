#include "Runtime/Values.h"

namespace {

std::string FileSystemForm(const Value &string, size_t capacity)
{
    std::vector<char> buffer(capacity, 'x');
    const bool fits =
        TQStringGetFileSystemRepresentation(static_cast<TQString *>(string.get()), buffer.data(), capacity);
    return fits ? buffer.data() : "(refused)";
}

} // namespace

TEST(String, RefusesWhatIsNotUTF8)
{
    for (const char *bad : {"\x80", "\xbf", "a\xc3", "\xc3(", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf",
                            "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
                            "\xff", "\xe2\x82", "\xf0\x9f\x98", "01234567\xf0\x9f\x98", "0123456\xc3 01234567"}) {
        EXPECT_EQ(TQStringCreate(bad), nullptr) << testing::PrintToString(std::string(bad));
        EXPECT_EQ(TQStringCreateWithFileSystemRepresentation(bad), nullptr);
    }
    EXPECT_EQ(TQStringCreate(nullptr), nullptr);
    EXPECT_EQ(TQStringCreateWithBytes(nullptr, 1), nullptr);
}

TEST(String, CountsAndGivesUTF16Units)
{
    const std::tuple<std::string, std::u16string> rows[] = {
        {"", u""},
        {"plain ASCII of more than eight", u"plain ASCII of more than eight"},
        {std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
        {"\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf", u"\x7f\x80\x7ff\x800\xffff"},
        {"\xed\x9f\xbf\xee\x80\x80", u"\xd7ff\xe000"},
        {"\xf0\x90\x80\x80x\xf4\x8f\xbf\xbf", u"\xd800\xdc00x\xdbff\xdfff"},
    };
    for (const auto &[bytes, units] : rows) {
        SCOPED_TRACE(bytes);
        const Value string = Text(bytes);
        const auto *text = static_cast<TQString *>(string.get());
        ASSERT_EQ(UTF8(string), bytes);
        ASSERT_EQ(TQStringGetLength(text), units.size());
        for (size_t i = 0; i < units.size(); ++i) EXPECT_EQ(TQStringGetCharacterAtIndex(text, i), uint16_t{units[i]});
        EXPECT_EQ(TQStringGetCharacterAtIndex(text, units.size()), 0);
        EXPECT_TRUE(TQEqual(text, Text(bytes).get()));
        EXPECT_FALSE(TQEqual(text, Text(bytes + "!").get()));
    }
}

TEST(String, FileSystemFormIsTheBytesOrNothing)
{
    EXPECT_EQ(FileSystemForm(Text("n\xc3\xa4me"), 6), "n\xc3\xa4me");
    EXPECT_EQ(FileSystemForm(Text("n\xc3\xa4me"), 5), "(refused)"); // no room for the zero
    EXPECT_EQ(FileSystemForm(Text(std::string("a\0b", 3)), 100), "(refused)");
    EXPECT_EQ(FileSystemForm(Text(""), 1), "");
    EXPECT_EQ(FileSystemForm(Text(""), 0), "(refused)");
}
