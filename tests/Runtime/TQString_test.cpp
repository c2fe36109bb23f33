#include "Runtime/Values.h"

#include <iconv.h>

TEST(String, HoldsWhatTheCLibraryTakesForUTF8AndCountsAsItDoes)
{
    const iconv_t judge = iconv_open("UTF-16LE", "UTF-8");
    const std::string_view bytes("\0a\x7f\x80\x8f\x90\x9f\xa0\xbf\xc1\xc2\xdf\xe0\xec\xed\xef\xf0\xf3\xf4\xf5\xff", 21);
    for (size_t n = 0; n < 21 * 21 * 21 * 21; ++n) { // every four of them, after zero to eight ASCII ones
        std::string text(n % 9, 'a');
        for (size_t i = 0, rest = n; i < 4; ++i, rest /= 21) text.push_back(bytes[rest % 21]);
        std::u16string units(16, u'x');
        char *from = text.data(), *to = reinterpret_cast<char *>(units.data());
        size_t left = text.size(), room = 2 * units.size();
        iconv(judge, nullptr, nullptr, nullptr, nullptr);
        const bool isUTF8 = iconv(judge, &from, &left, &to, &room) == 0;
        units.resize(16 - room / 2);

        const Value string = Text(text);
        ASSERT_EQ(static_cast<bool>(string), isUTF8) << testing::PrintToString(text);
        if (!isUTF8) continue;
        ASSERT_EQ(Text(Cast{string}), text);
        ASSERT_EQ(TQStringGetLength(Cast{string}), units.size());
        for (size_t i = 0; i <= units.size(); ++i) // zero after the last
            ASSERT_EQ(TQStringGetCharacterAtIndex(Cast{string}, i), uint16_t{units.c_str()[i]});
    }
    iconv_close(judge);
    EXPECT_FALSE(TQStringCreate("\xff") || TQStringCreateWithFileSystemRepresentation("\xff"));
    EXPECT_FALSE(TQStringCreate(nullptr) || TQStringCreateWithBytes(nullptr, 1));
}
