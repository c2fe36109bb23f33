#include "Runtime/UTF8.h"

#include "Platform/WholeCharacters.h"

#include <cstring>

namespace {

struct Lead {
    size_t length; // of the whole character; 0 for a byte that begins none
    char32_t bits;
    char32_t smallest; // below it the form is overlong
};

constexpr Lead _ReadLead(unsigned char byte)
{
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const size_t length = LengthOfCharacter(byte);
    return {length, length > 1 ? byte & (0x7fU >> length) : byte, kSmallest[length]};
}

constexpr bool _IsCharacter(char32_t value)
{
    return value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
}

bool _IsASCIIWord(const unsigned char *at)
{
    uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return (word & 0x8080808080808080) == 0;
}

} // namespace

std::optional<size_t> UTF16LengthOfUTF8(const void *bytes, size_t length)
{
    const auto *at = static_cast<const unsigned char *>(bytes);
    size_t left = length;
    size_t units = 0;
    while (left > 0) {
        if (left >= 8 && _IsASCIIWord(at)) {
            at += 8;
            left -= 8;
            units += 8;
            continue;
        }
        const Lead lead = _ReadLead(*at);
        if (lead.length == 0 || lead.length > left) return std::nullopt;
        char32_t value = lead.bits;
        for (size_t i = 1; i < lead.length; ++i) {
            if ((at[i] & 0xc0) != 0x80) return std::nullopt;
            value = value << 6 | (at[i] & 0x3fU);
        }
        if (value < lead.smallest || !_IsCharacter(value)) return std::nullopt;
        at += lead.length;
        left -= lead.length;
        units += value >= 0x10000 ? 2 : 1;
    }
    return units;
}

char32_t NextCharacter(const char *&at)
{
    const Lead lead = _ReadLead(static_cast<unsigned char>(*at++));
    char32_t value = lead.bits;
    for (size_t i = 1; i < lead.length; ++i) value = value << 6 | (static_cast<unsigned char>(*at++) & 0x3fU);
    return value;
}

bool AppendUTF8(std::string &text, char32_t character)
{
    if (!_IsCharacter(character)) return false;
    const auto append = [&](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    const auto rest = [&](unsigned shift) { append(0x80 | (character >> shift & 0x3f)); };
    if (character < 0x80) {
        append(character);
    } else if (character < 0x800) {
        append(0xc0 | character >> 6);
        rest(0);
    } else if (character < 0x10000) {
        append(0xe0 | character >> 12);
        rest(6);
        rest(0);
    } else {
        append(0xf0 | character >> 18);
        rest(12);
        rest(6);
        rest(0);
    }
    return true;
}
