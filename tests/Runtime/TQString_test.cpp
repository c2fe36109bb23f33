#include "Runtime/Values.h"

TEST(String, RefusesWhatIsNotUTF8)
{
    for (const char *bad : {"\x80", "\xbf", "a\xc3", "\xc3(", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf",
                            "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
                            "\xff", "\xe2\x82", "\xf0\x9f\x98", "01234567\xf0\x9f\x98", "0123456\xc3 01234567"}) {
        EXPECT_EQ(TQStringCreate(bad), nullptr) << testing::PrintToString(std::string(bad));
        EXPECT_EQ(TQStringCreateWithFileSystemRepresentation(bad), nullptr);
    }
    EXPECT_FALSE(TQStringCreate(nullptr) || TQStringCreateWithBytes(nullptr, 1));
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
        const Value text = Text(bytes);
        ASSERT_EQ(UTF8(text), bytes);
        ASSERT_EQ(TQStringGetLength(Cast{text}), units.size()) << bytes;
        for (size_t i = 0; i <= units.size(); ++i) // after the last one, zero
            EXPECT_EQ(TQStringGetCharacterAtIndex(Cast{text}, i), uint16_t{units.c_str()[i]}) << bytes;
        EXPECT_TRUE(TQEqual(text.get(), Text(bytes).get()));
        EXPECT_FALSE(TQEqual(text.get(), Text(bytes + "!").get()));
    }
}

TEST(String, FileSystemFormIsTheBytesOrNothing)
{
    const std::tuple<std::string, size_t, bool> rows[] = {
        {"n\xc3\xa4me", 6, true},
        {"n\xc3\xa4me", 5, false}, // no room for the zero
        {"", 1, true},
        {"", 0, false},
        {std::string("a\0b", 3), 100, false},
    };
    for (const auto &[text, capacity, fits] : rows) {
        std::string buffer(100, 'x');
        ASSERT_EQ(TQStringGetFileSystemRepresentation(Cast{Text(text)}, buffer.data(), capacity), fits) << text;
        EXPECT_TRUE(!fits || buffer.c_str() == text) << buffer;
        EXPECT_EQ(buffer.substr(capacity), std::string(100 - capacity, 'x'));
    }
}
