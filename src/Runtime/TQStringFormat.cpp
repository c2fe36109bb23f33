// Formatting: printf's conversions and "%@".
//
// The C library formats numbers; what it can't be trusted with is done here. Every argument is taken from the
// list by its own type, text must be UTF-8, nothing is ever written through an argument, and a conversion
// that is not known makes the whole result null instead of reading arguments of the wrong type.

#include "Platform/ScopeExit.h"
#include "Platform/WholeCharacters.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Ref.h"
#include "Runtime/String.h"
#include "Runtime/UTF8.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

// The formats given to the C library are rebuilt here from conversions that were checked one by one.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// The analyzer does not follow a list into the struct below. The branches that it calls identical are so only on some
// systems, and a signed char is meant to be a number.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized,bugprone-branch-clone,bugprone-signed-char-misuse,cert-str34-c)

namespace {

enum class Length { kNone, kChar, kShort, kLong, kLongLong, kMax, kSize, kPointer, kLongDouble };

// An argument list that can be handed on by reference, whatever type va_list is.
struct Arguments {
    va_list list;
};

// One conversion: "%-8.3ld".
struct Conversion {
    std::string flags;
    bool left = false;
    int width = 0;
    int precision = -1; // negative: none given
    Length length = Length::kNone;
    char kind = '\0';
};

bool _ReadNumber(const char *&at, int &number)
{
    number = 0;
    for (; *at >= '0' && *at <= '9'; ++at)
        if (__builtin_mul_overflow(number, 10, &number) || __builtin_add_overflow(number, *at - '0', &number))
            return false;
    return true;
}

Length _ReadLength(const char *&at)
{
    switch (*at) {
    case 'h':
        ++at;
        return *at == 'h' ? (++at, Length::kChar) : Length::kShort;
    case 'l':
        ++at;
        return *at == 'l' ? (++at, Length::kLongLong) : Length::kLong;
    case 'j':
        ++at;
        return Length::kMax;
    case 'z':
        ++at;
        return Length::kSize;
    case 't':
        ++at;
        return Length::kPointer;
    case 'L':
        ++at;
        return Length::kLongDouble;
    default:
        return Length::kNone;
    }
}

// Reads what follows "%", with the arguments that "*" stands for. False for what printf does not know, and for
// positional arguments, whose types can't be known before the whole format is read.
bool _ReadConversion(const char *&at, Arguments &arguments, Conversion &conversion)
{
    for (; *at && std::strchr("-+ #0'", *at); ++at) {
        conversion.flags.push_back(*at);
        conversion.left |= *at == '-';
    }
    if (*at == '*') {
        ++at;
        conversion.width = va_arg(arguments.list, int);
        if (conversion.width == INT_MIN) return false;
        if (conversion.width < 0) {
            conversion.left = true;
            conversion.flags.push_back('-');
            conversion.width = -conversion.width;
        }
    } else if (!_ReadNumber(at, conversion.width)) {
        return false;
    }
    if (*at == '.') {
        ++at;
        if (*at == '*') {
            ++at;
            conversion.precision = va_arg(arguments.list, int);
        } else if (!_ReadNumber(at, conversion.precision)) {
            return false;
        }
    }
    conversion.length = _ReadLength(at);
    conversion.kind = *at;
    if (*at) ++at;
    return true;
}

class Formatter {
public:
    bool Run(const char *format, Arguments &arguments);
    const std::string &text() const { return text_; }

private:
    bool Append(const Conversion &conversion, Arguments &arguments);
    template <class T> bool AppendWithPrintf(const Conversion &conversion, const char *length, T argument);
    bool AppendSigned(const Conversion &conversion, Arguments &arguments);
    bool AppendUnsigned(const Conversion &conversion, Arguments &arguments);
    bool AppendReal(const Conversion &conversion, Arguments &arguments);
    bool AppendCharacter(const Conversion &conversion, Arguments &arguments);
    bool AppendBytes(const Conversion &conversion, const char *bytes);
    bool AppendWide(const Conversion &conversion, const wchar_t *wide);
    bool AppendErrno(const Conversion &conversion);
    bool AppendValue(const Conversion &conversion, const TQValue *value);
    void AppendText(const Conversion &conversion, std::string_view text);

    std::string text_;
    int errno_ = errno; // for "%m": the error from before anything here could change it
};

bool Formatter::Run(const char *format, Arguments &arguments)
{
    for (const char *at = format; *at;) {
        const char *percent = std::strchr(at, '%');
        if (!percent) {
            text_.append(at);
            return true;
        }
        text_.append(at, percent);
        at = percent + 1;
        Conversion conversion;
        if (!_ReadConversion(at, arguments, conversion) || !Append(conversion, arguments)) return false;
    }
    return true;
}

bool Formatter::Append(const Conversion &conversion, Arguments &arguments)
{
    const bool plain = conversion.length == Length::kNone;
    switch (conversion.kind) {
    case 'd':
    case 'i':
        return AppendSigned(conversion, arguments);
    case 'o':
    case 'u':
    case 'x':
    case 'X':
        return AppendUnsigned(conversion, arguments);
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
        return AppendReal(conversion, arguments);
    case 'c':
    case 'C':
        return AppendCharacter(conversion, arguments);
    case 's':
        if (conversion.length == Length::kLong) return AppendWide(conversion, va_arg(arguments.list, wchar_t *));
        return plain && AppendBytes(conversion, va_arg(arguments.list, char *));
    case 'S':
        return plain && AppendWide(conversion, va_arg(arguments.list, wchar_t *));
    case 'p':
        return plain && AppendWithPrintf(conversion, "", va_arg(arguments.list, void *));
    case '@':
        return plain && AppendValue(conversion, va_arg(arguments.list, void *));
    case 'm':
        return plain && AppendErrno(conversion);
    case '%':
        text_.push_back('%');
        return true;
    default: // "%n" among them: nothing is written through an argument
        return false;
    }
}

template <class T> bool Formatter::AppendWithPrintf(const Conversion &conversion, const char *length, T argument)
{
    std::string format(1, '%');
    format += conversion.flags;
    if (conversion.width > 0) format += std::to_string(conversion.width);
    if (conversion.precision >= 0) format.append(1, '.').append(std::to_string(conversion.precision));
    format += length;
    format += conversion.kind;

    char buffer[512];
    const int needed = std::snprintf(buffer, sizeof buffer, format.c_str(), argument);
    if (needed < 0) return false;
    const auto count = static_cast<size_t>(needed);
    if (count < sizeof buffer) {
        text_.append(buffer, count);
        return true;
    }
    const size_t before = text_.size();
    text_.resize(before + count + 1);
    if (std::snprintf(&text_[before], count + 1, format.c_str(), argument) != needed) return false;
    text_.pop_back();
    return true;
}

bool Formatter::AppendSigned(const Conversion &conversion, Arguments &arguments)
{
    intmax_t value = 0;
    switch (conversion.length) {
    case Length::kNone:
        value = va_arg(arguments.list, int);
        break;
    case Length::kChar:
        value = static_cast<signed char>(va_arg(arguments.list, int));
        break;
    case Length::kShort:
        value = static_cast<short>(va_arg(arguments.list, int));
        break;
    case Length::kLong:
        value = va_arg(arguments.list, long);
        break;
    case Length::kLongLong:
        value = va_arg(arguments.list, long long);
        break;
    case Length::kMax:
        value = va_arg(arguments.list, intmax_t);
        break;
    case Length::kSize:
        value = va_arg(arguments.list, ssize_t);
        break;
    case Length::kPointer:
        value = va_arg(arguments.list, ptrdiff_t);
        break;
    case Length::kLongDouble:
        return false;
    }
    return AppendWithPrintf(conversion, "j", value);
}

bool Formatter::AppendUnsigned(const Conversion &conversion, Arguments &arguments)
{
    uintmax_t value = 0;
    switch (conversion.length) {
    case Length::kNone:
        value = va_arg(arguments.list, unsigned);
        break;
    case Length::kChar:
        value = static_cast<unsigned char>(va_arg(arguments.list, unsigned));
        break;
    case Length::kShort:
        value = static_cast<unsigned short>(va_arg(arguments.list, unsigned));
        break;
    case Length::kLong:
        value = va_arg(arguments.list, unsigned long);
        break;
    case Length::kLongLong:
        value = va_arg(arguments.list, unsigned long long);
        break;
    case Length::kMax:
        value = va_arg(arguments.list, uintmax_t);
        break;
    case Length::kSize:
        value = va_arg(arguments.list, size_t);
        break;
    case Length::kPointer:
        value = static_cast<std::make_unsigned_t<ptrdiff_t>>(va_arg(arguments.list, ptrdiff_t));
        break;
    case Length::kLongDouble:
        return false;
    }
    return AppendWithPrintf(conversion, "j", value);
}

bool Formatter::AppendReal(const Conversion &conversion, Arguments &arguments)
{
    switch (conversion.length) {
    case Length::kNone:
    case Length::kLong:
        return AppendWithPrintf(conversion, "", va_arg(arguments.list, double));
    case Length::kLongDouble:
        return AppendWithPrintf(conversion, "L", va_arg(arguments.list, long double));
    default:
        return false;
    }
}

bool Formatter::AppendCharacter(const Conversion &conversion, Arguments &arguments)
{
    Conversion whole = conversion;
    whole.precision = -1;
    if (conversion.kind == 'C' || conversion.length == Length::kLong) {
        std::string character;
        if (!AppendUTF8(character, static_cast<char32_t>(va_arg(arguments.list, wint_t)))) return false;
        AppendText(whole, character);
        return true;
    }
    if (conversion.length != Length::kNone) return false;
    const char character = static_cast<char>(va_arg(arguments.list, int));
    AppendText(whole, {&character, 1});
    return true;
}

bool Formatter::AppendBytes(const Conversion &conversion, const char *bytes)
{
    if (!bytes) bytes = "(null)";
    // With a precision the bytes need no zero behind them.
    const size_t length =
        conversion.precision < 0 ? std::strlen(bytes) : strnlen(bytes, static_cast<size_t>(conversion.precision));
    AppendText(conversion, {bytes, length});
    return true;
}

bool Formatter::AppendWide(const Conversion &conversion, const wchar_t *wide)
{
    if (!wide) return AppendBytes(conversion, nullptr);
    std::string text;
    // Only as many characters are read as the precision has room for.
    for (; conversion.precision < 0 || text.size() < static_cast<size_t>(conversion.precision); ++wide) {
        if (*wide == L'\0') break;
        if (!AppendUTF8(text, static_cast<char32_t>(*wide))) return false;
    }
    AppendText(conversion, text);
    return true;
}

bool Formatter::AppendErrno(const Conversion &conversion)
{
    // "%#m" is the C library's way to ask for the name of the error, "ENOENT".
    const char *name = conversion.flags.find('#') == std::string::npos ? nullptr : strerrorname_np(errno_);
    char buffer[256];
    return AppendBytes(conversion, name ? name : strerror_r(errno_, buffer, sizeof buffer));
}

bool Formatter::AppendValue(const Conversion &conversion, const TQValue *value)
{
    if (!value) return AppendBytes(conversion, nullptr);
    const auto description = Ref<TQString>::Adopt(TQCopyDescription(value));
    if (!description) return false;
    AppendText(conversion, description.get()->view());
    return true;
}

// Appends at most `precision` bytes of `text`, and no part of a character, padded with spaces to the width.
void Formatter::AppendText(const Conversion &conversion, std::string_view text)
{
    if (conversion.precision >= 0 && text.size() >= static_cast<size_t>(conversion.precision))
        text = text.substr(0, LengthOfWholeCharacters(text.data(), static_cast<size_t>(conversion.precision)));
    const auto width = static_cast<size_t>(conversion.width);
    const size_t padding = width > text.size() ? width - text.size() : 0;
    if (!conversion.left) text_.append(padding, ' ');
    text_.append(text);
    if (conversion.left) text_.append(padding, ' ');
}

} // namespace

// NOLINTEND(clang-analyzer-valist.Uninitialized,bugprone-branch-clone,bugprone-signed-char-misuse,cert-str34-c)

TQString *TQStringCreateWithFormatAndArguments(const char *format, va_list arguments)
{
    if (!format) return nullptr;
    const ErrnoKeeper keeper;
    Arguments copy;
    va_copy(copy.list, arguments);
    const ScopeExit end([&] { va_end(copy.list); });
    return NoThrow<TQString *>(nullptr, [&]() -> TQString * {
        Formatter formatter;
        return formatter.Run(format, copy) ? MakeString(formatter.text()) : nullptr;
    });
}

TQString *TQStringCreateWithFormat(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    TQString *string = TQStringCreateWithFormatAndArguments(format, arguments);
    va_end(arguments);
    return string;
}
