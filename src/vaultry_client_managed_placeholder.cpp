#include "vaultry_client_managed_placeholder.h"

#include "Platform/WholeCharacters.h"

#include <vaultry/path.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kRoom = NAME_MAX - (sizeof PlaceholderName::kMark - 1) - (sizeof PlaceholderName::kUnique - 1);

// How much of `text` fits, in whole characters.
size_t Fitting(const char *text, size_t length, size_t room)
{
    return length <= room ? length : LengthOfWholeCharacters(text, room);
}

} // namespace

PlaceholderName::PlaceholderName(const char *document, bool isFolder)
{
    const char *extension = isFolder ? nullptr : TQGetFileNameExtensionForPath(document);
    if (!extension) extension = document + strlen(document);
    extensionLength = Fitting(extension, strlen(extension), kRoom);
    stemLength = Fitting(document, static_cast<size_t>(extension - document), kRoom - extensionLength);
    (void)snprintf(text, sizeof text, "%.*s%s%s%.*s", static_cast<int>(stemLength), document, kMark, kUnique,
                   static_cast<int>(extensionLength), extension);
}

bool PlaceholderName::Matches(const char *name) const
{
    const size_t fixed = stemLength + sizeof kMark - 1, length = strlen(text);
    return strlen(name) == length && memcmp(name, text, fixed) == 0 &&
           memcmp(name + length - extensionLength, text + length - extensionLength, extensionLength) == 0;
}
