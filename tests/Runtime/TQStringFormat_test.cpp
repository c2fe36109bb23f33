#include "Runtime/Values.h"

#include <climits>
#include <cmath>
#include <cstdarg>

// Formats are data here.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

template <class... Arguments> std::string Format(const char *format, Arguments... arguments)
{
    return Text(Cast{Own(TQStringCreateWithFormat(format, arguments...))});
}

// The C library is the judge of its own conversions. The conversions added after them show that each argument was taken
// from the list by its own type.
template <class... Arguments> void ExpectAsPrintf(std::string format, Arguments... arguments)
{
    format += " %d %s %g";
    char expected[4096];
    errno = ENOENT;
    const int length = snprintf(expected, sizeof expected, format.c_str(), arguments..., 77, "end", 0.5);
    EXPECT_EQ(Format(format.c_str(), arguments..., 77, "end", 0.5), std::string(expected, static_cast<size_t>(length)))
        << format;
    EXPECT_EQ(errno, ENOENT);
}

} // namespace

TEST(StringFormat, ConvertsAsPrintfDoes)
{
    for (const char *flags : {"",  "-",   "+",   " ",  "0",  "#",   "-+",   "+0",    " 0",  "#0", "'",
                              "5", "-12", "012", ".0", ".3", "8.3", "-8.3", "+08.3", "#.4", "."}) {
        const auto with = [&](const char *rest) { return std::string(1, '%').append(flags).append(rest); };
        for (const int value : {0, 1, -1, 300, -70000, INT_MIN, INT_MAX})
            for (const char *kind : {"d", "i", "u", "o", "x", "X", "hd", "hhd", "hu", "hhx"})
                ExpectAsPrintf(with(kind), value);
        for (const long long value : {0LL, -1LL, LLONG_MIN, LLONG_MAX})
            for (const char *kind : {"ld", "lld", "jd", "zd", "td", "lu", "llx", "jo", "zu", "tx"})
                ExpectAsPrintf(with(kind), value);
        for (const double value : {0.0, -0.0, 1.5, -1e300, 1e-5, double{INFINITY}, double{NAN}})
            for (const char *kind : {"f", "F", "e", "E", "g", "G", "a", "A", "lf"}) ExpectAsPrintf(with(kind), value);
        ExpectAsPrintf(with("Lf"), 2.25L);
        ExpectAsPrintf(with("La"), -1e4000L);
        for (const char *value : {"", "plain", "longer than the width"}) ExpectAsPrintf(with("s"), value);
        ExpectAsPrintf(with("ls"), L"wide");
        ExpectAsPrintf(with("p"), static_cast<void *>(&flags));
        ExpectAsPrintf(with("m"));
    }
    ExpectAsPrintf("%c%5c|%-5c|%lc", 'a', 'b', 'c', wint_t{L'd'});
    ExpectAsPrintf("%c 100%%, %s%%", 0, "x");
    ExpectAsPrintf("%*d|%-*d|%.*d|%*.*f", 7, 1, 7, 2, 3, 3, -9, -1, 4.5);
    ExpectAsPrintf("%700d|%.600f", 5, 1.0 / 3);
}

TEST(StringFormat, DescribesValuesAndNeverCutsACharacter)
{
    TQValue *const word = kTQBooleanTrue, *const none = nullptr;
    const char open[3] = {'a', '\xc3', '\xa9'}; // no zero after it
    const std::pair<std::string, const char *> rows[] = {
        {Format("%@ and %@%d", Array({Text("a"), Number(1)}).get(), word, 3), "[\"a\", 1] and true3"},
        {Format("%7@|%-7@|%.2@", word, word, word), "   true|true   |tr"},
        {Format("%@ %s %ls", none, none, none), "(null) (null) (null)"},
        {Format("%.3s|%.2s|%.1s|%.0s", open, open, open, open), "aé|a|a|"},
        {Format("%.5s|", "😀😀"), "😀|"},
        {Format("%.4ls|%lc|%S|%C", L"é€", wint_t{U'😀'}, L"é", wint_t{U'é'}), "é|😀|é|é"},
    };
    for (const auto &[formatted, text] : rows) EXPECT_EQ(formatted, text);
}

TEST(StringFormat, RefusesWhatPrintfDoesNotKnow)
{
    int written = 5;
    for (const char *bad : {"%n", "%hhn", "%1$d", "%y", "%", "%5", "%l", "%hs", "%Ld", "%hf", "%l@", "%99999999999d",
                            "%.99999999999d", "%I64d", "%zc"})
        EXPECT_EQ(TQStringCreateWithFormat(bad, &written), nullptr) << bad;
    EXPECT_EQ(written, 5);
    for (const std::string &refused : {Format("%*d", INT_MIN, 1), Format("%s", "\xff"), Format("%c", 0xe9),
                                       Format("%lc", wint_t{0xd800}), Format("\xc3"), Format(nullptr)})
        EXPECT_EQ(refused, "(no string)");
}
