// UTF-8: checked once where bytes come in, trusted afterwards.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// How many UTF-16 units `length` bytes of UTF-8 stand for; nothing if they are not UTF-8. Overlong forms, surrogates
// and numbers past U+10FFFF are not UTF-8.
std::optional<size_t> UTF16LengthOfUTF8(const void *bytes, size_t length);

// The character that begins at `at`, which moves behind it. The bytes must be valid.
char32_t NextCharacter(const char *&at);

// False for a surrogate or a number past U+10FFFF; nothing is appended then.
bool AppendUTF8(std::string &text, char32_t character);
